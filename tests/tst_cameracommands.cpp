// The camera's preview, settings and still-capture commands, through the dispatcher to a
// connected page: the reply text byte for byte and the device-library calls behind it.
#include "camera/captureimgthread.h"
#include "devicelib/portable/core.h"
#include "dispatch/messagerun.h"
#include "fixture.h"

#include <QDir>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTest>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include <csignal>
#include <memory>

namespace {

CaptureImgThread* capture() { return CaptureImgThread::instance(); }

void columns()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QString>("reply");
    QTest::addColumn<QStringList>("calls");
    QTest::addColumn<QSize>("preview");   // the capture thread's preview size afterwards, when valid
}

// One row of replies_data or deferred_data, tagged by its command and script: the reply is
// "Begin<name>" result "End<name>", the name being the command's up to its parenthesis. Commands
// joined by ";" run in turn, and the row is about the last one.
void row(const QString& command, const char* script, const QString& result, const QStringList& calls = {},
         const QSize& preview = QSize())
{
    const QString tag = command + (qstrcmp(script, "{}") ? QStringLiteral(" ") + script : QString());
    const QString last = command.section(';', -1);
    const QString name = last.left(last.indexOf('('));
    QTest::newRow(qPrintable(tag)) << command << QByteArray(script) << "Begin" + name + result + "End" + name << calls << preview;
}

// The calls of a trace as "fn(arg,...)", arguments in their JSON form; the preview loop's own
// frame fetches are left out.
QStringList callTexts(const Trace& trace)
{
    QStringList r;
    for (const QJsonObject& c : trace.calls()) {
        const QString fn = c.value("fn").toString();
        if (fn == "getVideoFrame")
            continue;
        const QByteArray args = QJsonDocument(c.value("args").toArray()).toJson(QJsonDocument::Compact);
        r << fn + "(" + QString::fromUtf8(args.mid(1, args.size() - 2)) + ")";
    }
    return r;
}

}  // namespace

class TestCameraCommands : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<MessageRun> m_run;
    std::unique_ptr<PagePair> m_page;
    QList<QByteArray> m_threadReplies;

    QString run(const QString& text, int timeoutMs = 2000) { return runCommand(*m_run, *m_page, text, timeoutMs); }

    QString nextThreadReply()
    {
        waitFor([this] { return !m_threadReplies.isEmpty(); });
        return m_threadReplies.isEmpty() ? QString() : QString::fromUtf8(m_threadReplies.takeFirst());
    }

private slots:
    void initTestCase()
    {
        // Still captures fetch frames too; they belong in the trace of these tests.
        qputenv("DEVICE_TRACE_FRAMES", "1");
        m_run = std::make_unique<MessageRun>();
        m_page = std::make_unique<PagePair>();
        QVERIFY(m_page->isConnected());
        connect(capture(), &CaptureImgThread::sig_msg, this, [this](const QByteArray& m) {
            if (m.startsWith("Begin"))
                m_threadReplies << m;
        });
    }

    void cleanupTestCase()
    {
        m_page.reset();
        m_run.reset();
    }

    void init()
    {
        portable::loadProfileText(QByteArray());
        capture()->silenceClose();
        capture()->vZoomOriginal();
        capture()->vSetPreviewEnable(true);
        m_page->makeCurrent();
        m_page->drain(50);
        QTest::qWait(50);
        m_threadReplies.clear();
    }

    void cleanup()
    {
        capture()->silenceClose();
        QTest::qWait(50);
    }

    // Commands that answer at once: the reply and every library call behind it.
    void replies_data()
    {
        columns();
        // Preview and video.
        row("bStartPlay4()", R"({"bStartPlay4":[true]})", "true", {"bStartPlay4()"});
        row("bStartPlay4()", R"({"bStartPlay4":[false]})", "false", {"bStartPlay4()"});
        row("bStopPlay4()", R"({"bStopPlay4":[true]})", "true", {"bStopPlay4()"});
        row("bAVPreview(1,2)", R"({"bAVPreview":[false]})", "false", {"bAVPreview(1,2)"});
        row("bAVPreview(9999999999,-1)", R"({"bAVPreview":[false]})", "false", {"bAVPreview(9999999999,-1)"});
        row("bAVPreview(5)", "{}", "false");
        row("vSetPreViewSize(1024)", "{}", "", {}, QSize(800, 600));   // one number changes nothing
        row("vSetPreViewSize(10,768,5)", "{}", "", {}, QSize(400, 768));   // the floors; a third number ignored
        row("vZoomIn()", "{}", "");
        row("vZoomOut()", "{}", "");
        row("vZoomOriginal()", "{}", "");
        row("vSetZoomFactor(20)", "{}", "");
        row("vSetZoomFactor(50);vZoomOut()", "{}", "", {}, QSize(1200, 900));
        row("vSetZoomFactor(50);vZoomOut();vZoomOriginal();vZoomIn()", "{}", "", {}, QSize(720, 540));
        row("vSetPreviewEnable(on)", "{}", "true");
        row("vSetPreviewEnable(1);vSetPreviewEnable(0);bGetPreviewEnable()", "{}", "false");
        row("vSetPreviewEnable(0);vSetPreviewEnable(1);bGetPreviewEnable()", "{}", "true");
        row("vSetPreviewEnable(0);vSetPreviewEnable(2);bGetPreviewEnable()", "{}", "true");
        row("vSetPreviewEnable(1);vSetPreviewEnable(on);bGetPreviewEnable()", "{}", "false");
        row("vSetPreviewEnable(1);vSetPreviewEnable();bGetPreviewEnable()", "{}", "false");
        row("vSetImageDispFlag(1)", "{}", "", {"vSetImageDispFlag(true)"});
        row("vSetImageDispFlag(yes)", "{}", "", {"vSetImageDispFlag(false)"});
        row("displayVideoPara(1,2)", "{}", "false");
        // Settings: setters answer true whatever the library says.
        row("bSetMode(2)", R"({"bSetMode":[false]})", "true", {"bSetMode(2)"});
        row("vSetCamaraMode(3)", "{}", "true", {"vSetCamaraMode(3)"});
        row("vSetResolution(4)", "{}", "true", {"vSetResolutionEx(1,4)"});
        row("vSetResolutionEx(2,5)", "{}", "true", {"vSetResolutionEx(2,5)"});
        row("vSetResolutionEx(3)", "{}", "true", {"vSetResolutionEx(3,3)"});
        row("setResolutionXY(1920,1080)", "{}", "true", {"setResolution(1,1920,1080)"});
        row("setResolutionXY(1920,1080,1)", "{}", "true");
        row("setResolutionExXY(2,640,480)", "{}", "true", {"setResolution(2,640,480)"});
        row("setResolutionExXY(640,480)", "{}", "true");
        row("iGetResolutionX(2)", R"({"iGetResolutionX":[2592]})", "2592", {"iGetResolutionX(2)"});
        row("iGetResolutionY(abc)", R"({"iGetResolutionY":[1944]})", "1944", {"iGetResolutionY(0)"});
        row("getAllResolutions(1)", R"({"getResolutionIndex":[{"out":[[[2592,1944],[1920,1080]]]}]})",
            R"([{"height":1944,"width":2592},{"height":1080,"width":1920}])", {R"(getResolutionIndex(1,"<out>"))"});
        row("getAllResolutions(-3)", R"({"getResolutionIndex":[{"out":[[]]}]})", "[]", {R"(getResolutionIndex(1,"<out>"))"});
        row("getAllResolutionsEx(0)", R"({"getResolutionIndex":[{"out":[[[800,600.5]]]}]})", R"([{"height":600.5,"width":800}])",
            {R"(getResolutionIndex(0,"<out>"))"});
        row("vSetRotate(90,1)", "{}", "true", {"vSetRotate(90)"});
        row("iGetRotate()", R"({"iGetRotate":[270]})", "270", {"iGetRotate()"});
        row("vSetFlip(1,5)", "{}", "true", {"vSetFlip(1)"});
        row("iGetFlip()", R"({"iGetFlip":[1]})", "1", {"iGetFlip()"});
        row("vSetExposure(-5)", R"({"vSetExposure":[true]})", "true", {"vSetExposure(-5)"});
        row("vSetExposure(5,6)", R"({"vSetExposure":[false]})", "false", {"vSetExposure(0)"});
        row("vSetBrightness(40)", R"({"vSetBrightness":[false]})", "false", {"vSetBrightness(40)"});
        row("vSetContrast(12)", R"({"vSetContrast":[true]})", "true", {"vSetContrast(12)"});
        row("AutoFocus()", R"({"AutoFocus":[false]})", "true", {"AutoFocus()"});
        row("vSetDPI(300,600)", R"({"vSetDPI":[true]})", "true", {"vSetDPI(300,600)"});
        row("vSetDPI(300)", "{}", "false");
        row("vGetDPI()", R"({"vGetDPI":[{"out":[300,200]}]})", "(300,200)", {R"(vGetDPI("<out>","<out>"))"});
        row("bSetImageArea(10,20,30,40)", R"({"bSetImageArea":[true]})", "true", {"bSetImageArea(10,20,30,40)"});
        row("bSetImageArea(10,20,30)", "{}", "false");
        row("lGetImageAreaX1()", R"({"lGetImageAreaX1":[11]})", "11", {"lGetImageAreaX1()"});
        row("lGetImageAreaY1()", R"({"lGetImageAreaY1":[12]})", "12", {"lGetImageAreaY1()"});
        row("lGetImageAreaX2()", R"({"lGetImageAreaX2":[-13]})", "-13", {"lGetImageAreaX2()"});
        row("lGetImageAreaY2()", R"({"lGetImageAreaY2":[14]})", "14", {"lGetImageAreaY2()"});
        row("vSetImageQuality(85)", R"({"vSetImageQuality":[false]})", "false", {"vSetImageQuality(85)"});
        row("sGetImageQuality()", R"({"sGetImageQuality":[75]})", "75", {"sGetImageQuality()"});
        row("bSetBookScannerMode(1)", R"({"bSetBookScannerMode":[true]})", "true", {"bSetBookScannerMode(1)"});
        row("igetBookScannerMode()", R"({"igetBookScannerMode":[2]})", "2", {"igetBookScannerMode()"});
        row("vSetFocus(1)", "{}", "true");
        row("vSetVideoCompressType(2)", "{}", "true");
        row("vSetDelHBFlag(1)", "{}", "true");
        row("vSetSkewFlag()", "{}", "true");
        // Still capture.
        row("bSaveJPG(/home/user)", "{}", "false");
        row("bSaveJPG(/srv/scans,scan1)", R"({"bSaveJPG":[true]})", "true", {R"(bSaveJPG("/srv/scans","scan1"))"});
        row(QString::fromUtf8("bSaveJPG(/srv/扫描,件1,x)"), R"({"bSaveJPG":[false]})", "false",
            {QString::fromUtf8(R"(bSaveJPG("/srv/扫描","件1"))")});
        row("bSaveTifJPG(/srv,a)", R"({"bSaveTifJPG":[true]})", "true", {R"(bSaveTifJPG("/srv","a"))"});
        row("bSaveGray(/srv,a)", R"({"bSaveGray":[false]})", "false", {R"(bSaveGray("/srv","a"))"});
        row("bSaveTIF(/srv,a)", R"({"bSaveTIF":[true]})", "true", {R"(bSaveTIF("/srv","a"))"});
        row("bSaveBMP(/srv,a)", R"({"bSaveBMP":[true]})", "true", {R"(bSaveBMP("/srv","a"))"});
        row("bSavePNG(/srv,)", R"({"bSavePNG":[false]})", "false", {R"(bSavePNG("/srv",""))"});
        row("bSaveGrayAndTIF(/a,g,/b,t)", R"({"bSaveGrayAndTIF":[true]})", "true",
            {R"(bSaveGrayAndTIF("/a","g","/b","t"))"});
        row("bSaveGrayAndTIF(/a,g,/b)", "{}", "false");
        row("bSaveTIF24Bit(/srv,a)", "{}", "true");
        row("SplitPic(/srv/in.jpg,part)", R"({"SplitPic":[true]})", "true", {R"(SplitPic("/srv/in.jpg","part"))"});
        row("SplitPic(/srv/in.jpg)", "{}", "false");
        row("sGetImageBase64(80)", R"({"sGetImageBase64_Byte":["QUJD"]})", "QUJD", {"sGetImageBase64_Byte(80)"});
        row("sGetImageBase64(x)", R"({"sGetImageBase64_Byte":[null]})", "", {"sGetImageBase64_Byte(0)"});
        row("sGetJpgBase64()", R"({"getVideoFrameMatEx":[false]})", "", {R"(getVideoFrameMatEx("<out>"))"});   // no frame
        row("sGetBase64(x)", R"({"getVideoFrameMatEx":[false]})", "", {R"(getVideoFrameMatEx("<out>"))"});
    }
    void replies()
    {
        QFETCH(QString, command);
        QFETCH(QByteArray, script);
        QFETCH(QString, reply);
        QFETCH(QStringList, calls);
        QFETCH(QSize, preview);
        applyScript(script);
        Trace trace;
        QStringList commands = command.split(';');
        const QString last = commands.takeLast();
        for (const QString& c : commands)
            QVERIFY2(!run(c).isEmpty(), qPrintable(c));
        QCOMPARE(run(last), reply);
        QCOMPARE(callTexts(trace), calls);
        if (preview.isValid())
            QCOMPARE(CaptureImgThreadTestAccess::previewSize(), preview);
        // One reply, nothing after it.
        QCOMPARE(m_page->drain(50), QStringList());
    }

    // Starts and stops are answered by the capture thread, not at once.
    void deferred_data()
    {
        columns();
        row("bStartPlay()", R"({"bStartPlay":[true],"iGetRotate":[0]})", "true", {"iGetRotate()", "bStartPlay(0)"});
        row("bStartPlay2()", R"({"bStartPlay2":[true]})", "true", {"bStartPlay2(0)"});
        row("bStartPlay3()", R"({"bStartPlay3":[true]})", "true", {"bStartPlay3(0)"});
        row("bStartPlay5()", R"({"bStartPlay5":[true],"iGetRotate":[180]})", "true", {"iGetRotate()", "bStartPlay5(180)"});
        row("bStartPlay6()", R"({"bStartPlay6":[true],"iGetRotate":[90]})", "true", {"iGetRotate()", "bStartPlay6(90)"});
        row("bStartPlay8()", R"({"bStartPlay8":[true],"iGetRotate":[0]})", "true", {"iGetRotate()", "bStartPlay8(0)"});
        row("bStartPlay9()", R"({"bStartPlay9":[true],"iGetRotate":[0]})", "true", {"iGetRotate()", "bStartPlay9(0)"});
        row("bStartPlayOpen()", R"({"bStartPlayOpen":[true]})", "true", {"bStartPlayOpen()"});
        // The rotation is set at once and the start reads it back from the library.
        row("bStartPlayRotate(90)", R"({"bStartPlay":[true]})", "true", {"vSetRotate(90)", "iGetRotate()", "bStartPlay(90)"});
        row("bStopPlay()", R"({"bStopRec":[false],"bStopPlay":[true]})", "true", {"bStopRec()", "bStopPlay()"});
        row("bStopPlay", R"({"bStopPlay":[false]})", "false", {"bStopRec()", "bStopPlay()"});
        // Start retries and their delays are the capture thread's own cases.
    }
    void deferred()
    {
        QFETCH(QString, command);
        QFETCH(QByteArray, script);
        QFETCH(QString, reply);
        QFETCH(QStringList, calls);
        applyScript(script);
        portable::setScript("getVideoFrame", frameScript(2000));
        Trace trace;
        QCOMPARE(run(command, 300), QString());
        QCOMPARE(nextThreadReply(), reply);
        QCOMPARE(callTexts(trace), calls);
    }

    // A granted audio/video preview hands the camera back to the main preview afterwards.
    void avPreviewRestartsThePreview()
    {
        applyScript(R"({"bAVPreview":[true],"bStartPlay":[true]})");
        portable::setScript("getVideoFrame", frameScript(2000));
        Trace trace;
        QCOMPARE(run("bAVPreview(0,3)"), QString("BeginbAVPreviewtrueEndbAVPreview"));
        QCOMPARE(nextThreadReply(), QString("BeginbStartPlaytrueEndbStartPlay"));
        const QStringList c = callTexts(trace);
        QCOMPARE(c.first(), QString("bAVPreview(0,3)"));
        QVERIFY(c.contains("bStartPlay(0)"));
    }

    // The live frame goes out as JPEG at quality 70; bSaveJPGEx sends it when no still was saved.
    void liveFrameJpeg_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<QStringList>("calls");
        QTest::newRow("sGetJpgBase64") << "sGetJpgBase64" << QByteArray("{}") << QStringList{"getVideoFrameMatEx"};
        QTest::newRow("sGetBase64") << "sGetBase64" << QByteArray("{}") << QStringList{"getVideoFrameMatEx"};
        QTest::newRow("bSaveJPGEx, no still") << "bSaveJPGEx" << QByteArray(R"({"bSaveJPG":[false]})")
                                              << QStringList{"bSaveJPG", "getVideoFrameMatEx"};
    }
    void liveFrameJpeg()
    {
        QFETCH(QString, command);
        QFETCH(QByteArray, script);
        QFETCH(QStringList, calls);
        applyScript(script);
        portable::setScript("getVideoFrameMatEx", frameScript(1, 64, 48));
        Trace trace;
        const QByteArray bytes = QByteArray::fromBase64(between(run(command + "()"), command).toLatin1());
        std::vector<uchar> expected;
        cv::imencode(".jpg", cv::Mat(48, 64, CV_8UC3, cv::Scalar(128, 128, 128)), expected, {cv::IMWRITE_JPEG_QUALITY, 70});
        QCOMPARE(bytes, QByteArray(reinterpret_cast<const char*>(expected.data()), int(expected.size())));
        QCOMPARE(trace.functions(), calls);
    }

    // The still goes through a temporary file that is gone afterwards.
    void saveJpgEx()
    {
        // The library takes its still from the open camera.
        QCOMPARE(run("bStartPlay()", 300), QString());
        QCOMPARE(nextThreadReply(), QString("BeginbStartPlaytrueEndbStartPlay"));
        const auto stills = [] { return QDir(QStringLiteral("/tmp")).entryList({QStringLiteral("VX*.jpg")}, QDir::Files); };
        const QStringList before = stills();
        Trace trace;
        const QString result = between(run("bSaveJPGEx()", 10000), "bSaveJPGEx");
        const QList<QJsonObject> saves = trace.callsOf("bSaveJPG");
        QCOMPARE(saves.size(), 1);
        const QJsonArray args = saves.first().value("args").toArray();
        QCOMPARE(args.at(0).toString(), QString("/tmp"));
        QVERIFY2(QRegularExpression("^VX\\d{17}$").match(args.at(1).toString()).hasMatch(), qPrintable(args.at(1).toString()));
        QVERIFY2(saves.first().value("ret").toBool(), "the portable camera could not save a still");
        // The whole saved file comes back, and nothing is left behind.
        QVERIFY(jpegSize(QByteArray::fromBase64(result.toLatin1())).isValid());
        QCOMPARE(trace.callsOf("getVideoFrameMatEx").size(), 0);
        QCOMPARE(stills(), before);
    }

    // The capture button fires on the library's own thread; the page still gets the answer.
    void captureButtonReachesThePage()
    {
        Trace trace;
        QCOMPARE(run("vSetCapturePin()", 300), QString());
        QCOMPARE(callTexts(trace), QStringList{R"(vSetCapturePin("<fn>"))"});
        for (int press = 0; press < 2; ++press) {   // every press, not only the first
            ::raise(SIGUSR1);   // without the library's handler this ends the test run
            QCOMPARE(m_page->next(5000), QString("BeginvSetCapturePintrueEndvSetCapturePin"));
        }
    }
};

QTEST_MAIN(TestCameraCommands)
#include "tst_cameracommands.moc"
