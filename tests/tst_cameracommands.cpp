// The camera's preview, settings and still-capture commands, through the dispatcher to a
// connected page: the reply text byte for byte and the device-library calls behind it.
#include "camera/captureimgthread.h"
#include "devicelib/portable/core.h"
#include "dispatch/messagerun.h"
#include "fixture.h"

#include <QBuffer>
#include <QDir>
#include <QElapsedTimer>
#include <QImageReader>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QSize>
#include <QTest>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include <csignal>
#include <memory>

class CaptureImgThreadTestAccess {
public:
    static QSize previewSize()
    {
        CaptureImgThread* t = CaptureImgThread::instance();
        return QSize(t->previewWidth(), t->previewHeight());
    }
};

namespace {

CaptureImgThread* capture()
{
    return CaptureImgThread::instance();
}

// Scripts library results from a JSON object {"fn": [results...], ...}.
void applyScript(const QByteArray& json)
{
    const QJsonObject o = QJsonDocument::fromJson(json).object();
    for (auto it = o.begin(); it != o.end(); ++it)
        portable::setScript(it.key(), it.value().toArray());
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

QJsonArray frames(int n)
{
    QJsonArray a;
    for (int i = 0; i < n; ++i)
        a.append(QJsonObject{{"ret", true}, {"out", QJsonArray{QJsonObject{{"w", 8}, {"h", 6}}}}});
    return a;
}

// The JPEG behind a base64 reply result; a null size when it is not one.
QSize jpegSize(const QString& base64)
{
    QBuffer buffer;
    buffer.setData(QByteArray::fromBase64(base64.toLatin1()));
    QImageReader reader(&buffer);
    if (reader.format() != "jpeg")
        return QSize();
    return reader.read().size();
}

QString between(const QString& reply, const QString& name)
{
    const QString head = "Begin" + name;
    const QString tail = "End" + name;
    if (!reply.startsWith(head) || !reply.endsWith(tail))
        return QString();
    return reply.mid(head.size(), reply.size() - head.size() - tail.size());
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

    QByteArray nextThreadReply(int timeoutMs = 5000)
    {
        QElapsedTimer t;
        t.start();
        while (m_threadReplies.isEmpty() && t.elapsed() < timeoutMs)
            QTest::qWait(5);
        return m_threadReplies.isEmpty() ? QByteArray() : m_threadReplies.takeFirst();
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
        QTest::addColumn<QString>("command");
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<QString>("reply");
        QTest::addColumn<QStringList>("calls");

        // Preview and video.
        QTest::newRow("bStartPlay4 true") << "bStartPlay4()" << QByteArray(R"({"bStartPlay4":[true]})")
                                          << "BeginbStartPlay4trueEndbStartPlay4" << QStringList{"bStartPlay4()"};
        QTest::newRow("bStartPlay4 false") << "bStartPlay4()" << QByteArray(R"({"bStartPlay4":[false]})")
                                           << "BeginbStartPlay4falseEndbStartPlay4" << QStringList{"bStartPlay4()"};
        QTest::newRow("bStopPlay4") << "bStopPlay4()" << QByteArray(R"({"bStopPlay4":[true]})")
                                    << "BeginbStopPlay4trueEndbStopPlay4" << QStringList{"bStopPlay4()"};
        QTest::newRow("bAVPreview refused") << "bAVPreview(1,2)" << QByteArray(R"({"bAVPreview":[false]})")
                                            << "BeginbAVPreviewfalseEndbAVPreview" << QStringList{"bAVPreview(1,2)"};
        QTest::newRow("bAVPreview 64-bit") << "bAVPreview(9999999999,-1)" << QByteArray(R"({"bAVPreview":[false]})")
                                           << "BeginbAVPreviewfalseEndbAVPreview"
                                           << QStringList{"bAVPreview(9999999999,-1)"};
        QTest::newRow("bAVPreview one number") << "bAVPreview(5)" << QByteArray("{}")
                                               << "BeginbAVPreviewfalseEndbAVPreview" << QStringList();
        QTest::newRow("vSetPreviewEnable") << "vSetPreviewEnable(1)" << QByteArray("{}")
                                           << "BeginvSetPreviewEnabletrueEndvSetPreviewEnable" << QStringList();
        QTest::newRow("vSetPreviewEnable off") << "vSetPreviewEnable(0)" << QByteArray("{}")
                                               << "BeginvSetPreviewEnabletrueEndvSetPreviewEnable" << QStringList();
        QTest::newRow("vSetPreViewSize one number") << "vSetPreViewSize(1024)" << QByteArray("{}")
                                                    << "BeginvSetPreViewSizeEndvSetPreViewSize" << QStringList();
        QTest::newRow("vZoomIn") << "vZoomIn()" << QByteArray("{}") << "BeginvZoomInEndvZoomIn" << QStringList();
        QTest::newRow("vZoomOut") << "vZoomOut()" << QByteArray("{}") << "BeginvZoomOutEndvZoomOut" << QStringList();
        QTest::newRow("vZoomOriginal") << "vZoomOriginal()" << QByteArray("{}")
                                       << "BeginvZoomOriginalEndvZoomOriginal" << QStringList();
        QTest::newRow("vSetZoomFactor") << "vSetZoomFactor(20)" << QByteArray("{}")
                                        << "BeginvSetZoomFactorEndvSetZoomFactor" << QStringList();
        QTest::newRow("vSetImageDispFlag on") << "vSetImageDispFlag(1)" << QByteArray("{}")
                                              << "BeginvSetImageDispFlagEndvSetImageDispFlag"
                                              << QStringList{"vSetImageDispFlag(true)"};
        QTest::newRow("vSetImageDispFlag text") << "vSetImageDispFlag(yes)" << QByteArray("{}")
                                                << "BeginvSetImageDispFlagEndvSetImageDispFlag"
                                                << QStringList{"vSetImageDispFlag(false)"};
        QTest::newRow("displayVideoPara") << "displayVideoPara(1,2)" << QByteArray("{}")
                                          << "BegindisplayVideoParafalseEnddisplayVideoPara" << QStringList();

        // Settings: setters answer true whatever the library says.
        QTest::newRow("bSetMode refused") << "bSetMode(2)" << QByteArray(R"({"bSetMode":[false]})")
                                          << "BeginbSetModetrueEndbSetMode" << QStringList{"bSetMode(2)"};
        QTest::newRow("vSetCamaraMode") << "vSetCamaraMode(3)" << QByteArray("{}")
                                        << "BeginvSetCamaraModetrueEndvSetCamaraMode" << QStringList{"vSetCamaraMode(3)"};
        QTest::newRow("vSetResolution") << "vSetResolution(4)" << QByteArray("{}")
                                        << "BeginvSetResolutiontrueEndvSetResolution"
                                        << QStringList{"vSetResolutionEx(1,4)"};
        QTest::newRow("vSetResolutionEx pair") << "vSetResolutionEx(2,5)" << QByteArray("{}")
                                               << "BeginvSetResolutionExtrueEndvSetResolutionEx"
                                               << QStringList{"vSetResolutionEx(2,5)"};
        QTest::newRow("vSetResolutionEx lone") << "vSetResolutionEx(3)" << QByteArray("{}")
                                               << "BeginvSetResolutionExtrueEndvSetResolutionEx"
                                               << QStringList{"vSetResolutionEx(3,3)"};
        QTest::newRow("setResolutionXY") << "setResolutionXY(1920,1080)" << QByteArray("{}")
                                         << "BeginsetResolutionXYtrueEndsetResolutionXY"
                                         << QStringList{"setResolution(1,1920,1080)"};
        QTest::newRow("setResolutionXY three") << "setResolutionXY(1920,1080,1)" << QByteArray("{}")
                                               << "BeginsetResolutionXYtrueEndsetResolutionXY" << QStringList();
        QTest::newRow("setResolutionExXY") << "setResolutionExXY(2,640,480)" << QByteArray("{}")
                                           << "BeginsetResolutionExXYtrueEndsetResolutionExXY"
                                           << QStringList{"setResolution(2,640,480)"};
        QTest::newRow("setResolutionExXY two") << "setResolutionExXY(640,480)" << QByteArray("{}")
                                               << "BeginsetResolutionExXYtrueEndsetResolutionExXY" << QStringList();
        QTest::newRow("iGetResolutionX") << "iGetResolutionX(2)" << QByteArray(R"({"iGetResolutionX":[2592]})")
                                         << "BeginiGetResolutionX2592EndiGetResolutionX"
                                         << QStringList{"iGetResolutionX(2)"};
        QTest::newRow("iGetResolutionY non-number") << "iGetResolutionY(abc)" << QByteArray(R"({"iGetResolutionY":[1944]})")
                                                    << "BeginiGetResolutionY1944EndiGetResolutionY"
                                                    << QStringList{"iGetResolutionY(0)"};
        QTest::newRow("getAllResolutions") << "getAllResolutions(1)"
                                           << QByteArray(R"({"getResolutionIndex":[{"out":[[[2592,1944],[1920,1080]]]}]})")
                                           << R"(BegingetAllResolutions[{"height":1944,"width":2592},{"height":1080,"width":1920}]EndgetAllResolutions)"
                                           << QStringList{R"(getResolutionIndex(1,"<out>"))"};
        QTest::newRow("getAllResolutions 0") << "getAllResolutions(0)"
                                             << QByteArray(R"({"getResolutionIndex":[{"out":[[[640,480]]]}]})")
                                             << R"(BegingetAllResolutions[{"height":480,"width":640}]EndgetAllResolutions)"
                                             << QStringList{R"(getResolutionIndex(1,"<out>"))"};
        QTest::newRow("getAllResolutions -3") << "getAllResolutions(-3)"
                                              << QByteArray(R"({"getResolutionIndex":[{"out":[[]]}]})")
                                              << "BegingetAllResolutions[]EndgetAllResolutions"
                                              << QStringList{R"(getResolutionIndex(1,"<out>"))"};
        QTest::newRow("getAllResolutionsEx 0") << "getAllResolutionsEx(0)"
                                               << QByteArray(R"({"getResolutionIndex":[{"out":[[[800,600.5]]]}]})")
                                               << R"(BegingetAllResolutionsEx[{"height":600.5,"width":800}]EndgetAllResolutionsEx)"
                                               << QStringList{R"(getResolutionIndex(0,"<out>"))"};
        QTest::newRow("vSetRotate first part") << "vSetRotate(90,1)" << QByteArray("{}")
                                               << "BeginvSetRotatetrueEndvSetRotate" << QStringList{"vSetRotate(90)"};
        QTest::newRow("iGetRotate") << "iGetRotate()" << QByteArray(R"({"iGetRotate":[270]})")
                                    << "BeginiGetRotate270EndiGetRotate" << QStringList{"iGetRotate()"};
        QTest::newRow("vSetFlip first part") << "vSetFlip(1,5)" << QByteArray("{}")
                                             << "BeginvSetFliptrueEndvSetFlip" << QStringList{"vSetFlip(1)"};
        QTest::newRow("iGetFlip") << "iGetFlip()" << QByteArray(R"({"iGetFlip":[1]})")
                                  << "BeginiGetFlip1EndiGetFlip" << QStringList{"iGetFlip()"};
        QTest::newRow("vSetExposure") << "vSetExposure(-5)" << QByteArray(R"({"vSetExposure":[true]})")
                                      << "BeginvSetExposuretrueEndvSetExposure" << QStringList{"vSetExposure(-5)"};
        QTest::newRow("vSetExposure whole text") << "vSetExposure(5,6)" << QByteArray(R"({"vSetExposure":[false]})")
                                                 << "BeginvSetExposurefalseEndvSetExposure"
                                                 << QStringList{"vSetExposure(0)"};
        QTest::newRow("vSetBrightness") << "vSetBrightness(40)" << QByteArray(R"({"vSetBrightness":[false]})")
                                        << "BeginvSetBrightnessfalseEndvSetBrightness" << QStringList{"vSetBrightness(40)"};
        QTest::newRow("vSetContrast") << "vSetContrast(12)" << QByteArray(R"({"vSetContrast":[true]})")
                                      << "BeginvSetContrasttrueEndvSetContrast" << QStringList{"vSetContrast(12)"};
        QTest::newRow("AutoFocus") << "AutoFocus()" << QByteArray(R"({"AutoFocus":[false]})")
                                   << "BeginAutoFocustrueEndAutoFocus" << QStringList{"AutoFocus()"};
        QTest::newRow("vSetDPI") << "vSetDPI(300,600)" << QByteArray(R"({"vSetDPI":[true]})")
                                 << "BeginvSetDPItrueEndvSetDPI" << QStringList{"vSetDPI(300,600)"};
        QTest::newRow("vSetDPI one part") << "vSetDPI(300)" << QByteArray("{}") << "BeginvSetDPIfalseEndvSetDPI"
                                          << QStringList();
        QTest::newRow("vGetDPI") << "vGetDPI()" << QByteArray(R"({"vGetDPI":[{"out":[300,200]}]})")
                                 << "BeginvGetDPI(300,200)EndvGetDPI" << QStringList{R"(vGetDPI("<out>","<out>"))"};
        QTest::newRow("bSetImageArea") << "bSetImageArea(10,20,30,40)" << QByteArray(R"({"bSetImageArea":[true]})")
                                       << "BeginbSetImageAreatrueEndbSetImageArea"
                                       << QStringList{"bSetImageArea(10,20,30,40)"};
        QTest::newRow("bSetImageArea three") << "bSetImageArea(10,20,30)" << QByteArray("{}")
                                             << "BeginbSetImageAreafalseEndbSetImageArea" << QStringList();
        QTest::newRow("lGetImageAreaX1") << "lGetImageAreaX1()" << QByteArray(R"({"lGetImageAreaX1":[11]})")
                                         << "BeginlGetImageAreaX111EndlGetImageAreaX1" << QStringList{"lGetImageAreaX1()"};
        QTest::newRow("lGetImageAreaY1") << "lGetImageAreaY1()" << QByteArray(R"({"lGetImageAreaY1":[12]})")
                                         << "BeginlGetImageAreaY112EndlGetImageAreaY1" << QStringList{"lGetImageAreaY1()"};
        QTest::newRow("lGetImageAreaX2") << "lGetImageAreaX2()" << QByteArray(R"({"lGetImageAreaX2":[-13]})")
                                         << "BeginlGetImageAreaX2-13EndlGetImageAreaX2" << QStringList{"lGetImageAreaX2()"};
        QTest::newRow("lGetImageAreaY2") << "lGetImageAreaY2()" << QByteArray(R"({"lGetImageAreaY2":[14]})")
                                         << "BeginlGetImageAreaY214EndlGetImageAreaY2" << QStringList{"lGetImageAreaY2()"};
        QTest::newRow("vSetImageQuality") << "vSetImageQuality(85)" << QByteArray(R"({"vSetImageQuality":[false]})")
                                          << "BeginvSetImageQualityfalseEndvSetImageQuality"
                                          << QStringList{"vSetImageQuality(85)"};
        QTest::newRow("sGetImageQuality") << "sGetImageQuality()" << QByteArray(R"({"sGetImageQuality":[75]})")
                                          << "BeginsGetImageQuality75EndsGetImageQuality" << QStringList{"sGetImageQuality()"};
        QTest::newRow("bSetBookScannerMode") << "bSetBookScannerMode(1)" << QByteArray(R"({"bSetBookScannerMode":[true]})")
                                             << "BeginbSetBookScannerModetrueEndbSetBookScannerMode"
                                             << QStringList{"bSetBookScannerMode(1)"};
        QTest::newRow("igetBookScannerMode") << "igetBookScannerMode()" << QByteArray(R"({"igetBookScannerMode":[2]})")
                                             << "BeginigetBookScannerMode2EndigetBookScannerMode"
                                             << QStringList{"igetBookScannerMode()"};
        QTest::newRow("vSetFocus") << "vSetFocus(1)" << QByteArray("{}") << "BeginvSetFocustrueEndvSetFocus" << QStringList();
        QTest::newRow("vSetVideoCompressType") << "vSetVideoCompressType(2)" << QByteArray("{}")
                                               << "BeginvSetVideoCompressTypetrueEndvSetVideoCompressType" << QStringList();
        QTest::newRow("vSetDelHBFlag") << "vSetDelHBFlag(1)" << QByteArray("{}")
                                       << "BeginvSetDelHBFlagtrueEndvSetDelHBFlag" << QStringList();
        QTest::newRow("vSetSkewFlag") << "vSetSkewFlag()" << QByteArray("{}") << "BeginvSetSkewFlagtrueEndvSetSkewFlag"
                                      << QStringList();

        // Still capture.
        QTest::newRow("bSaveJPG one part") << "bSaveJPG(/home/user)" << QByteArray("{}") << "BeginbSaveJPGfalseEndbSaveJPG"
                                           << QStringList();
        QTest::newRow("bSaveJPG") << "bSaveJPG(/srv/scans,scan1)" << QByteArray(R"({"bSaveJPG":[true]})")
                                  << "BeginbSaveJPGtrueEndbSaveJPG" << QStringList{R"(bSaveJPG("/srv/scans","scan1"))"};
        QTest::newRow("bSaveJPG UTF-8") << QString::fromUtf8("bSaveJPG(/srv/扫描,件1,x)")
                                        << QByteArray(R"({"bSaveJPG":[false]})") << "BeginbSaveJPGfalseEndbSaveJPG"
                                        << QStringList{QString::fromUtf8(R"(bSaveJPG("/srv/扫描","件1"))")};
        QTest::newRow("bSaveTifJPG") << "bSaveTifJPG(/srv,a)" << QByteArray(R"({"bSaveTifJPG":[true]})")
                                     << "BeginbSaveTifJPGtrueEndbSaveTifJPG" << QStringList{R"(bSaveTifJPG("/srv","a"))"};
        QTest::newRow("bSaveGray") << "bSaveGray(/srv,a)" << QByteArray(R"({"bSaveGray":[false]})")
                                   << "BeginbSaveGrayfalseEndbSaveGray" << QStringList{R"(bSaveGray("/srv","a"))"};
        QTest::newRow("bSaveTIF") << "bSaveTIF(/srv,a)" << QByteArray(R"({"bSaveTIF":[true]})")
                                  << "BeginbSaveTIFtrueEndbSaveTIF" << QStringList{R"(bSaveTIF("/srv","a"))"};
        QTest::newRow("bSaveBMP") << "bSaveBMP(/srv,a)" << QByteArray(R"({"bSaveBMP":[true]})")
                                  << "BeginbSaveBMPtrueEndbSaveBMP" << QStringList{R"(bSaveBMP("/srv","a"))"};
        QTest::newRow("bSavePNG empty name") << "bSavePNG(/srv,)" << QByteArray(R"({"bSavePNG":[false]})")
                                             << "BeginbSavePNGfalseEndbSavePNG" << QStringList{R"(bSavePNG("/srv",""))"};
        QTest::newRow("bSaveGrayAndTIF") << "bSaveGrayAndTIF(/a,g,/b,t)" << QByteArray(R"({"bSaveGrayAndTIF":[true]})")
                                         << "BeginbSaveGrayAndTIFtrueEndbSaveGrayAndTIF"
                                         << QStringList{R"(bSaveGrayAndTIF("/a","g","/b","t"))"};
        QTest::newRow("bSaveGrayAndTIF three") << "bSaveGrayAndTIF(/a,g,/b)" << QByteArray("{}")
                                               << "BeginbSaveGrayAndTIFfalseEndbSaveGrayAndTIF" << QStringList();
        QTest::newRow("bSaveTIF24Bit") << "bSaveTIF24Bit(/srv,a)" << QByteArray("{}")
                                       << "BeginbSaveTIF24BittrueEndbSaveTIF24Bit" << QStringList();
        QTest::newRow("SplitPic") << "SplitPic(/srv/in.jpg,part)" << QByteArray(R"({"SplitPic":[true]})")
                                  << "BeginSplitPictrueEndSplitPic" << QStringList{R"(SplitPic("/srv/in.jpg","part"))"};
        QTest::newRow("SplitPic one part") << "SplitPic(/srv/in.jpg)" << QByteArray("{}") << "BeginSplitPicfalseEndSplitPic"
                                           << QStringList();
        QTest::newRow("sGetImageBase64") << "sGetImageBase64(80)" << QByteArray(R"({"sGetImageBase64_Byte":["QUJD"]})")
                                         << "BeginsGetImageBase64QUJDEndsGetImageBase64"
                                         << QStringList{"sGetImageBase64_Byte(80)"};
        QTest::newRow("sGetImageBase64 null") << "sGetImageBase64(x)" << QByteArray(R"({"sGetImageBase64_Byte":[null]})")
                                              << "BeginsGetImageBase64EndsGetImageBase64"
                                              << QStringList{"sGetImageBase64_Byte(0)"};
        QTest::newRow("sGetJpgBase64 no frame") << "sGetJpgBase64()" << QByteArray(R"({"getVideoFrameMatEx":[false]})")
                                                << "BeginsGetJpgBase64EndsGetJpgBase64"
                                                << QStringList{R"(getVideoFrameMatEx("<out>"))"};
        QTest::newRow("sGetJpgBase64 no camera") << "sGetJpgBase64()" << QByteArray("{}")
                                                 << "BeginsGetJpgBase64EndsGetJpgBase64"
                                                 << QStringList{R"(getVideoFrameMatEx("<out>"))"};
        QTest::newRow("sGetBase64 no frame") << "sGetBase64(x)" << QByteArray(R"({"getVideoFrameMatEx":[false]})")
                                             << "BeginsGetBase64EndsGetBase64"
                                             << QStringList{R"(getVideoFrameMatEx("<out>"))"};
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
        QTest::addColumn<QString>("command");
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<QStringList>("calls");
        QTest::newRow("bStartPlay") << "bStartPlay()" << QByteArray(R"({"bStartPlay":[true],"iGetRotate":[0]})")
                                    << QByteArray("BeginbStartPlaytrueEndbStartPlay")
                                    << QStringList{"iGetRotate()", "bStartPlay(0)"};
        QTest::newRow("bStartPlay2") << "bStartPlay2()" << QByteArray(R"({"bStartPlay2":[true]})")
                                     << QByteArray("BeginbStartPlay2trueEndbStartPlay2") << QStringList{"bStartPlay2(0)"};
        QTest::newRow("bStartPlay3") << "bStartPlay3()" << QByteArray(R"({"bStartPlay3":[true]})")
                                     << QByteArray("BeginbStartPlay3trueEndbStartPlay3") << QStringList{"bStartPlay3(0)"};
        QTest::newRow("bStartPlay5") << "bStartPlay5()" << QByteArray(R"({"bStartPlay5":[true],"iGetRotate":[180]})")
                                     << QByteArray("BeginbStartPlay5trueEndbStartPlay5")
                                     << QStringList{"iGetRotate()", "bStartPlay5(180)"};
        QTest::newRow("bStartPlay6") << "bStartPlay6()" << QByteArray(R"({"bStartPlay6":[false,false,false],"iGetRotate":[90,90]})")
                                     << QByteArray("BeginbStartPlay6falseEndbStartPlay6")
                                     << QStringList{"iGetRotate()", "bStartPlay6(90)", "bStopPlay()", "iGetRotate()",
                                                    "bStartPlay6(90)", "bStopPlay()", "bStartPlay6(0)"};
        QTest::newRow("bStartPlay8") << "bStartPlay8()" << QByteArray(R"({"bStartPlay8":[true],"iGetRotate":[0]})")
                                     << QByteArray("BeginbStartPlay8trueEndbStartPlay8")
                                     << QStringList{"iGetRotate()", "bStartPlay8(0)"};
        QTest::newRow("bStartPlay9") << "bStartPlay9()" << QByteArray(R"({"bStartPlay9":[true],"iGetRotate":[0]})")
                                     << QByteArray("BeginbStartPlay9trueEndbStartPlay9")
                                     << QStringList{"iGetRotate()", "bStartPlay9(0)"};
        QTest::newRow("bStartPlayOpen") << "bStartPlayOpen()" << QByteArray(R"({"bStartPlayOpen":[true]})")
                                        << QByteArray("BeginbStartPlayOpentrueEndbStartPlayOpen")
                                        << QStringList{"bStartPlayOpen()"};
        // The rotation is set at once and the start reads it back from the library.
        QTest::newRow("bStartPlayRotate") << "bStartPlayRotate(90)" << QByteArray(R"({"bStartPlay":[true]})")
                                          << QByteArray("BeginbStartPlayRotatetrueEndbStartPlayRotate")
                                          << QStringList{"vSetRotate(90)", "iGetRotate()", "bStartPlay(90)"};
        QTest::newRow("bStopPlay") << "bStopPlay()" << QByteArray(R"({"bStopRec":[false],"bStopPlay":[true]})")
                                   << QByteArray("BeginbStopPlaytrueEndbStopPlay")
                                   << QStringList{"bStopRec()", "bStopPlay()"};
        QTest::newRow("bStopPlay fails") << "bStopPlay" << QByteArray(R"({"bStopPlay":[false]})")
                                         << QByteArray("BeginbStopPlayfalseEndbStopPlay")
                                         << QStringList{"bStopRec()", "bStopPlay()"};
    }
    void deferred()
    {
        QFETCH(QString, command);
        QFETCH(QByteArray, script);
        QFETCH(QByteArray, reply);
        QFETCH(QStringList, calls);
        applyScript(script);
        portable::setScript("getVideoFrame", frames(2000));
        Trace trace;
        QCOMPARE(run(command, 300), QString());
        QCOMPARE(nextThreadReply(), reply);
        QCOMPARE(callTexts(trace), calls);
    }

    // A granted audio/video preview hands the camera back to the main preview afterwards.
    void avPreviewRestartsThePreview()
    {
        applyScript(R"({"bAVPreview":[true],"bStartPlay":[true]})");
        portable::setScript("getVideoFrame", frames(2000));
        Trace trace;
        QCOMPARE(run("bAVPreview(0,3)"), QString("BeginbAVPreviewtrueEndbAVPreview"));
        QCOMPARE(nextThreadReply(), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
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
        portable::setScript("getVideoFrameMatEx", QJsonArray{QJsonObject{{"ret", true}, {"out", QJsonArray{QJsonObject{{"w", 64}, {"h", 48}}}}}});
        const QString result = between(run(command + "()"), command);
        QCOMPARE(jpegSize(result), QSize(64, 48));
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
        QCOMPARE(nextThreadReply(), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
        const QStringList before = stillsInTmp();
        Trace trace;
        const QString result = between(run("bSaveJPGEx()", 10000), "bSaveJPGEx");
        const QList<QJsonObject> saves = trace.callsOf("bSaveJPG");
        QCOMPARE(saves.size(), 1);
        const QJsonArray args = saves.first().value("args").toArray();
        QCOMPARE(args.at(0).toString(), QString("/tmp"));
        QVERIFY2(QRegularExpression("^VX\\d{17}$").match(args.at(1).toString()).hasMatch(),
                 qPrintable(args.at(1).toString()));
        QVERIFY2(saves.first().value("ret").toBool(), "the portable camera could not save a still");
        // The whole saved file comes back, and nothing is left behind.
        QVERIFY(jpegSize(result).isValid());
        QCOMPARE(trace.callsOf("getVideoFrameMatEx").size(), 0);
        QCOMPARE(stillsInTmp(), before);
    }

    void saveJpgExFallsBackToTheFrame()
    {
        applyScript(R"({"bSaveJPG":[false],"getVideoFrameMatEx":[{"ret":true,"out":[{"w":32,"h":24}]}]})");
        Trace trace;
        const QString result = between(run("bSaveJPGEx(ignored)"), "bSaveJPGEx");
        QCOMPARE(jpegSize(result), QSize(32, 24));
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
