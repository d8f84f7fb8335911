// Printing into a CUPS of the test's own: a cupsd with its configuration, spool and socket in a
// temporary folder, and queues whose backend (a script of the test's) copies each job to a
// file. The jobs' pages, copies and placement are read back with poppler.
#include "devicelib/doccamera.h"
#include "devicelib/portable/core.h"
#include "fixture.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace {

QString run(const QString& program, const QStringList& args)
{
    QProcess p;
    p.start(program, args);
    p.waitForFinished(10000);
    return QString::fromUtf8(p.readAllStandardOutput() + p.readAllStandardError());
}

// An image of w x h black pixels at dpi dots per inch.
QString image(const QString& path, int w, int h, int dpi)
{
    QImage img(w, h, QImage::Format_RGB32);
    img.fill(Qt::black);
    img.setDotsPerMeterX(qRound(dpi / 0.0254)), img.setDotsPerMeterY(qRound(dpi / 0.0254));
    return img.save(path) ? path : QString();
}

}  // namespace

class TestPrinting : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QProcess m_cupsd;   // killed with the test, whatever happens
    QString m_out;

    // The jobs the backend has copied so far, by queue: "<queue>-<job>.pdf".
    QStringList printed() const { return QDir(m_out).entryList({"*.pdf"}, QDir::Files, QDir::Name); }

private slots:
    void initTestCase()
    {
        const QString d = m_dir.path();
        m_out = d + "/out";
        for (const char* sub : {"spool", "tmp", "cache", "state", "log", "conf", "bin/backend", "bin/daemon", "out"})
            QVERIFY(QDir().mkpath(d + "/" + sub));
        // CUPS starts backends through its own helper, from the ServerBin folder.
        const QString serverBin = run("cups-config", {"--serverbin"}).trimmed();
        QVERIFY(QFile::link(serverBin + "/daemon/cups-exec", d + "/bin/daemon/cups-exec"));
        const QString backend = d + "/bin/backend/rvocopy";
        QVERIFY(writeFile(backend, QStringLiteral("#!/bin/sh\n"
                                                  "[ $# -eq 0 ] && { echo 'direct rvocopy \"Unknown\" \"test copy\"'; exit 0; }\n"
                                                  "cat \"${6:-/dev/stdin}\" > \"%1/$PRINTER-$1.tmp\"\n"
                                                  "echo \"$4\" > \"%1/$PRINTER-$1.copies\"\n"
                                                  "mv \"%1/$PRINTER-$1.tmp\" \"%1/$PRINTER-$1.pdf\"\n").arg(m_out).toUtf8()));
        QFile::setPermissions(backend, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);   // 0700: run as its owner
        QVERIFY(writeFile(d + "/conf/cups-files.conf",
                          QStringLiteral("ServerRoot %1/conf\nRequestRoot %1/spool\nTempDir %1/tmp\nCacheDir %1/cache\nStateDir %1/state\n"
                                         "ServerBin %1/bin\nAccessLog %1/log/access_log\nErrorLog %1/log/error_log\nPageLog %1/log/page_log\n")
                              .arg(d).toUtf8()));
        QVERIFY(writeFile(d + "/conf/cupsd.conf", QStringLiteral("Listen %1/cups.sock\nWebInterface No\nBrowsing No\n"
                                                                 "<Location />\n  Order allow,deny\n  Allow all\n</Location>\n").arg(d).toUtf8()));
        m_cupsd.start("cupsd", {"-f", "-c", d + "/conf/cupsd.conf", "-s", d + "/conf/cups-files.conf"});
        QVERIFY(m_cupsd.waitForStarted());
        QVERIFY2(waitFor([&] { return QFile::exists(d + "/cups.sock"); }), qPrintable(QString(m_cupsd.readAllStandardError())));
        qputenv("CUPS_SERVER", QString(d + "/cups.sock").toUtf8());
        for (const char* queue : {"counter", "second"}) {
            const QString out = run("lpadmin", {"-p", queue, "-E", "-v", "rvocopy:/", "-m", "raw"});
            QVERIFY2(!out.contains("rror"), qPrintable(out));
        }
        QVERIFY(run("lpadmin", {"-d", "counter"}).isEmpty());
        QVERIFY(run("lpstat", {"-d"}).contains("counter"));
    }

    void cleanupTestCase()
    {
        m_cupsd.terminate();
        if (!m_cupsd.waitForFinished(5000))
            m_cupsd.kill();
    }

    void cleanup() { bStopPlay(); }

    // Each print is one PDF job on the queue the profile names (else the default), with its copies.
    void jobs_data()
    {
        QTest::addColumn<QString>("printer");   // printer.name, empty for the default
        QTest::addColumn<QString>("call");
        QTest::addColumn<QString>("queue");     // where the job lands; empty: no job, false
        QTest::addColumn<QString>("copies");
        QTest::addColumn<QSizeF>("inches");     // the picture on the upright A4 page; negative: as large as fits
        QTest::newRow("file, fitted, 2 copies") << "" << "file portrait 2" << "counter" << "2" << QSizeF(-1, -1);
        QTest::newRow("image at its own DPI, 0 copies") << "" << "image landscape 0 0" << "counter" << "1" << QSizeF(6, 8);   // turned
        QTest::newRow("image fitted, 3 copies") << "" << "image landscape 3 1" << "counter" << "3" << QSizeF(-1, -1);
        QTest::newRow("named printer") << "second" << "file portrait 1" << "second" << "1" << QSizeF(-1, -1);
        QTest::newRow("camera picture") << "" << "camera 2" << "counter" << "2" << QSizeF(960 / 300.0, 1280 / 300.0);
        QTest::newRow("no such printer") << "nosuch" << "file portrait 1" << "" << "" << QSizeF();
        QTest::newRow("no camera open") << "" << "nocamera 1" << "" << "" << QSizeF();
        QTest::newRow("0-byte file") << "" << "file empty 1" << "" << "" << QSizeF();
        QTest::newRow("missing file") << "" << "file missing 1" << "" << "" << QSizeF();
    }
    void jobs()
    {
        QFETCH(QString, printer); QFETCH(QString, call); QFETCH(QString, queue); QFETCH(QString, copies);
        QFETCH(QSizeF, inches);
        portable::loadProfileText(QStringLiteral(R"({"printer":{"name":"%1"},"camera":{"sources":{"1":{"type":"synthetic","width":1280,"height":960}}}})")
                                      .arg(printer).toUtf8());
        const QString d = m_dir.path();
        const QMap<QString, QString> files{{"portrait", image(d + "/portrait.png", 600, 800, 100)},
                                          {"landscape", image(d + "/landscape.png", 800, 600, 100)},
                                          {"empty", writeFile(d + "/empty.png", {}) ? d + "/empty.png" : QString()},
                                          {"missing", d + "/missing.png"}};
        const QStringList c = call.split(' ');
        const QStringList before = printed();
        bool ok = false;
        if (c[0] == "file")
            ok = bPrintImageFile(files[c[1]].toUtf8().constData(), c[2].toInt());
        else if (c[0] == "image")
            ok = bPrintImage(c[2].toShort(), files[c[1]].toLocal8Bit().constData(), c[3].toShort());
        else
            ok = (c[0] == "nocamera" || bStartPlay(0)) && bPrint(c[1].toInt());
        QCOMPARE(ok, !queue.isEmpty());
        if (queue.isEmpty()) {
            QTest::qWait(200);
            QCOMPARE(printed(), before);
            return;
        }
        QVERIFY(waitFor([&] { return printed().size() == before.size() + 1; }, 10000));
        QString job;
        for (const QString& j : printed())
            if (!before.contains(j))
                job = j;
        QVERIFY2(job.startsWith(queue + "-"), qPrintable(job));
        const QString pdf = m_out + "/" + job;
        QCOMPARE(readFile(QString(pdf).replace(".pdf", ".copies")).trimmed(), copies.toUtf8());
        const QString info = run("pdfinfo", {pdf});
        QVERIFY2(info.contains(QRegularExpression("Pages:\\s+1\\n")), qPrintable(info));
        QVERIFY2(info.contains(QRegularExpression("Page size:\\s+595 x 842 pts")), qPrintable(info));
        // Placement: the black picture's box on the page rendered at 20 dots per inch.
        QCOMPARE(QProcess::execute("pdftoppm", {"-r", "20", "-gray", "-png", "-singlefile", pdf, d + "/page"}), 0);
        const cv::Mat page = cv::imread((d + "/page.png").toStdString(), cv::IMREAD_GRAYSCALE);
        cv::Mat ink;
        cv::threshold(page, ink, 128, 255, cv::THRESH_BINARY_INV);
        const cv::Rect box = cv::boundingRect(ink);
        QVERIFY(qAbs(box.x + box.width / 2.0 - page.cols / 2.0) <= 1.5);   // centred
        QVERIFY(qAbs(box.y + box.height / 2.0 - page.rows / 2.0) <= 1.5);
        const double margin = 5 / 25.4 * 20;   // the printable area's margin, in pixels
        if (inches.width() < 0)   // fitted: touches the printable area on one side
            QVERIFY2(qAbs(box.width - (page.cols - 2 * margin)) <= 2 || qAbs(box.height - (page.rows - 2 * margin)) <= 2,
                     qPrintable(QStringLiteral("%1 x %2 on %3 x %4").arg(box.width).arg(box.height).arg(page.cols).arg(page.rows)));
        else
            QVERIFY(qAbs(box.width - inches.width() * 20) <= 2 && qAbs(box.height - inches.height() * 20) <= 2);
    }
};

QTEST_MAIN(TestPrinting)
#include "tst_printing.moc"
