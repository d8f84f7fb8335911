// The camera's preview, settings and still-capture commands, through the dispatcher to a
// connected page: the reply text byte for byte and the device-library calls behind it.
#include "camera/captureimgthread.h"
#include "devicelib/portable/core.h"
#include "dispatch/messagerun.h"
#include "fixture.h"

#include <QDir>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QSize>
#include <QTest>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include <csignal>
#include <memory>

namespace {

CaptureImgThread* capture()
{
    return CaptureImgThread::instance();
}

void columns()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QString>("reply");
    QTest::addColumn<QStringList>("calls");
}

// One row of replies_data or deferred_data, tagged by its command and script.
void row(const QString& command, const char* script, const QString& reply, const QStringList& calls = {})
{
    const QString tag = command + (qstrcmp(script, "{}") ? QStringLiteral(" ") + script : QString());
    QTest::newRow(qPrintable(tag)) << command << QByteArray(script) << reply << calls;
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

QSize base64JpegSize(const QString& base64)
{
    return jpegSize(QByteArray::fromBase64(base64.toLatin1()));
}

QStringList stillsInTmp()
{
    return QDir(QStringLiteral("/tmp")).entryList(QStringList{QStringLiteral("VX*.jpg")}, QDir::Files);
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
        row("bStartPlay4()", R"({"bStartPlay4":[true]})", "BeginbStartPlay4trueEndbStartPlay4", {"bStartPlay4()"});
        row("bStartPlay4()", R"({"bStartPlay4":[false]})", "BeginbStartPlay4falseEndbStartPlay4", {"bStartPlay4()"});
        row("bStopPlay4()", R"({"bStopPlay4":[true]})", "BeginbStopPlay4trueEndbStopPlay4", {"bStopPlay4()"});
        row("bAVPreview(1,2)", R"({"bAVPreview":[false]})", "BeginbAVPreviewfalseEndbAVPreview", {"bAVPreview(1,2)"});
        row("bAVPreview(9999999999,-1)", R"({"bAVPreview":[false]})", "BeginbAVPreviewfalseEndbAVPreview", {"bAVPreview(9999999999,-1)"});
        row("bAVPreview(5)", "{}", "BeginbAVPreviewfalseEndbAVPreview");
        row("vSetPreViewSize(1024)", "{}", "BeginvSetPreViewSizeEndvSetPreViewSize");
        row("vZoomIn()", "{}", "BeginvZoomInEndvZoomIn");
        row("vZoomOut()", "{}", "BeginvZoomOutEndvZoomOut");
        row("vZoomOriginal()", "{}", "BeginvZoomOriginalEndvZoomOriginal");
        row("vSetZoomFactor(20)", "{}", "BeginvSetZoomFactorEndvSetZoomFactor");
        row("vSetImageDispFlag(1)", "{}", "BeginvSetImageDispFlagEndvSetImageDispFlag", {"vSetImageDispFlag(true)"});
        row("vSetImageDispFlag(yes)", "{}", "BeginvSetImageDispFlagEndvSetImageDispFlag", {"vSetImageDispFlag(false)"});
        row("displayVideoPara(1,2)", "{}", "BegindisplayVideoParafalseEnddisplayVideoPara");
        // Settings: setters answer true whatever the library says.
        row("bSetMode(2)", R"({"bSetMode":[false]})", "BeginbSetModetrueEndbSetMode", {"bSetMode(2)"});
        row("vSetCamaraMode(3)", "{}", "BeginvSetCamaraModetrueEndvSetCamaraMode", {"vSetCamaraMode(3)"});
        row("vSetResolution(4)", "{}", "BeginvSetResolutiontrueEndvSetResolution", {"vSetResolutionEx(1,4)"});
        row("vSetResolutionEx(2,5)", "{}", "BeginvSetResolutionExtrueEndvSetResolutionEx", {"vSetResolutionEx(2,5)"});
        row("vSetResolutionEx(3)", "{}", "BeginvSetResolutionExtrueEndvSetResolutionEx", {"vSetResolutionEx(3,3)"});
        row("setResolutionXY(1920,1080)", "{}", "BeginsetResolutionXYtrueEndsetResolutionXY", {"setResolution(1,1920,1080)"});
        row("setResolutionXY(1920,1080,1)", "{}", "BeginsetResolutionXYtrueEndsetResolutionXY");
        row("setResolutionExXY(2,640,480)", "{}", "BeginsetResolutionExXYtrueEndsetResolutionExXY", {"setResolution(2,640,480)"});
        row("setResolutionExXY(640,480)", "{}", "BeginsetResolutionExXYtrueEndsetResolutionExXY");
        row("iGetResolutionX(2)", R"({"iGetResolutionX":[2592]})", "BeginiGetResolutionX2592EndiGetResolutionX", {"iGetResolutionX(2)"});
        row("iGetResolutionY(abc)", R"({"iGetResolutionY":[1944]})", "BeginiGetResolutionY1944EndiGetResolutionY", {"iGetResolutionY(0)"});
        row("getAllResolutions(1)", R"({"getResolutionIndex":[{"out":[[[2592,1944],[1920,1080]]]}]})", R"(BegingetAllResolutions[{"height":1944,"width":2592},{"height":1080,"width":1920}]EndgetAllResolutions)",
            {R"(getResolutionIndex(1,"<out>"))"});
        row("getAllResolutions(-3)", R"({"getResolutionIndex":[{"out":[[]]}]})", "BegingetAllResolutions[]EndgetAllResolutions",
            {R"(getResolutionIndex(1,"<out>"))"});
        row("getAllResolutionsEx(0)", R"({"getResolutionIndex":[{"out":[[[800,600.5]]]}]})", R"(BegingetAllResolutionsEx[{"height":600.5,"width":800}]EndgetAllResolutionsEx)",
            {R"(getResolutionIndex(0,"<out>"))"});
        row("vSetRotate(90,1)", "{}", "BeginvSetRotatetrueEndvSetRotate", {"vSetRotate(90)"});
        row("iGetRotate()", R"({"iGetRotate":[270]})", "BeginiGetRotate270EndiGetRotate", {"iGetRotate()"});
        row("vSetFlip(1,5)", "{}", "BeginvSetFliptrueEndvSetFlip", {"vSetFlip(1)"});
        row("iGetFlip()", R"({"iGetFlip":[1]})", "BeginiGetFlip1EndiGetFlip", {"iGetFlip()"});
        row("vSetExposure(-5)", R"({"vSetExposure":[true]})", "BeginvSetExposuretrueEndvSetExposure", {"vSetExposure(-5)"});
        row("vSetExposure(5,6)", R"({"vSetExposure":[false]})", "BeginvSetExposurefalseEndvSetExposure", {"vSetExposure(0)"});
        row("vSetBrightness(40)", R"({"vSetBrightness":[false]})", "BeginvSetBrightnessfalseEndvSetBrightness", {"vSetBrightness(40)"});
        row("vSetContrast(12)", R"({"vSetContrast":[true]})", "BeginvSetContrasttrueEndvSetContrast", {"vSetContrast(12)"});
        row("AutoFocus()", R"({"AutoFocus":[false]})", "BeginAutoFocustrueEndAutoFocus", {"AutoFocus()"});
        row("vSetDPI(300,600)", R"({"vSetDPI":[true]})", "BeginvSetDPItrueEndvSetDPI", {"vSetDPI(300,600)"});
        row("vSetDPI(300)", "{}", "BeginvSetDPIfalseEndvSetDPI");
        row("vGetDPI()", R"({"vGetDPI":[{"out":[300,200]}]})", "BeginvGetDPI(300,200)EndvGetDPI", {R"(vGetDPI("<out>","<out>"))"});
        row("bSetImageArea(10,20,30,40)", R"({"bSetImageArea":[true]})", "BeginbSetImageAreatrueEndbSetImageArea",
            {"bSetImageArea(10,20,30,40)"});
        row("bSetImageArea(10,20,30)", "{}", "BeginbSetImageAreafalseEndbSetImageArea");
        row("lGetImageAreaX1()", R"({"lGetImageAreaX1":[11]})", "BeginlGetImageAreaX111EndlGetImageAreaX1", {"lGetImageAreaX1()"});
        row("lGetImageAreaY1()", R"({"lGetImageAreaY1":[12]})", "BeginlGetImageAreaY112EndlGetImageAreaY1", {"lGetImageAreaY1()"});
        row("lGetImageAreaX2()", R"({"lGetImageAreaX2":[-13]})", "BeginlGetImageAreaX2-13EndlGetImageAreaX2", {"lGetImageAreaX2()"});
        row("lGetImageAreaY2()", R"({"lGetImageAreaY2":[14]})", "BeginlGetImageAreaY214EndlGetImageAreaY2", {"lGetImageAreaY2()"});
        row("vSetImageQuality(85)", R"({"vSetImageQuality":[false]})", "BeginvSetImageQualityfalseEndvSetImageQuality",
            {"vSetImageQuality(85)"});
        row("sGetImageQuality()", R"({"sGetImageQuality":[75]})", "BeginsGetImageQuality75EndsGetImageQuality", {"sGetImageQuality()"});
        row("bSetBookScannerMode(1)", R"({"bSetBookScannerMode":[true]})", "BeginbSetBookScannerModetrueEndbSetBookScannerMode",
            {"bSetBookScannerMode(1)"});
        row("igetBookScannerMode()", R"({"igetBookScannerMode":[2]})", "BeginigetBookScannerMode2EndigetBookScannerMode",
            {"igetBookScannerMode()"});
        row("vSetFocus(1)", "{}", "BeginvSetFocustrueEndvSetFocus");
        row("vSetVideoCompressType(2)", "{}", "BeginvSetVideoCompressTypetrueEndvSetVideoCompressType");
        row("vSetDelHBFlag(1)", "{}", "BeginvSetDelHBFlagtrueEndvSetDelHBFlag");
        row("vSetSkewFlag()", "{}", "BeginvSetSkewFlagtrueEndvSetSkewFlag");
        // Still capture.
        row("bSaveJPG(/home/user)", "{}", "BeginbSaveJPGfalseEndbSaveJPG");
        row("bSaveJPG(/srv/scans,scan1)", R"({"bSaveJPG":[true]})", "BeginbSaveJPGtrueEndbSaveJPG", {R"(bSaveJPG("/srv/scans","scan1"))"});
        row(QString::fromUtf8("bSaveJPG(/srv/扫描,件1,x)"), R"({"bSaveJPG":[false]})", "BeginbSaveJPGfalseEndbSaveJPG",
            {QString::fromUtf8(R"(bSaveJPG("/srv/扫描","件1"))")});
        row("bSaveTifJPG(/srv,a)", R"({"bSaveTifJPG":[true]})", "BeginbSaveTifJPGtrueEndbSaveTifJPG", {R"(bSaveTifJPG("/srv","a"))"});
        row("bSaveGray(/srv,a)", R"({"bSaveGray":[false]})", "BeginbSaveGrayfalseEndbSaveGray", {R"(bSaveGray("/srv","a"))"});
        row("bSaveTIF(/srv,a)", R"({"bSaveTIF":[true]})", "BeginbSaveTIFtrueEndbSaveTIF", {R"(bSaveTIF("/srv","a"))"});
        row("bSaveBMP(/srv,a)", R"({"bSaveBMP":[true]})", "BeginbSaveBMPtrueEndbSaveBMP", {R"(bSaveBMP("/srv","a"))"});
        row("bSavePNG(/srv,)", R"({"bSavePNG":[false]})", "BeginbSavePNGfalseEndbSavePNG", {R"(bSavePNG("/srv",""))"});
        row("bSaveGrayAndTIF(/a,g,/b,t)", R"({"bSaveGrayAndTIF":[true]})", "BeginbSaveGrayAndTIFtrueEndbSaveGrayAndTIF",
            {R"(bSaveGrayAndTIF("/a","g","/b","t"))"});
        row("bSaveGrayAndTIF(/a,g,/b)", "{}", "BeginbSaveGrayAndTIFfalseEndbSaveGrayAndTIF");
        row("bSaveTIF24Bit(/srv,a)", "{}", "BeginbSaveTIF24BittrueEndbSaveTIF24Bit");
        row("SplitPic(/srv/in.jpg,part)", R"({"SplitPic":[true]})", "BeginSplitPictrueEndSplitPic", {R"(SplitPic("/srv/in.jpg","part"))"});
        row("SplitPic(/srv/in.jpg)", "{}", "BeginSplitPicfalseEndSplitPic");
        row("sGetImageBase64(80)", R"({"sGetImageBase64_Byte":["QUJD"]})", "BeginsGetImageBase64QUJDEndsGetImageBase64",
            {"sGetImageBase64_Byte(80)"});
        row("sGetImageBase64(x)", R"({"sGetImageBase64_Byte":[null]})", "BeginsGetImageBase64EndsGetImageBase64",
            {"sGetImageBase64_Byte(0)"});
        row("sGetJpgBase64()", R"({"getVideoFrameMatEx":[false]})", "BeginsGetJpgBase64EndsGetJpgBase64",
            {R"(getVideoFrameMatEx("<out>"))"});
        row("sGetBase64(x)", R"({"getVideoFrameMatEx":[false]})", "BeginsGetBase64EndsGetBase64", {R"(getVideoFrameMatEx("<out>"))"});
    }
    void replies()
    {
        QFETCH(QString, command);
        QFETCH(QByteArray, script);
        QFETCH(QString, reply);
        QFETCH(QStringList, calls);
        applyScript(script);
        Trace trace;
        QCOMPARE(run(command), reply);
        QCOMPARE(callTexts(trace), calls);
        // One reply, nothing after it.
        QCOMPARE(m_page->drain(50), QStringList());
    }

    // Starts and stops are answered by the capture thread, not at once.
    void deferred_data()
    {
        columns();
        row("bStartPlay()", R"({"bStartPlay":[true],"iGetRotate":[0]})", "BeginbStartPlaytrueEndbStartPlay",
            {"iGetRotate()", "bStartPlay(0)"});
        row("bStartPlay2()", R"({"bStartPlay2":[true]})", "BeginbStartPlay2trueEndbStartPlay2", {"bStartPlay2(0)"});
        row("bStartPlay3()", R"({"bStartPlay3":[true]})", "BeginbStartPlay3trueEndbStartPlay3", {"bStartPlay3(0)"});
        row("bStartPlay5()", R"({"bStartPlay5":[true],"iGetRotate":[180]})", "BeginbStartPlay5trueEndbStartPlay5",
            {"iGetRotate()", "bStartPlay5(180)"});
        row("bStartPlay6()", R"({"bStartPlay6":[false,false,false],"iGetRotate":[90,90]})", "BeginbStartPlay6falseEndbStartPlay6",
            {"iGetRotate()", "bStartPlay6(90)", "bStopPlay()", "iGetRotate()", "bStartPlay6(90)", "bStopPlay()", "bStartPlay6(0)"});
        row("bStartPlay8()", R"({"bStartPlay8":[true],"iGetRotate":[0]})", "BeginbStartPlay8trueEndbStartPlay8",
            {"iGetRotate()", "bStartPlay8(0)"});
        row("bStartPlay9()", R"({"bStartPlay9":[true],"iGetRotate":[0]})", "BeginbStartPlay9trueEndbStartPlay9",
            {"iGetRotate()", "bStartPlay9(0)"});
        row("bStartPlayOpen()", R"({"bStartPlayOpen":[true]})", "BeginbStartPlayOpentrueEndbStartPlayOpen", {"bStartPlayOpen()"});
        // The rotation is set at once and the start reads it back from the library.
        row("bStartPlayRotate(90)", R"({"bStartPlay":[true]})", "BeginbStartPlayRotatetrueEndbStartPlayRotate",
            {"vSetRotate(90)", "iGetRotate()", "bStartPlay(90)"});
        row("bStopPlay()", R"({"bStopRec":[false],"bStopPlay":[true]})", "BeginbStopPlaytrueEndbStopPlay", {"bStopRec()", "bStopPlay()"});
        row("bStopPlay", R"({"bStopPlay":[false]})", "BeginbStopPlayfalseEndbStopPlay", {"bStopRec()", "bStopPlay()"});
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

    void previewSettingsReachTheThread_data()
    {
        QTest::addColumn<QStringList>("commands");
        QTest::addColumn<QSize>("size");
        QTest::newRow("one number changes nothing") << QStringList{"vSetPreViewSize(1024)"} << QSize(800, 600);
        QTest::newRow("size floors") << QStringList{"vSetPreViewSize(10,768,5)"} << QSize(400, 768);
        QTest::newRow("factor and zoom out") << QStringList{"vSetZoomFactor(50)", "vZoomOut()"} << QSize(1200, 900);
        QTest::newRow("original") << QStringList{"vSetZoomFactor(50)", "vZoomOut()", "vZoomOriginal()", "vZoomIn()"}
                                  << QSize(720, 540);
    }
    void previewSettingsReachTheThread()
    {
        QFETCH(QStringList, commands);
        QFETCH(QSize, size);
        for (const QString& c : commands)
            QVERIFY(!run(c).isEmpty());
        QCOMPARE(CaptureImgThreadTestAccess::previewSize(), size);
    }

    void previewEnableFlag_data()
    {
        QTest::addColumn<QString>("argument");
        QTest::addColumn<QString>("reply");
        QTest::newRow("0") << "0" << "BeginbGetPreviewEnablefalseEndbGetPreviewEnable";
        QTest::newRow("1") << "1" << "BeginbGetPreviewEnabletrueEndbGetPreviewEnable";
        QTest::newRow("2") << "2" << "BeginbGetPreviewEnabletrueEndbGetPreviewEnable";
        QTest::newRow("text") << "on" << "BeginbGetPreviewEnablefalseEndbGetPreviewEnable";
        QTest::newRow("empty") << "" << "BeginbGetPreviewEnablefalseEndbGetPreviewEnable";
    }
    void previewEnableFlag()
    {
        QFETCH(QString, argument);
        QFETCH(QString, reply);
        QCOMPARE(run("vSetPreviewEnable(" + argument + ")"), QString("BeginvSetPreviewEnabletrueEndvSetPreviewEnable"));
        QCOMPARE(run("bGetPreviewEnable()"), reply);
    }

    // The frame goes out as JPEG at quality 70.
    void jpgBase64OfTheFrame_data()
    {
        QTest::addColumn<QString>("command");
        QTest::newRow("sGetJpgBase64") << "sGetJpgBase64";
        QTest::newRow("sGetBase64") << "sGetBase64";
    }
    void jpgBase64OfTheFrame()
    {
        QFETCH(QString, command);
        portable::setScript("getVideoFrameMatEx", frameScript(1, 64, 48));
        const QString result = between(run(command + "()"), command);
        QCOMPARE(base64JpegSize(result), QSize(64, 48));
        std::vector<uchar> expected;
        cv::imencode(".jpg", cv::Mat(48, 64, CV_8UC3, cv::Scalar(128, 128, 128)), expected, {cv::IMWRITE_JPEG_QUALITY, 70});
        const QByteArray bytes = QByteArray::fromBase64(result.toLatin1());
        QCOMPARE(bytes, QByteArray(reinterpret_cast<const char*>(expected.data()), int(expected.size())));
    }

    // The still goes through a temporary file that is gone afterwards.
    void saveJpgEx()
    {
        // The library takes its still from the open camera.
        QCOMPARE(run("bStartPlay()", 300), QString());
        QCOMPARE(nextThreadReply(), QString("BeginbStartPlaytrueEndbStartPlay"));
        const QStringList before = stillsInTmp();
        Trace trace;
        const QString result = between(run("bSaveJPGEx()", 10000), "bSaveJPGEx");
        const QList<QJsonObject> saves = trace.callsOf("bSaveJPG");
        QCOMPARE(saves.size(), 1);
        const QJsonArray args = saves.first().value("args").toArray();
        QCOMPARE(args.at(0).toString(), QString("/tmp"));
        QVERIFY2(QRegularExpression("^VX\\d{17}$").match(args.at(1).toString()).hasMatch(), qPrintable(args.at(1).toString()));
        QVERIFY2(saves.first().value("ret").toBool(), "the portable camera could not save a still");
        // The whole saved file comes back, and nothing is left behind.
        QVERIFY(base64JpegSize(result).isValid());
        QCOMPARE(trace.callsOf("getVideoFrameMatEx").size(), 0);
        QCOMPARE(stillsInTmp(), before);
    }

    void saveJpgExFallsBackToTheFrame()
    {
        applyScript(R"({"bSaveJPG":[false],"getVideoFrameMatEx":[{"ret":true,"out":[{"w":32,"h":24}]}]})");
        Trace trace;
        const QString result = between(run("bSaveJPGEx(ignored)"), "bSaveJPGEx");
        QCOMPARE(base64JpegSize(result), QSize(32, 24));
        QCOMPARE(trace.functions(), (QStringList{"bSaveJPG", "getVideoFrameMatEx"}));
    }

    // The capture button fires on the library's own thread; the page still gets the answer.
    void captureButtonReachesThePage()
    {
        Trace trace;
        QCOMPARE(run("vSetCapturePin()", 300), QString());
        QCOMPARE(callTexts(trace), QStringList{R"(vSetCapturePin("<fn>"))"});
        struct sigaction current = {};
        QCOMPARE(sigaction(SIGUSR1, nullptr, &current), 0);
        QVERIFY2(current.sa_handler != SIG_DFL && current.sa_handler != SIG_IGN,
                 "the library did not take over the capture button signal");
        ::raise(SIGUSR1);
        QCOMPARE(m_page->next(5000), QString("BeginvSetCapturePintrueEndvSetCapturePin"));
    }
};

QTEST_MAIN(TestCameraCommands)
#include "tst_cameracommands.moc"
