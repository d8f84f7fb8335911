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
#include <utility>

namespace {

CaptureImgThread* capture() { return CaptureImgThread::instance(); }
using Pairs = std::initializer_list<std::pair<const char*, const char*>>;

void columns()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QString>("reply");
    QTest::addColumn<QStringList>("calls");
    QTest::addColumn<QSize>("preview");   // the capture thread's preview size afterwards, when valid
}

// A row tagged by its command and script, replied "Begin<name>" result "End<name>". Commands
// joined by ";" run in turn, and the row is about the last one.
void row(const QString& command, const QByteArray& script, const QString& result, const QStringList& calls = {},
         const QSize& preview = QSize())
{
    const QString tag = command + (script != "{}" ? " " + QString::fromUtf8(script) : QString());
    const QString name = command.section(';', -1).section('(', 0, 0);
    QTest::newRow(qPrintable(tag)) << command << script << "Begin" + name + result + "End" + name << calls << preview;
}

// A row whose library function, named as the command, answers `answer`.
void scripted(const QString& command, const char* answer, const QString& call)
{
    row(command, QStringLiteral(R"({"%1":[%2]})").arg(command.section('(', 0, 0), answer).toUtf8(), answer, {call});
}

// A grey 64 x 48 frame for a scripted getVideoFrameMatEx, and how it goes out: JPEG at quality 70.
const char kLiveFrame[] = R"([{"ret":true,"out":[{"w":64,"h":48}]}])";
QString liveJpegBase64()
{
    std::vector<uchar> jpeg;
    cv::imencode(".jpg", cv::Mat(48, 64, CV_8UC3, cv::Scalar::all(128)), jpeg, {cv::IMWRITE_JPEG_QUALITY, 70});
    return QByteArray(reinterpret_cast<const char*>(jpeg.data()), int(jpeg.size())).toBase64();
}

// The calls of a trace as "fn(arg,...)", arguments in their JSON form; the preview loop's own
// frame fetches are left out.
QStringList callTexts(const Trace& trace)
{
    QStringList r;
    for (const QJsonObject& c : trace.calls()) {
        const QByteArray args = QJsonDocument(c.value("args").toArray()).toJson(QJsonDocument::Compact);
        if (c.value("fn") != "getVideoFrame")
            r << c.value("fn").toString() + "(" + QString::fromUtf8(args.mid(1, args.size() - 2)) + ")";
    }
    return r;
}

}  // namespace

class TestCameraCommands : public QObject {
    Q_OBJECT

private:
    MessageRun m_run;
    PagePair m_page;
    QList<QByteArray> m_threadReplies;

    // Sends a command as the transport would; all the page got for it is in once a marker queued after it is.
    QStringList post(const QString& text = QString())
    {
        if (!text.isNull())
            m_run.recv_msg(text, m_page.serverSide());
        QMetaObject::invokeMethod(&m_run, [] { MessageRun::send_msg("settled"); }, Qt::QueuedConnection);
        bool settled = false;
        waitFor([&] { return settled = settled || m_page.got.removeOne("settled"); });
        QStringList got = std::exchange(m_page.got, {});
        return settled ? got : got << "(the page stopped hearing)";
    }

    QString nextThreadReply()
    {
        return waitFor([this] { return !m_threadReplies.isEmpty(); }) ? QString::fromUtf8(m_threadReplies.takeFirst()) : QString();
    }

private slots:
    void initTestCase()
    {
        // Still captures fetch frames too; they belong in the trace of these tests.
        qputenv("DEVICE_TRACE_FRAMES", "1");
        QVERIFY(m_page.isConnected());
        connect(capture(), &CaptureImgThread::sig_msg, this, [this](const QByteArray& m) {
            if (m.startsWith("Begin"))
                m_threadReplies << m;
        });
    }

    void cleanupTestCase() { capture()->silenceClose(); }

    void init()
    {
        portable::loadProfileText(QByteArray());
        capture()->silenceClose();   // waits out an operation under way; its answer is posted by then
        capture()->vZoomOriginal();
        capture()->vSetPreviewEnable(true);
        m_page.makeCurrent();
        post();
        m_threadReplies.clear();
    }

    // Commands that answer at once: the reply and every library call behind it.
    void replies_data()
    {
        columns();
        // The library's answer as it stands, the arguments as they came.
        for (const auto& [call, answer] : Pairs{{"bStartPlay4()", "true"}, {"bStartPlay4()", "false"}, {"bStopPlay4()", "true"},
                 {"bAVPreview(1,2)", "false"}, {"bAVPreview(9999999999,-1)", "false"}, {"iGetResolutionX(2)", "2592"},
                 {"iGetRotate()", "270"}, {"iGetFlip()", "1"}, {"vSetExposure(-5)", "true"}, {"vSetBrightness(40)", "false"},
                 {"vSetContrast(12)", "true"}, {"vSetDPI(300,600)", "true"}, {"bSetImageArea(10,20,30,40)", "true"},
                 {"lGetImageAreaX1()", "11"}, {"lGetImageAreaY1()", "12"}, {"lGetImageAreaX2()", "-13"}, {"lGetImageAreaY2()", "14"},
                 {"vSetImageQuality(85)", "false"}, {"sGetImageQuality()", "75"}, {"bSetBookScannerMode(1)", "true"},
                 {"igetBookScannerMode()", "2"}})
            scripted(call, answer, call);
        // Paths and names go to the library as strings.
        for (const auto& [command, answer] : Pairs{{"bSaveJPG(/srv/scans,scan1)", "true"}, {"bSaveTifJPG(/srv,a)", "true"},
                 {"bSaveGray(/srv,a)", "false"}, {"bSaveTIF(/srv,a)", "true"}, {"bSaveBMP(/srv,a)", "true"}, {"bSavePNG(/srv,)", "false"},
                 {"bSaveGrayAndTIF(/a,g,/b,t)", "true"}, {"SplitPic(/srv/in.jpg,part)", "true"}}) {
            const QString c = command;
            scripted(c, answer, c.section('(', 0, 0) + "(\"" + c.section('(', 1).chopped(1).split(',').join("\",\"") + "\")");
        }
        scripted(QString::fromUtf8("bSaveJPG(/srv/扫描,件1,x)"), "false", QString::fromUtf8(R"(bSaveJPG("/srv/扫描","件1"))"));
        // The server's own, or refused for their arguments: no library call.
        for (const auto& [command, answer] : Pairs{{"bAVPreview(5)", "false"}, {"vZoomIn()", ""}, {"vZoomOut()", ""},
                 {"vZoomOriginal()", ""}, {"vSetZoomFactor(20)", ""}, {"vSetPreviewEnable(on)", "true"},
                 {"displayVideoPara(1,2)", "false"}, {"setResolutionXY(1920,1080,1)", "true"}, {"setResolutionExXY(640,480)", "true"},
                 {"vSetDPI(300)", "false"}, {"bSetImageArea(10,20,30)", "false"}, {"vSetFocus(1)", "true"},
                 {"vSetVideoCompressType(2)", "true"}, {"vSetDelHBFlag(1)", "true"}, {"vSetSkewFlag()", "true"},
                 {"bSaveJPG(/home/user)", "false"}, {"bSaveGrayAndTIF(/a,g,/b)", "false"}, {"bSaveTIF24Bit(/srv,a)", "true"},
                 {"SplitPic(/srv/in.jpg)", "false"}})
            row(command, "{}", answer);
        for (const auto& [turns, answer] : Pairs{{"1;0", "false"}, {"0;1", "true"}, {"0;2", "true"}, {"1;on", "false"}, {"1;", "false"}})
            row(QStringLiteral("vSetPreviewEnable(%1);bGetPreviewEnable()").arg(QString(turns).replace(";", ");vSetPreviewEnable(")), "{}", answer);
        row("vSetPreViewSize(1024)", "{}", "", {}, QSize(800, 600));   // one number changes nothing
        row("vSetPreViewSize(10,768,5)", "{}", "", {}, QSize(400, 768));   // the floors; a third number ignored
        row("vSetZoomFactor(50);vZoomOut()", "{}", "", {}, QSize(1200, 900));
        row("vSetZoomFactor(50);vZoomOut();vZoomOriginal();vZoomIn()", "{}", "", {}, QSize(720, 540));
        row("vSetImageDispFlag(1)", "{}", "", {"vSetImageDispFlag(true)"});
        row("vSetImageDispFlag(yes)", "{}", "", {"vSetImageDispFlag(false)"});
        // Settings: setters answer true whatever the library says, with the arguments they pass on.
        row("bSetMode(2)", R"({"bSetMode":[false]})", "true", {"bSetMode(2)"});
        row("AutoFocus()", R"({"AutoFocus":[false]})", "true", {"AutoFocus()"});
        for (const auto& [command, call] : Pairs{{"vSetCamaraMode(3)", "vSetCamaraMode(3)"},
                 {"vSetResolution(4)", "vSetResolutionEx(1,4)"}, {"vSetResolutionEx(2,5)", "vSetResolutionEx(2,5)"},
                 {"vSetResolutionEx(3)", "vSetResolutionEx(3,3)"}, {"setResolutionXY(1920,1080)", "setResolution(1,1920,1080)"},
                 {"setResolutionExXY(2,640,480)", "setResolution(2,640,480)"}, {"vSetRotate(90,1)", "vSetRotate(90)"},
                 {"vSetFlip(1,5)", "vSetFlip(1)"}})
            row(command, "{}", "true", {call});
        row("iGetResolutionY(abc)", R"({"iGetResolutionY":[1944]})", "1944", {"iGetResolutionY(0)"});
        row("getAllResolutions(1)", R"({"getResolutionIndex":[{"out":[[[2592,1944],[1920,1080]]]}]})",
            R"([{"height":1944,"width":2592},{"height":1080,"width":1920}])", {R"(getResolutionIndex(1,"<out>"))"});
        row("getAllResolutions(-3)", R"({"getResolutionIndex":[{"out":[[]]}]})", "[]", {R"(getResolutionIndex(1,"<out>"))"});
        row("getAllResolutionsEx(0)", R"({"getResolutionIndex":[{"out":[[[800,600.5]]]}]})", R"([{"height":600.5,"width":800}])",
            {R"(getResolutionIndex(0,"<out>"))"});
        row("vSetExposure(5,6)", R"({"vSetExposure":[false]})", "false", {"vSetExposure(0)"});
        row("vGetDPI()", R"({"vGetDPI":[{"out":[300,200]}]})", "(300,200)", {R"(vGetDPI("<out>","<out>"))"});
        row("sGetImageBase64(80)", R"({"sGetImageBase64_Byte":["QUJD"]})", "QUJD", {"sGetImageBase64_Byte(80)"});
        row("sGetImageBase64(x)", R"({"sGetImageBase64_Byte":[null]})", "", {"sGetImageBase64_Byte(0)"});
        row("sGetJpgBase64()", R"({"getVideoFrameMatEx":[false]})", "", {R"(getVideoFrameMatEx("<out>"))"});   // no frame
        row("sGetBase64(x)", R"({"getVideoFrameMatEx":[false]})", "", {R"(getVideoFrameMatEx("<out>"))"});
        for (const char* c : {"sGetJpgBase64()", "sGetBase64()"})
            row(c, QByteArray(R"({"getVideoFrameMatEx":)") + kLiveFrame + "}", liveJpegBase64(), {R"(getVideoFrameMatEx("<out>"))"});
    }
    void replies()
    {
        QFETCH(QString, command); QFETCH(QByteArray, script); QFETCH(QString, reply); QFETCH(QStringList, calls); QFETCH(QSize, preview);
        applyScript(script);
        Trace trace;
        QStringList got;
        for (const QString& c : command.split(';'))
            QVERIFY2((got = post(c)).size() == 1, qPrintable(c));   // one reply, nothing after it
        QCOMPARE(got, QStringList{reply});
        QCOMPARE(callTexts(trace), calls);
        if (preview.isValid())
            QCOMPARE(CaptureImgThreadTestAccess::previewSize(), preview);
    }

    // Starts and stops are answered by the capture thread, not at once.
    void deferred_data()
    {
        columns();
        // Most starts open with the rotation the library reports.
        for (const auto& [n, rotation] : Pairs{{"", "0"}, {"5", "180"}, {"6", "90"}, {"8", "0"}, {"9", "0"}})
            row(QStringLiteral("bStartPlay%1()").arg(n), QStringLiteral(R"({"bStartPlay%1":[true],"iGetRotate":[%2]})").arg(n, rotation).toUtf8(),
                "true", {"iGetRotate()", QStringLiteral("bStartPlay%1(%2)").arg(n, rotation)});
        for (const char* n : {"2", "3"})
            scripted(QStringLiteral("bStartPlay%1()").arg(n), "true", QStringLiteral("bStartPlay%1(0)").arg(n));
        row("bStartPlayOpen()", R"({"bStartPlayOpen":[true]})", "true", {"bStartPlayOpen()"});
        // The rotation is set at once and the start reads it back from the library.
        row("bStartPlayRotate(90)", R"({"bStartPlay":[true]})", "true", {"vSetRotate(90)", "iGetRotate()", "bStartPlay(90)"});
        row("bStopPlay()", R"({"bStopRec":[false],"bStopPlay":[true]})", "true", {"bStopRec()", "bStopPlay()"});
        row("bStopPlay", R"({"bStopPlay":[false]})", "false", {"bStopRec()", "bStopPlay()"});
        // Start retries and their delays are the capture thread's own cases.
    }
    void deferred()
    {
        QFETCH(QString, command); QFETCH(QByteArray, script); QFETCH(QString, reply); QFETCH(QStringList, calls);
        applyScript(script);
        portable::setScript("getVideoFrame", frameScript(2000));
        Trace trace;
        QCOMPARE(post(command), QStringList());   // the capture thread answers, not the dispatcher
        QCOMPARE(nextThreadReply(), reply);
        QCOMPARE(callTexts(trace), calls);
    }

    // A granted audio/video preview hands the camera back to the main preview afterwards.
    void avPreviewRestartsThePreview()
    {
        applyScript(R"({"bAVPreview":[true],"bStartPlay":[true]})");
        portable::setScript("getVideoFrame", frameScript(2000));
        Trace trace;
        QCOMPARE(post("bAVPreview(0,3)"), QStringList{"BeginbAVPreviewtrueEndbAVPreview"});
        QCOMPARE(nextThreadReply(), QString("BeginbStartPlaytrueEndbStartPlay"));
        const QStringList c = callTexts(trace);
        QCOMPARE(c.first(), QString("bAVPreview(0,3)"));
        QVERIFY(c.contains("bStartPlay(0)"));
    }

    // With no still saved, bSaveJPGEx sends the live frame.
    void saveJpgExWithoutStill()
    {
        applyScript(QByteArray(R"({"bSaveJPG":[false],"getVideoFrameMatEx":)") + kLiveFrame + "}");
        Trace trace;
        QCOMPARE(post("bSaveJPGEx()"), QStringList{"BeginbSaveJPGEx" + liveJpegBase64() + "EndbSaveJPGEx"});
        QCOMPARE(trace.functions(), (QStringList{"bSaveJPG", "getVideoFrameMatEx"}));
    }

    // The still goes through a temporary file that is gone afterwards.
    void saveJpgEx()
    {
        QCOMPARE(post("bStartPlay()"), QStringList());   // the library takes its still from the open camera
        QCOMPARE(nextThreadReply(), QString("BeginbStartPlaytrueEndbStartPlay"));
        const auto stills = [] { return QDir(QStringLiteral("/tmp")).entryList({QStringLiteral("VX*.jpg")}, QDir::Files); };
        const QStringList before = stills();
        Trace trace;
        const QString result = between(post("bSaveJPGEx()").value(0), "bSaveJPGEx");
        const QStringList calls = callTexts(trace);   // the still only, no live frame
        QVERIFY2(calls.size() == 1 && QRegularExpression(R"(^bSaveJPG\("/tmp","VX\d{17}"\)$)").match(calls[0]).hasMatch(), qPrintable(calls.join(' ')));
        QVERIFY2(trace.callsOf("bSaveJPG").value(0).value("ret").toBool(), "the portable camera could not save a still");
        // The whole saved file comes back, and nothing is left behind.
        QVERIFY(jpegSize(QByteArray::fromBase64(result.toLatin1())).isValid());
        QCOMPARE(stills(), before);
    }

    // The capture button fires on the library's own thread; the page still gets the answer.
    void captureButtonReachesThePage()
    {
        Trace trace;
        QCOMPARE(post("vSetCapturePin()"), QStringList());
        QCOMPARE(callTexts(trace), QStringList{R"(vSetCapturePin("<fn>"))"});
        for (int press = 0; press < 2; ++press) {   // every press, not only the first
            ::raise(SIGUSR1);   // without the library's handler this ends the test run
            QCOMPARE(m_page.next(5000), QString("BeginvSetCapturePintrueEndvSetCapturePin"));
        }
    }
};

QTEST_MAIN(TestCameraCommands)
#include "tst_cameracommands.moc"
