// Documents and scans: the commands' argument rules through the call trace, and the portable
// library's real PDF, OFD, merged image, automatic, timed and book scans on a file camera.
#include "devicelib/doccamera.h"
#include "devicelib/portable/core.h"
#include "dispatch/messagerun.h"
#include "fixture.h"

#include <QDir>
#include <QImage>
#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QStandardPaths>
#include <QTest>
#include <QTextCodec>
#include <QThread>
#include <QXmlStreamReader>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <cstdio>
#include <memory>

namespace {

QStringList callTexts(const Trace& trace)
{
    QStringList r;
    for (const QJsonObject& c : trace.calls())
        r << c["fn"].toString() + "(" + QString::fromUtf8(QJsonDocument(c["args"].toArray()).toJson(QJsonDocument::Compact).chopped(1).mid(1)) + ")";
    return r;
}
QByteArray tool(const QString& program, const QStringList& args)
{
    QProcess p;
    p.start(program, args);
    return p.waitForFinished(30000) && p.exitCode() == 0 ? p.readAllStandardOutput() : QByteArray();
}
// A page of text: dark lines on white with a tinted heading, w x h pixels.
cv::Mat textPage(int w, int h)
{
    cv::Mat m(h, w, CV_8UC3, cv::Scalar(250, 250, 250));
    cv::rectangle(m, cv::Rect(w / 10, h / 20, w * 8 / 10, h / 15), cv::Scalar(200, 120, 40), cv::FILLED);
    for (int y = h / 6; y < h * 9 / 10; y += h / 40)
        cv::putText(m, "Loan contract clause 12.3 shall apply", cv::Point(w / 10, y), cv::FONT_HERSHEY_SIMPLEX, w / 1400.0, cv::Scalar(20, 20, 20), 2);
    return m;
}
// The pages laid under the automatic scan: each hides a different half of the scene.
cv::Mat scene(int which)
{
    cv::Mat m(480, 640, CV_8UC3, cv::Scalar(255, 255, 255));
    const cv::Rect halves[] = {{0, 0, 0, 0}, {0, 0, 320, 480}, {0, 0, 640, 240}, {320, 0, 320, 480}};
    m(halves[which]).setTo(which == 2 ? cv::Scalar(30, 60, 90) : cv::Scalar(0, 0, 0));
    return m;
}
// Replaces the file as a scanner user would: written aside, renamed over it.
void layDown(const QString& path, const cv::Mat& img)
{
    const QString aside = path + ".new.jpg";
    QVERIFY(cv::imwrite(aside.toStdString(), img));
    QCOMPARE(std::rename(aside.toLocal8Bit().constData(), path.toLocal8Bit().constData()), 0);
}

}  // namespace

// An observer as a page's dispatcher would be: what it was told, and on which thread.
class ShotSpy : public QObject {
    Q_OBJECT
public:
    QList<int> shots;   // and the thread each came on
    QList<QThread*> threads;
public slots:
    void slot_iAutoshot(int n) { shots << n; threads << QThread::currentThread(); }
};

class TestDocuments : public QObject {
    Q_OBJECT
    MessageRun m_run;
    PagePair m_page;
    std::unique_ptr<QTemporaryDir> m_dir;
    QString D;   // the test's folder
    QString run(QString text, int timeoutMs = 10000) { return runCommand(m_run, m_page, text.replace("$D", D), timeoutMs); }
    // Camera 1 plays the image, written as the named file in the test's folder, at the given DPI.
    void camera(const QString& name, const cv::Mat& image, int dpi = 300)
    {
        QVERIFY(cv::imwrite((D + "/" + name).toStdString(), image));
        portable::loadProfileText(QStringLiteral(R"({"camera":{"sources":{"1":{"type":"file","path":"%1","fps":10}}}})").arg(D + "/" + name).toUtf8());
        QVERIFY(::bStartPlay(0));
        QVERIFY(::vSetDPI(dpi, dpi));
    }
    void runAll(const QStringList& commands)
    {
        for (const QString& c : commands)
            QVERIFY2(run(c).contains("true"), qPrintable(c));
    }
private slots:
    void initTestCase()
    {
        QVERIFY(m_page.isConnected());
        QVERIFY2(!QStandardPaths::findExecutable("pdfinfo").isEmpty(), "poppler-utils is missing (scripts/install-deps.sh)");
    }
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        D = m_dir->path();
        portable::loadProfileText(QByteArray());
        m_page.makeCurrent();
        m_page.drain(20);
    }
    void cleanup()
    {
        ::bStopPlay();
        portable::loadProfileText(QByteArray());
    }
    // What each command passes to the library, and when it does not call at all.
    void arguments_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<QString>("reply");   // empty: nothing is sent
        QTest::addColumn<QStringList>("calls");
        auto row = [](const char* tag, const QString& command, const char* script, const QString& reply, const QStringList& calls) {
            QTest::newRow(tag) << command << QByteArray(script) << reply << calls;
        };
        row("pdf start", "bSavePDFStart(/srv,a,b)", R"({"bSavePDFStart":[true]})", "BeginbSavePDFStarttrueEndbSavePDFStart", {R"(bSavePDFStart("/srv","a"))"});
        row("pdf start, empty texts pass", "bSavePDFStart(,)", R"({"bSavePDFStart":[false]})", "BeginbSavePDFStartfalseEndbSavePDFStart", {R"(bSavePDFStart("",""))"});
        row("pdf start, one part", "bSavePDFStart(/srv)", "{}", "BeginbSavePDFStartfalseEndbSavePDFStart", {});
        row("pdf colour page", "bSavePDFColorPage(x)", R"({"bSavePDFColorPage":[true]})", "BeginbSavePDFColorPagetrueEndbSavePDFColorPage", {"bSavePDFColorPage()"});
        row("pdf bw page", "bSavePDFBWPage()", R"({"bSavePDFBWPage":[false]})", "BeginbSavePDFBWPagefalseEndbSavePDFBWPage", {"bSavePDFBWPage()"});
        row("pdf end", "bSavePDFEnd()", R"({"bSavePDFEnd":[true]})", "BeginbSavePDFEndtrueEndbSavePDFEnd", {"bSavePDFEnd()"});
        row("pdf file page, nothing", "bAddPDFColorPage()", R"({"bAddPDFColorPage":[false]})", "BeginbAddPDFColorPagefalseEndbAddPDFColorPage", {R"(bAddPDFColorPage("",-1))"});
        row("pdf file page, empty number", "bAddPDFColorPage(/a.jpg,)", R"({"bAddPDFColorPage":[true]})", "BeginbAddPDFColorPagetrueEndbAddPDFColorPage", {R"(bAddPDFColorPage("/a.jpg",0))"});
        row("pdf file page, number", "bAddPDFColorPage(/a.jpg,1.5,9)", R"({"bAddPDFColorPage":[true]})", "BeginbAddPDFColorPagetrueEndbAddPDFColorPage", {R"(bAddPDFColorPage("/a.jpg",1.5))"});
        row("pdf file page, local 8-bit name", "bAddPDFColorPage(/srv/é.jpg)", R"({"bAddPDFColorPage":[false]})", "BeginbAddPDFColorPagefalseEndbAddPDFColorPage", {R"(bAddPDFColorPage("/srv/\\xe9.jpg",-1))"});
        row("pdf bw file page, default", "bAddPDFBWPage(/a.png)", R"({"bAddPDFBWPage":[true]})", "BeginbAddPDFBWPagetrueEndbAddPDFBWPage", {R"(bAddPDFBWPage("/a.png",-1))"});
        row("pdf base64, commas kept", "bAddPDFBase64ColorPage(data:image/png;base64,QUJD)", R"({"bAddPDFBase64ColorPage":[true]})", "BeginbAddPDFBase64ColorPagetrueEndbAddPDFBase64ColorPage", {R"(bAddPDFBase64ColorPage("data:image/png;base64,QUJD"))"});
        row("ofd start", "bSaveOFDStart(/srv,a)", R"({"bSaveOFDStart":[true]})", "BeginbSaveOFDStarttrueEndbSaveOFDStart", {R"(bSaveOFDStart("/srv","a"))"});
        row("ofd start, empty folder", "bSaveOFDStart(,x)", "{}", "BeginbSaveOFDStartfalseEndbSaveOFDStart", {});
        row("ofd start, empty name", "bSaveOFDStart(/srv,)", "{}", "BeginbSaveOFDStartfalseEndbSaveOFDStart", {});
        row("ofd start, one part", "bSaveOFDStart(/srv)", "{}", "BeginbSaveOFDStartfalseEndbSaveOFDStart", {});
        row("ofd colour page", "bSaveOFDColorPage()", R"({"bSaveOFDColorPage":[false]})", "BeginbSaveOFDColorPagefalseEndbSaveOFDColorPage", {"bSaveOFDColorPage()"});
        row("ofd bw page", "bSaveOFDBWPage()", R"({"bSaveOFDBWPage":[true]})", "BeginbSaveOFDBWPagetrueEndbSaveOFDBWPage", {"bSaveOFDBWPage()"});
        row("ofd end", "bSaveOFDEnd()", R"({"bSaveOFDEnd":[false]})", "BeginbSaveOFDEndfalseEndbSaveOFDEnd", {"bSaveOFDEnd()"});
        row("ofd file page, default", "bAddOFDPage(/a.jpg)", R"({"bAddOFDPage":[true]})", "BeginbAddOFDPagetrueEndbAddOFDPage", {R"(bAddOFDPage("/a.jpg",1))"});
        row("ofd file page, UTF-8 name", "bAddOFDPage(/srv/é.jpg)", R"({"bAddOFDPage":[false]})", "BeginbAddOFDPagefalseEndbAddOFDPage", {R"(bAddOFDPage("/srv/é.jpg",1))"});
        row("ofd file page, number", "bAddOFDPage(/a.jpg,0.5)", R"({"bAddOFDPage":[true]})", "BeginbAddOFDPagetrueEndbAddOFDPage", {R"(bAddOFDPage("/a.jpg",0.5))"});
        row("ofd file page, not a number", "bAddOFDPage(/a.jpg,x)", R"({"bAddOFDPage":[true]})", "BeginbAddOFDPagetrueEndbAddOFDPage", {R"(bAddOFDPage("/a.jpg",0))"});
        row("ofd file page, empty number", "bAddOFDPage(/tmp/a.jpg,)", "{}", "BeginbAddOFDPagefalseEndbAddOFDPage", {});
        row("ofd file page, empty path", "bAddOFDPage(,2)", "{}", "BeginbAddOFDPagefalseEndbAddOFDPage", {});
        row("ofd file page, nothing", "bAddOFDPage()", "{}", "BeginbAddOFDPagefalseEndbAddOFDPage", {});
        row("ofd base64, commas kept", "bAddOFDBase64ColorPage(a,b)", R"({"bAddOFDBase64ColorPage":[false]})", "BeginbAddOFDBase64ColorPagefalseEndbAddOFDBase64ColorPage", {R"(bAddOFDBase64ColorPage("a,b"))"});
        row("merge start", "bSaveMergeStart(/srv,card,1,2,0,0)", R"({"bSaveMergeStart":[true]})", "BeginbSaveMergeStarttrueEndbSaveMergeStart", {R"(bSaveMergeStart("/srv","card",1,2,0,0))"});
        row("merge start, 16 and 64 bits", "bSaveMergeStart(/srv,m,40000,-3,5000000000,x)", R"({"bSaveMergeStart":[false]})", "BeginbSaveMergeStartfalseEndbSaveMergeStart", {R"(bSaveMergeStart("/srv","m",0,-3,5000000000,0))"});
        row("merge start, five parts", "bSaveMergeStart(/srv,m,1,2,0)", "{}", "BeginbSaveMergeStartfalseEndbSaveMergeStart", {});
        row("merge page", "bSaveMergePage()", R"({"bSaveMergePage":[true]})", "BeginbSaveMergePagetrueEndbSaveMergePage", {"bSaveMergePage()"});
        row("merge end", "bSaveMergeEnd()", R"({"bSaveMergeEnd":[false]})", "BeginbSaveMergeEndfalseEndbSaveMergeEnd", {"bSaveMergeEnd()"});
        row("auto scan, observer first", "iAutoScan(1,/srv,p)", R"({"iAutoScan":[1]})", "", {R"x(iAutoScan_observr("<object>","1slot_iAutoshot(int)"))x", R"(iAutoScan(1,"/srv","p"))"});
        row("auto scan stop, observer too", "iAutoScan(0,,)", R"({"iAutoScan":[1]})", "", {R"x(iAutoScan_observr("<object>","1slot_iAutoshot(int)"))x", R"(iAutoScan(0,"",""))"});
        row("auto scan, two parts", "iAutoScan(1,/tmp)", "{}", "", {});
        row("timed scan", "iTimerScan(1,/srv,t,5)", R"({"iTimerScan":[0]})", "BeginiTimerScantrueEndiTimerScan", {R"(iTimerScan(1,"/srv","t",5))"});
        row("timed scan, one part", "iTimerScan(5)", "{}", "BeginiTimerScantrueEndiTimerScan", {});
        row("book, three names", "bBookScanner(/srv,l,r)", R"({"bBookScanner":[true]})", "BeginbBookScannertrueEndbBookScanner", {R"(bBookScanner("/srv","l","r"))"});
        row("book, null third", "bBookScanner(/srv,b)", R"({"bBookScanner":[false]})", "BeginbBookScannerfalseEndbBookScanner", {R"(bBookScanner("/srv","b",null))"});
        row("book, one part", "bBookScanner(/srv)", "{}", "BeginbBookScannerfalseEndbBookScanner", {});
    }
    void arguments()
    {
        QFETCH(QString, command);
        QFETCH(QByteArray, script);
        QFETCH(QString, reply);
        QFETCH(QStringList, calls);
        applyScript(script);
        Trace trace;
        QTextCodec* former = QTextCodec::codecForLocale();   // PDF file pages name their image in it, the others in UTF-8
        QTextCodec::setCodecForLocale(QTextCodec::codecForName("ISO-8859-1"));
        const QString got = run(command, reply.isEmpty() ? 300 : 2000);
        QTextCodec::setCodecForLocale(former);
        QCOMPARE(got, reply.isEmpty() ? QString() : reply);
        QCOMPARE(callTexts(trace), calls);
        QCOMPARE(m_page.drain(50), QStringList());
    }
    // Sessions of the library for real: each step's command and reply, then the files written.
    void sessions_data()
    {
        QTest::addColumn<QStringList>("steps");   // "command result"; "!rmdir" removes the folder sub, "!stop" the camera
        QTest::addColumn<QStringList>("files");
        QTest::newRow("pdf") << QStringList{"bSavePDFStart($D,doc) true", "bSavePDFColorPage() true", "bSavePDFEnd() true"} << QStringList{"doc.pdf"};
        QTest::newRow("extension kept") << QStringList{"bSaveOFDStart($D,doc.OFD) true", "bSaveOFDColorPage() true", "bSaveOFDEnd() true"} << QStringList{"doc.OFD"};
        QTest::newRow("end without page") << QStringList{"bSavePDFStart($D,doc) true", "bSavePDFEnd() false", "bSavePDFColorPage() false"} << QStringList();
        QTest::newRow("page without start") << QStringList{"bSaveOFDColorPage() false", "bSaveOFDEnd() false"} << QStringList();
        QTest::newRow("failed start keeps the open one") << QStringList{"bSavePDFStart($D,a) true", "bSavePDFColorPage() true", "bSavePDFStart($D/none,b) false", "bSavePDFStart($D,) false", "bSavePDFEnd() true"} << QStringList{"a.pdf"};
        QTest::newRow("start discards the unfinished") << QStringList{"bSavePDFStart($D,a) true", "bSavePDFColorPage() true", "bSavePDFStart($D,b) true", "bSavePDFEnd() false"} << QStringList();
        QTest::newRow("pdf and ofd apart") << QStringList{"bSavePDFStart($D,a) true", "bSaveOFDStart($D,b) true", "bSaveOFDColorPage() true", "bSavePDFEnd() false", "bSaveOFDEnd() true"} << QStringList{"b.ofd"};
        QTest::newRow("corrupt file page") << QStringList{"bSavePDFStart($D,a) true", "bAddPDFColorPage($D/bad.jpg) false", "bAddPDFColorPage($D/missing.png) false", "bAddPDFColorPage($D/page.jpg,1e30) false", "bSavePDFEnd() false"} << QStringList();
        QTest::newRow("base64 that is no image") << QStringList{"bSaveOFDStart($D,a) true", "bAddOFDBase64ColorPage(QUJDRA==) false", "bAddOFDBase64ColorPage(data:text/plain;base64,QUJDRA==) false", "bAddOFDBase64ColorPage(" + QString(50 << 20, QChar('#')) + ") false", "bSaveOFDEnd() false"} << QStringList();
        QTest::newRow("folder gone before the end") << QStringList{"bSavePDFStart($D/sub,a) true", "bSavePDFColorPage() true", "!rmdir", "bSavePDFEnd() false"} << QStringList();
        QTest::newRow("merge named") << QStringList{"bSaveMergeStart($D,card,0,0,0,0) true", "bSaveMergePage() true", "bSaveMergeEnd() true", "bSaveMergeStart($D,card.png,1,1,100,100) true", "bSaveMergePage() true", "bSaveMergePage() false", "bSaveMergeEnd() true"} << QStringList{"card.jpg", "card.png"};
        QTest::newRow("merge refused") << QStringList{"bSaveMergeStart($D,m,10000,1,0,0) false", "bSaveMergeStart($D,m,1,101,0,0) false", "bSaveMergeStart($D,m,100,1,300,0) false", "bSaveMergeStart($D,m,1,0,-5,0) false", "bSaveMergeStart($D,m,2,1,9223372036854775807,0) false", "bSaveMergePage() false", "bSaveMergeEnd() false"} << QStringList();
        QTest::newRow("pdf page needs the camera") << QStringList{"bSavePDFStart($D,x) true", "!stop", "bSavePDFColorPage() false"} << QStringList();
        QTest::newRow("merge page needs the camera") << QStringList{"bSaveMergeStart($D,x,1,1,0,0) true", "!stop", "bSaveMergePage() false"} << QStringList();
        QTest::newRow("book needs the camera") << QStringList{"!stop", "bBookScanner($D,b) false"} << QStringList();
        QTest::newRow("merge too tall") << QStringList{"bSaveMergeStart($D,m,1,0,0,0) true", "bSaveMergePage() true", "bSaveMergePage() true", "bSaveMergePage() false", "bSaveMergeEnd() true"} << QStringList{"m.jpg"};
    }
    void sessions()
    {
        QFETCH(QStringList, steps);
        QFETCH(QStringList, files);
        QVERIFY(QDir(D).mkdir("sub"));
        QVERIFY(writeFile(D + "/bad.jpg", QByteArray("\xff\xd8\xff\xe0 not really a JPEG")));
        camera("page.jpg", textPage(400, 8000));   // a tall page: three of them would pass 20000 pixels in one column
        for (const QString& step : steps) {
            if (step == "!rmdir")
                QVERIFY(QDir(D).rmdir("sub"));
            if (step == "!stop")
                ::bStopPlay();
            if (step.startsWith('!'))
                continue;
            const QString command = step.left(step.lastIndexOf(' '));
            QCOMPARE(between(run(command), command.left(command.indexOf('('))), step.mid(step.lastIndexOf(' ') + 1));
        }
        QDir(D).remove("bad.jpg");
        QDir(D).rmdir("sub");
        QCOMPARE(QDir(D).entryList(QDir::Files | QDir::Hidden | QDir::Dirs | QDir::NoDotAndDotDot), files << "page.jpg");
    }
    // A colour shot, a black-and-white shot and an A4-fitted file page, read back by poppler.
    void pdfOpensInAReader()
    {
        const cv::Mat shot = textPage(1240, 1754);   // A4 at 150 DPI
        QVERIFY(cv::imwrite((D + "/wide.jpg").toStdString(), textPage(900, 600)));
        camera("page.png", shot, 150);
        runAll({"bSavePDFStart($D,contract)", "bSavePDFColorPage()", "bSavePDFBWPage()", "bAddPDFColorPage($D/wide.jpg)", "bSavePDFEnd()"});
        const QString pdf = D + "/contract.pdf";
        // Page sizes in points: the shots from their DPI, the wide file page fitted to landscape A4.
        QStringList sizes;
        const QRegularExpression re(QStringLiteral("Page\\s+\\d+ size:\\s+([\\d.]+) x ([\\d.]+) pts"));
        for (auto it = re.globalMatch(tool("pdfinfo", {"-f", "1", "-l", "99", pdf})); it.hasNext();) {
            const auto m = it.next();
            sizes << QStringLiteral("%1x%2").arg(qRound(m.captured(1).toDouble())).arg(qRound(m.captured(2).toDouble()));
        }
        QCOMPARE(sizes, (QStringList{"595x842", "595x842", "842x595"}));
        // pdfimages -list: page num type width height color comp bpc enc interp object ID x-ppi y-ppi size ratio
        const QStringList images = QString(tool("pdfimages", {"-list", pdf})).split('\n', Qt::SkipEmptyParts).mid(2);
        QCOMPARE(images.size(), 3);
        const QStringList colour = images[0].simplified().split(' '), bw = images[1].simplified().split(' ');
        QCOMPARE(colour.mid(7, 2), (QStringList{"8", "jpeg"}));
        QCOMPARE(bw.mid(7, 2), (QStringList{"1", "image"}));
        auto bytes = [](const QString& s) { return s.chopped(1).toDouble() * (s.endsWith('K') ? 1024 : s.endsWith('M') ? 1048576 : 1); };
        QVERIFY2(bytes(bw[14]) * 4 < bytes(colour[14]), qPrintable(images.join('\n')));
        // The rendered pages look like the shot.
        QCOMPARE(QProcess::execute("pdftoppm", {"-r", "30", "-f", "1", "-l", "2", "-png", pdf, D + "/r"}), 0);
        for (const QString& r : {D + "/r-1.png", D + "/r-2.png"}) {
            const cv::Mat rendered = cv::imread(r.toStdString(), cv::IMREAD_GRAYSCALE);
            QVERIFY(!rendered.empty());
            cv::Mat expected, diff;
            cv::cvtColor(shot, expected, cv::COLOR_BGR2GRAY);
            cv::resize(expected, expected, rendered.size(), 0, 0, cv::INTER_AREA);
            cv::absdiff(rendered, expected, diff);
            QVERIFY2(cv::mean(diff)[0] < 20, qPrintable(r));
        }
    }
    // The OFD package: every part there, every page and picture referenced, pictures decoding.
    void ofdPackage()
    {
        QImage photo(300, 200, QImage::Format_RGB32);   // an ID photo at 100 DPI
        photo.fill(Qt::darkCyan);
        photo.setDotsPerMeterX(3937);
        photo.setDotsPerMeterY(3937);
        QVERIFY(photo.save(D + "/photo.png"));
        camera("page.jpg", textPage(1240, 1754), 150);
        runAll({"bSaveOFDStart($D,archive)", "bSaveOFDColorPage()", "bSaveOFDBWPage()", "bAddOFDPage($D/photo.png,2)", "bSaveOFDEnd()"});
        const QString ofd = D + "/archive.ofd";
        auto part = [&](const QString& name) { return tool("unzip", {"-p", ofd, name}); };
        const QStringList entries = QString(tool("unzip", {"-Z1", ofd})).split('\n', Qt::SkipEmptyParts);
        QCOMPARE(QSet<QString>(entries.begin(), entries.end()),
                 (QSet<QString>{"OFD.xml", "Doc_0/Document.xml", "Doc_0/DocumentRes.xml", "Doc_0/Pages/Page_0/Content.xml",
                                "Doc_0/Pages/Page_1/Content.xml", "Doc_0/Pages/Page_2/Content.xml", "Doc_0/Res/Image_0.jpg",
                                "Doc_0/Res/Image_1.png", "Doc_0/Res/Image_2.jpg"}));
        // Each XML part parses; collect each "Element@Attribute" value and the texts that matter.
        QMap<QString, QStringList> v;
        int maxId = 0;
        for (const QString& e : entries.filter(".xml")) {
            QXmlStreamReader x(part(e));
            while (!x.atEnd()) {
                if (x.readNext() != QXmlStreamReader::StartElement)
                    continue;
                const QString n = x.name().toString() + (e.contains("Pages/") ? " in page" : "");
                for (const QXmlStreamAttribute& a : x.attributes())
                    v[n + "@" + a.name()] << a.value().toString();
                maxId = std::max(maxId, x.attributes().value("ID").toInt());
                if (QStringList{"MaxUnitID", "DocRoot", "PhysicalBox in page"}.contains(n))
                    v[n] << x.readElementText();
            }
            QVERIFY2(!x.hasError(), qPrintable(e + ": " + x.errorString()));
        }
        QCOMPARE(v["Page@BaseLoc"], (QStringList{"Pages/Page_0/Content.xml", "Pages/Page_1/Content.xml", "Pages/Page_2/Content.xml"}));
        QCOMPARE(v["DocRoot"], QStringList{"Doc_0/Document.xml"});
        QCOMPARE(v["MaxUnitID"], QStringList{QString::number(maxId)});
        QCOMPARE(v["ImageObject in page@ResourceID"].size(), 3);
        for (const QString& id : v["ImageObject in page@ResourceID"])
            QVERIFY2(v["MultiMedia@ID"].contains(id), qPrintable(id));
        // Page boxes in millimetres from the DPI: the shot at 150 DPI, the photo at 100 DPI doubled.
        QCOMPARE(v["PhysicalBox in page"], (QStringList{"0 0 209.973 297.011", "0 0 209.973 297.011", "0 0 152.4 101.6"}));
        const QImage colour = QImage::fromData(part("Doc_0/Res/Image_0.jpg")), bw = QImage::fromData(part("Doc_0/Res/Image_1.png"));
        QCOMPARE(colour.size(), QSize(1240, 1754));
        QCOMPARE(bw.size(), QSize(1240, 1754));
        QCOMPARE(bw.depth(), 1);
        QCOMPARE(QImage::fromData(part("Doc_0/Res/Image_2.jpg")).size(), QSize(300, 200));
    }
    // Front and back of a card in one column: one image, both halves filled.
    void mergeFrontAndBack()
    {
        camera("card.jpg", cv::Mat(540, 856, CV_8UC3, cv::Scalar(40, 90, 160)));
        runAll({"bSaveMergeStart($D,idcard,1,2,0,0)", "bSaveMergePage()", "bSaveMergePage()", "bSaveMergeEnd()"});
        const cv::Mat merged = cv::imread((D + "/idcard.jpg").toStdString(), cv::IMREAD_GRAYSCALE);
        QCOMPARE(merged.size(), cv::Size(856, 1080));
        QVERIFY(cv::mean(merged(cv::Rect(0, 0, 856, 540)))[0] < 150 && cv::mean(merged(cv::Rect(0, 540, 856, 540)))[0] < 150);
    }
    void bookSplitsAtTheSpine_data()
    {
        QTest::addColumn<QString>("names");
        QTest::addColumn<QStringList>("files");
        QTest::newRow("two names") << "l,r" << QStringList{"l.jpg", "r.jpg"};
        QTest::newRow("one name") << "b" << QStringList{"b_1.jpg", "b_2.jpg"};
        QTest::newRow("empty second") << "b," << QStringList{"b_1.jpg", "b_2.jpg"};
    }
    void bookSplitsAtTheSpine()
    {
        QFETCH(QString, names);
        QFETCH(QStringList, files);
        cv::Mat spread(600, 1000, CV_8UC3, cv::Scalar(240, 240, 240));
        spread(cv::Rect(545, 0, 10, 600)).setTo(cv::Scalar(30, 30, 30));   // the gutter
        camera("spread.png", spread);
        QCOMPARE(run("bBookScanner($D," + names + ")"), QString("BeginbBookScannertrueEndbBookScanner"));
        const cv::Mat left = cv::imread((D + "/" + files[0]).toStdString()), right = cv::imread((D + "/" + files[1]).toStdString());
        QVERIFY(!left.empty() && !right.empty());
        QCOMPARE(left.cols + right.cols, 1000);
        QVERIFY2(left.cols >= 540 && left.cols <= 560, qPrintable(QString::number(left.cols)));
    }
    // New pages laid under a file camera: one report and one file each, in order; none while the
    // scene stays; none after the stop. The report reaches the page through the dispatcher's thread.
    void autoScanOnAFileCamera()
    {
        camera("live.jpg", scene(0));
        QVERIFY(QDir(D).mkdir("out"));
        QCOMPARE(run("iAutoScan(1,$D/out,p)", 300), QString());
        QCOMPARE(m_page.drain(3000), QStringList());
        layDown(D + "/live.jpg", scene(1));
        QCOMPARE(m_page.next(8000), QString("BeginiAutoScan1EndiAutoScan"));
        layDown(D + "/live.jpg", scene(2));
        QCOMPARE(m_page.next(8000), QString("BeginiAutoScan2EndiAutoScan"));
        QCOMPARE(m_page.drain(3000), QStringList());
        QCOMPARE(QDir(D + "/out").entryList(QDir::Files), (QStringList{"p1.jpg", "p2.jpg"}));
        const cv::Mat first = cv::imread((D + "/out/p1.jpg").toStdString(), cv::IMREAD_GRAYSCALE);
        QVERIFY(cv::mean(first(cv::Rect(0, 0, 320, 480)))[0] < 60 && cv::mean(first(cv::Rect(320, 0, 320, 480)))[0] > 200);
        QCOMPARE(run("iAutoScan(0,$D/out,p)", 300), QString());
        layDown(D + "/live.jpg", scene(3));
        QCOMPARE(m_page.drain(4000), QStringList());
        QCOMPARE(QDir(D + "/out").entryList(QDir::Files).size(), 2);
    }
    // A shot that cannot be saved is reported as -1; an observer without the slot gets a log
    // line instead of a call.
    void autoScanReportsFailuresAndToleratesObservers()
    {
        camera("live.jpg", scene(0));
        QVERIFY(QDir(D).mkdir("out"));
        ShotSpy spy;
        ::iAutoScan_observr(&spy, "1slot_iAutoshot(int)");
        QCOMPARE(::iAutoScan(1, (D + "/out").toUtf8().constData(), "p"), 1);
        QTest::qWait(1000);
        QVERIFY(QDir(D).rmdir("out"));
        layDown(D + "/live.jpg", scene(1));
        QVERIFY(waitFor([&] { return !spy.shots.isEmpty(); }, 8000));
        QCOMPARE(spy.shots, QList<int>{-1});
        QCOMPARE(spy.threads, QList<QThread*>{QThread::currentThread()});
        QObject plain;
        ::iAutoScan_observr(&plain, "1slot_iAutoshot(int)");
        LogCapture log(QStringLiteral("devicelib: iAutoScan"));
        layDown(D + "/live.jpg", scene(2));
        QVERIFY(waitFor([&] { return log.contains("has no slot slot_iAutoshot(int)"); }, 8000));
        QCOMPARE(spy.shots.size(), 1);
    }
    // Timed shots every second, k from 1; stopping the camera stops them, and no scan starts without one.
    void timedScanStopsWithTheCamera()
    {
        camera("page.jpg", scene(1));
        QCOMPARE(run("iTimerScan(1,$D,t,1)"), QString("BeginiTimerScantrueEndiTimerScan"));
        QVERIFY(waitFor([&] { return QFile::exists(D + "/t2.jpg"); }, 8000) && QFile::exists(D + "/t1.jpg"));
        ::bStopPlay();
        QCOMPARE(::iTimerScan(1, D.toUtf8().constData(), "p", 1), 0);   // scans need an open camera
        QCOMPARE(::iAutoScan(1, D.toUtf8().constData(), "p"), 0);
        const int shots = QDir(D).entryList({"t*.jpg"}).size();
        QTest::qWait(2500);
        QCOMPARE(QDir(D).entryList({"t*.jpg"}).size(), shots);
        QCOMPARE(m_page.drain(50), QStringList());
    }
};

QTEST_MAIN(TestDocuments)
#include "tst_documents.moc"
