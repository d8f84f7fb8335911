// The page and signing commands through the real browser helper and signing service, started by
// their scripts as on a counter terminal, in a private TMPDIR. The browser is a stub that records
// its arguments; the service signs unattended, and the signed PDF is rendered to find the ink.
#include "fixture.h"

#include "companion/signsouthinterface.h"
#include "companion/webbrowser.h"
#include "dispatch/messagerun.h"
#include "transport/websocketservermanager.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QLocalSocket>
#include <QJsonDocument>
#include <QPainter>
#include <QPdfWriter>
#include <QProcess>
#include <QStandardPaths>
#include <QTest>
#include <QUrl>

#include <csignal>
#include <memory>

namespace {

QByteArray int32(qint32 v) { return QByteArray(reinterpret_cast<const char*>(&v), 4); }
const QList<QPair<QString, QString>> kPrograms{{"SOUTHINTERFACE_BROWSER", "/run-webbrowser.sh"},
                                               {"SOUTHINTERFACE_ELECSIGNSERVER", "/run-elecsign.sh"}};

// The bounding box of the dark pixels of one page rendered at 72 dpi (one pixel a point).
QRect inkOn(const QString& pdf, int page, const QString& dir)
{
    const QString prefix = dir + QStringLiteral("/render");
    QProcess::execute(QStringLiteral("pdftoppm"), {"-r", "72", "-png", "-singlefile", "-f", QString::number(page), "-l",
                                                   QString::number(page), pdf, prefix});
    const QImage image(prefix + QStringLiteral(".png"));
    QFile::remove(prefix + QStringLiteral(".png"));
    QRect ink;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            if (qGray(image.pixel(x, y)) < 128)
                ink = ink.united(QRect(x, y, 1, 1));
    return ink;
}

}  // namespace

class TestCompanionE2E : public QObject {
    Q_OBJECT

    QTemporaryDir m_tmp;
    std::unique_ptr<WebSocketServerManager> m_mgr;
    std::unique_ptr<ServerPage> m_page;

    QString stubArgs() const { return QString::fromUtf8(readFile(m_tmp.path() + "/chromium.args")); }

    // A two-page A4 PDF (595 x 842 points), blank; rotate turns the given page when shown.
    QString makePdf(const QString& name, int page, int rotate)
    {
        const QString path = m_tmp.path() + QLatin1Char('/') + name;
        QPdfWriter writer(path);
        QPainter painter(&writer);
        writer.newPage();
        painter.end();
        if (rotate) {
            // Same length in place of the page's media box, so every offset in the file still holds.
            QByteArray pdf = readFile(path);
            const QByteArray box("/MediaBox [0 0 595.000000 842.000000]");
            int at = -1;
            for (int i = 0; i < page; ++i)
                at = pdf.indexOf(box, at + 1);
            pdf.replace(at, box.size(), ("/Rotate " + QByteArray::number(rotate) + " /MediaBox [0 0 595 842]").leftJustified(box.size()));
            writeFile(path, pdf);
        }
        return path;
    }

private slots:
    void initTestCase()
    {
        if (QStandardPaths::findExecutable("pdftoppm").isEmpty())
            QSKIP("pdftoppm (poppler-utils) is not installed");
        qputenv("TMPDIR", m_tmp.path().toUtf8());
        qputenv("RVO_COMPANION_WAIT_MS", "300");
        qputenv("ELECSIGN_AUTOSIGN", "1");
        // The browser: a stub in PATH that writes down its arguments.
        QVERIFY(writeFile(m_tmp.path() + "/bin/chromium",
                          "#!/bin/sh\nprintf '%s\\n' \"$@\" > \"$TMPDIR/chromium.args.new\"\n"
                          "mv \"$TMPDIR/chromium.args.new\" \"$TMPDIR/chromium.args\"\nexec sleep 3\n"));
        QFile::setPermissions(m_tmp.path() + "/bin/chromium", QFileDevice::ReadOwner | QFileDevice::ExeOwner);
        QFile::link(m_tmp.path() + "/bin/chromium", m_tmp.path() + "/bin/gnome-www-browser");  // the in-process launcher's
        qputenv("PATH", (m_tmp.path() + "/bin:").toUtf8() + qgetenv("PATH"));
        // Started once here, so the commands' short waits need not cover a program's start-up.
        for (const auto& [name, script] : kPrograms) {
            QProcess::startDetached("/bin/bash", {QCoreApplication::applicationDirPath() + script});
            QVERIFY(waitFor([&, name = name] { return QFileInfo::exists(m_tmp.path() + "/" + name); }, 15000));
        }
        m_mgr = std::make_unique<WebSocketServerManager>(QStringLiteral("boreaTcp"), QWebSocketServer::NonSecureMode);
        QVERIFY(m_mgr->websocke_server_start(QHostAddress::LocalHost, 0));
        m_page = std::make_unique<ServerPage>(*m_mgr);
    }
    void cleanupTestCase()
    {
        m_page.reset();
        m_mgr.reset();
        // The programs are stopped through the PID in their lock files. Each command starts the
        // script again, so a late copy may take the lock once the first is gone: look again.
        for (int round = 0; round < 3; ++round) {
            QTest::qWait(700);
            for (const auto& program : kPrograms) {
                const qint64 pid = readFile(m_tmp.path() + "/" + program.first + ".lock").split('\n').value(0).toLongLong();
                if (pid > 0 && ::kill(pid_t(pid), SIGTERM) == 0)
                    waitFor([pid] { return ::kill(pid_t(pid), 0) != 0; });
            }
        }
    }

    void pages_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("url");
        const QString site = QUrl::fromLocalFile(QCoreApplication::applicationDirPath() + "/webSite/").toString(QUrl::FullyEncoded);
        QTest::newRow("teller") << "GWQ_TellerInfo(no=12,name=Li)" << site + "teller.html#no%3D12%2Cname%3DLi";
        QTest::newRow("call, then replaced") << "GWQ_CallNumber(no=7)" << site + "callNo.html#no%3D7";
        QTest::newRow("OpenURL as it is") << "OpenURL(http://127.0.0.1:9/a?b=1,c=(2))" << "http://127.0.0.1:9/a?b=1,c=(2)";
    }
    void pages()
    {
        QFETCH(QString, command);
        QFETCH(QString, url);
        const QString name = command.left(command.indexOf('('));
        QCOMPARE(m_page->ask(command, 15000), QStringLiteral("Begin%1trueEnd%1").arg(name));
        QCOMPARE(m_page->next(10000), "BeginWebBrowseropened " + url + "EndWebBrowser");
        QVERIFY(waitFor([&] { return stubArgs().contains(url); }));
        // One screen: neither kiosk nor positioned.
        QVERIFY2(stubArgs().startsWith("--window-size=1280,800\n--new-window\n" + url + "\n"), qPrintable(stubArgs()));
    }

    // Bad frames straight to the programs: an error answer, and the next frame is served.
    void refused_data()
    {
        QTest::addColumn<QString>("service");
        QTest::addColumn<QByteArray>("sent");
        QTest::addColumn<QByteArray>("answer");
        const QString browser("SOUTHINTERFACE_BROWSER"), sign("SOUTHINTERFACE_ELECSIGNSERVER");
        QTest::newRow("length over 1 MiB") << browser << int32(1) + int32(1048577) << QByteArray("BeginWebBrowsererror: length 1048577 refusedEndWebBrowser");
        QTest::newRow("negative length") << browser << int32(2) + int32(1) + "u" + int32(-1) << QByteArray("error: length -1 refused");
        QTest::newRow("unknown type") << browser << int32(7) << QByteArray("error: unknown frame type 7");
        QTest::newRow("broken JSON") << sign << int32(1) + int32(5) + "{oops" << QByteArray("{\"code\":1,\"msg\":\"broken JSON");
        QTest::newRow("unknown request") << sign << int32(9) + int32(2) + "{}" << QByteArray("{\"code\":1,\"msg\":\"unknown request type 9");
    }
    void refused()
    {
        QFETCH(QString, service);
        QFETCH(QByteArray, sent);
        QFETCH(QByteArray, answer);
        QLocalSocket s;
        s.connectToServer(service);
        QVERIFY(s.waitForConnected(5000));
        QByteArray got;
        const auto exchange = [&](const QByteArray& bytes, const QByteArray& want) {
            got.clear();
            s.write(bytes);
            return waitFor([&] { return (got += s.readAll()).contains(want); });
        };
        QVERIFY2(exchange(sent, answer), got.constData());
        if (service.endsWith("BROWSER"))
            QVERIFY2(exchange(int32(1) + int32(1) + "u", "BeginWebBrowseropened uEndWebBrowser"), got.constData());
        else
            QVERIFY(got.size() > 104);
    }

    // The in-process launcher: the configured browser with the page's size, not kiosk on one screen.
    void launcher()
    {
        WebBrowser* browser = WebBrowser::instance();
        const QSize page = browser->settings().padsize;
        browser->openURL("file:///x.html", "no=1");
        QCOMPARE(browser->pageData(), QStringLiteral("no=1"));
        const QString want = QStringLiteral("--window-size=%1,%2\n--new-window\nfile:///x.html\n--user-data-dir=/tmp/veltrobrowser12345\n"
                                            "--no-first-run\n--no-default-browser-check\n--no-announcement\n").arg(page.width()).arg(page.height());
        QVERIFY2(waitFor([&] { return stubArgs() == want; }), qPrintable(stubArgs()));
        browser->closeURL();
    }

    void signing_data()
    {
        QTest::addColumn<QString>("location");
        QTest::addColumn<QString>("retain");
        QTest::addColumn<int>("code");
        QTest::addColumn<int>("page");
        QTest::addColumn<QRect>("place");
        QTest::addColumn<int>("rotate");
        QTest::newRow("page 2, kept beside") << "2.100.200.150" << "1" << 0 << 2 << QRect(100, 200, 150, 150) << 0;
        QTest::newRow("page 1, height given, replaced") << "1.300.500.200.80" << "0" << 0 << 1 << QRect(300, 500, 200, 80) << 0;
        QTest::newRow("turned 90") << "1.600.100.200.80" << "1" << 0 << 1 << QRect(600, 100, 200, 80) << 90;
        QTest::newRow("turned 180") << "2.50.600.200.80" << "1" << 0 << 2 << QRect(50, 600, 200, 80) << 180;
        QTest::newRow("turned 270") << "2.400.450.200.80" << "1" << 0 << 2 << QRect(400, 450, 200, 80) << 270;
        QTest::newRow("page out of range") << "3.1.1.10" << "1" << 1 << 0 << QRect() << 0;
        QTest::newRow("no such file") << "1.1.1.10" << "missing" << 1 << 0 << QRect() << 0;
    }
    void signing()
    {
        QFETCH(QString, location);
        QFETCH(QString, retain);
        QFETCH(int, code);
        QFETCH(int, page);
        QFETCH(QRect, place);
        QFETCH(int, rotate);
        const QString pdf = makePdf(QString::fromLatin1(QTest::currentDataTag()).replace(' ', '_').replace(',', '_') + ".pdf",
                                    page, rotate);
        const QString asked = retain == "missing" ? pdf + ".none" : pdf;
        QCOMPARE(m_page->ask(QStringLiteral("DoGWQ_StartSign(%1,x.xml,%2,%3,30)").arg(asked, location, retain), 15000),
                 QStringLiteral("BeginDoGWQ_StartSigntrueEndDoGWQ_StartSign"));
        const QJsonObject answer = QJsonDocument::fromJson(m_page->next(20000).toUtf8()).object();
        QCOMPARE(answer.value("code").toInt(-1), code);
        QCOMPARE(answer.value("pdfpath").toString(), asked);
        QVERIFY(!answer.value("msg").toString().isEmpty());
        if (code != 0)
            return;
        const QString signedPath = retain == "1" ? pdf.chopped(4) + "_signed.pdf" : pdf;
        QCOMPARE(answer.value("signedpath").toString(), signedPath);
        QVERIFY(QImage::fromData(QByteArray::fromBase64(answer.value("signature").toString().toLatin1())).width() > 0);
        QVERIFY(answer.value("strokes").toArray().size() > 0);
        const QRect ink = inkOn(signedPath, page, m_tmp.path());
        QVERIFY2(place.contains(ink) && ink.width() > place.width() / 2, qPrintable(QStringLiteral("ink at %1,%2 %3x%4")
                                                                                      .arg(ink.x()).arg(ink.y()).arg(ink.width()).arg(ink.height())));
        QVERIFY(inkOn(signedPath, 3 - page, m_tmp.path()).isNull());
    }
};

QTEST_MAIN(TestCompanionE2E)
#include "tst_companione2e.moc"
