// Face, liveness and fingerprint commands through the dispatcher to a connected page: the
// replies byte for byte, the events that follow, and the device-library calls behind them
// (the library's results and callbacks scripted).
#include "camera/captureimgthread.h"
#include "devicelib/portable/core.h"
#include "dispatch/messagerun.h"
#include "fixture.h"
#include "identity/facematchthread.h"
#include "identity/livingbodydetectthread.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QTest>

#include <utility>

namespace {

// The calls of a trace as "fn(arg,...)", arguments in their JSON form.
QStringList callTexts(const Trace& trace)
{
    QStringList r;
    for (const QJsonObject& c : trace.calls()) {
        const QByteArray args = QJsonDocument(c.value("args").toArray()).toJson(QJsonDocument::Compact);
        r << c.value("fn").toString() + "(" + QString::fromUtf8(args.mid(1, args.size() - 2)) + ")";
    }
    return r;
}

QString b64(int bytes) { return QString::fromLatin1(QByteArray(bytes, 'A').toBase64()); }
QString hex(int bytes) { return QString::fromLatin1(QByteArray(bytes, 'A').toHex()); }

}  // namespace

class TestFaceCommands : public QObject {
    Q_OBJECT

private:
    MessageRun m_run;
    PagePair m_page;
    QList<QByteArray> m_broadcast;   // what the workers and the capture thread send every page

    QStringList settle(int quietMs = 400)
    {
        QStringList got = m_page.drain(quietMs);
        for (const QByteArray& b : std::exchange(m_broadcast, {}))
            got << "*" + QString::fromUtf8(b);
        return got;
    }

    // At least n messages (or what came in 5 s), then whatever follows them closely.
    QStringList collect(int n, int quietMs = 150)
    {
        QStringList got;
        QElapsedTimer t;
        t.start();
        while (got.size() < n && t.elapsed() < 5000)
            got << settle(50);
        return got << settle(quietMs);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_page.isConnected());
        for (QThread* worker : {static_cast<QThread*>(CaptureImgThread::instance()), static_cast<QThread*>(FaceMatchThread::instance()),
                                static_cast<QThread*>(LivingBodyDetectThread::instance())})
            connect(worker, SIGNAL(sig_msg(QByteArray)), this, SLOT(collect(QByteArray)));
    }

    void collect(const QByteArray& m) { m_broadcast << m; }

    void init()
    {
        portable::loadProfileText(QByteArray());
        m_page.makeCurrent();
        settle(50);
    }

    // One command: what the page gets (at once and later; "*" marks what every page gets)
    // and the library calls, in order.
    void commands_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<QStringList>("replies");
        QTest::addColumn<QStringList>("calls");
        auto row = [](const QString& command, const QByteArray& script, const QStringList& replies, const QStringList& calls) {
            QTest::newRow(qPrintable(command + " " + script.left(60))) << command << script << replies << calls;
        };
        row("lImageMatch(a.jpg)", "{}", {"BeginlImageMatch0EndlImageMatch"}, {});
        row("lImageMatch(a.jpg,b.jpg)", R"({"lImageMatch":[-2]})", {"*BeginlImageMatch-2EndlImageMatch"}, {R"(lImageMatch("a.jpg","b.jpg"))"});
        row("lFaceMatch()", R"({"lFaceMatch":[-4]})", {"BeginlFaceMatch-4EndlFaceMatch"}, {R"(lFaceMatch(""))"});
        row("lFaceMatch(a.jpg,x)", R"({"lFaceMatch":[9000000000]})", {"BeginlFaceMatch9000000000EndlFaceMatch"}, {R"(lFaceMatch("a.jpg"))"});
        row("lImageIdMatch(a.jpg)", "{}", {"BeginlImageIdMatch-99EndlImageIdMatch"}, {});
        row("lImageIdMatch(a.jpg,b.jpg)", R"({"lImageIdMatch":[-1]})", {"BeginlImageIdMatch-1EndlImageIdMatch"}, {R"(lImageIdMatch("a.jpg","b.jpg"))"});
        row("bImageMatch(a.jpg)", "{}", {"BeginbImageMatchfalseEndbImageMatch"}, {});
        row("bImageMatch(a.jpg,b.jpg)", R"({"bImageMatch":[true]})", {"BeginbImageMatchtrueEndbImageMatch"}, {R"(bImageMatch("a.jpg","b.jpg"))"});
        // A malformed delay is not a script: the call runs for real (no such files: no match).
        row("bImageMatch(/nonexistent/a.jpg,b.jpg)", R"({"bImageMatch":[{"ret":true,"delayMs":-5}]})", {"BeginbImageMatchfalseEndbImageMatch"},
            {R"(bImageMatch("/nonexistent/a.jpg","b.jpg"))"});
        // Features: more than 20 characters, more than 100 bytes, a negative score sent as 0.
        row("lFaceFeatureMatch(" + QString(20, 'Q') + "," + b64(101) + ")", "{}", {"BeginlFaceFeatureMatch0EndlFaceFeatureMatch"}, {});
        row("lFaceFeatureMatch(" + b64(100) + "," + b64(101) + ")", "{}", {"BeginlFaceFeatureMatch0EndlFaceFeatureMatch"}, {});
        row("lFaceFeatureMatch(" + b64(101) + "," + b64(101) + ")", R"({"lFaceFeatureMatch":[-1]})", {"BeginlFaceFeatureMatch0EndlFaceFeatureMatch"},
            {QStringLiteral(R"(lFaceFeatureMatch("%1","%1"))").arg(hex(101))});
        row("lFaceFeatureMatch(" + b64(101) + "," + b64(102) + ")", R"({"lFaceFeatureMatch":[73]})", {"BeginlFaceFeatureMatch73EndlFaceFeatureMatch"},
            {QStringLiteral(R"(lFaceFeatureMatch("%1","%2"))").arg(hex(101), hex(102))});
        row("lFaceFeatureMatch(@@@@@@@@@@@@@@@@@@@@@@@@,@@@@@@@@@@@@@@@@@@@@@@@@@@@)", "{}", {"BeginlFaceFeatureMatch0EndlFaceFeatureMatch"}, {});
        // The feature function is called before bFaceFeatureGet returns.
        row("bFaceFeatureGet(1,a.jpg)", "{}", {"BeginbFaceFeatureGetEndbFaceFeatureGet"}, {});
        row("bFaceFeatureGet(1,,/tmp/c.jpg)", R"({"bFaceFeatureGet":[{"ret":true,"cb":[["RkVBVA=="]]}]})",
            {"BeginbFaceFeatureGetRkVBVA==EndbFaceFeatureGet"},
            {R"(bFaceFeatureGet.cb("RkVBVA=="))", R"(bFaceFeatureGet(true,"","/tmp/c.jpg","<fn>","<ptr>"))"});
        row("bFaceFeatureGet(x,a.jpg,)", R"({"bFaceFeatureGet":[false]})", {"BeginbFaceFeatureGetEndbFaceFeatureGet"},
            {R"(bFaceFeatureGet(false,"a.jpg","","<fn>","<ptr>"))"});
        // Online: the camera is stopped first; the event follows the answer, to this page.
        row("bImageMatchOnline(a.jpg,5,60)", "{}", {"BeginbImageMatchOnlinefalseEndbImageMatchOnline"}, {});
        row("bImageMatchOnline(a.jpg,5,60,0)", R"({"bStopPlay4":[true],"bImageMatchOnline":[{"ret":true,"cb":[[77]],"delayMs":100}]})",
            {"BeginbImageMatchOnlinetrueEndbImageMatchOnline", "BeginAfterbImageMatchOnline77EndAfterbImageMatchOnline"},
            {"bStopPlay4()", R"(bImageMatchOnline("a.jpg",5,60,0,"<fn>"))", "bImageMatchOnline.cb(77)"});
        row("bImageMatchOnline(a.jpg,5,60,0)", R"({"bStopPlay4":[true],"bImageMatchOnline":[false]})",
            {"BeginbImageMatchOnlinefalseEndbImageMatchOnline"}, {"bStopPlay4()", R"(bImageMatchOnline("a.jpg",5,60,0,"<fn>"))"});
        row("bFaceFeatureGetOnline(5)", "{}", {"BeginbFaceFeatureGetOnlinefalseEndbFaceFeatureGetOnline"}, {});
        row("bFaceFeatureGetOnline(5,0)", R"({"bFaceFeatureGetOnline":[{"ret":true,"cb":[[""]]}]})",
            {"BeginbFaceFeatureGetOnlinetrueEndbFaceFeatureGetOnline", "BeginAfterbFaceFeatureGetOnlineEndAfterbFaceFeatureGetOnline"},
            {R"(bFaceFeatureGetOnline(5,0,"<fn>"))", R"(bFaceFeatureGetOnline.cb(""))"});
        row("bLivingBodyDetectOnline(5,4)", R"({"bLivingBodyDetectOnline":[{"ret":true,"cb":[[2]]}]})",
            {"BeginbLivingBodyDetectOnlinetrueEndbLivingBodyDetectOnline", "BeginAfterbLivingBodyDetectOnlinetrueEndAfterbLivingBodyDetectOnline"},
            {R"(bLivingBodyDetectOnline(5,4,"<fn>"))", "bLivingBodyDetectOnline.cb(2)"});
        row("bLivingBodyDetectOnline(5,4)", R"({"bLivingBodyDetectOnline":[{"ret":true,"cb":[[0]]}]})",
            {"BeginbLivingBodyDetectOnlinetrueEndbLivingBodyDetectOnline", "BeginAfterbLivingBodyDetectOnlinefalseEndAfterbLivingBodyDetectOnline"},
            {R"(bLivingBodyDetectOnline(5,4,"<fn>"))", "bLivingBodyDetectOnline.cb(0)"});
        // The liveness stream: kind 0 as it is, kind 1 framed, other kinds dropped; to every page.
        row("AutoLivingBody()", "{\"AutoLivingBody\":[{\"ret\":true,\"cb\":[[\"QUJD\",4,0],[\"{'live':true}!\",13,1],[\"x\",1,7]]}]}",
            {"BeginAutoLivingBodytrueEndAutoLivingBody", "*QUJD", "*BeginAfterbLivingBodyDetectEvent2{'live':true}EndAfterbLivingBodyDetectEvent2"},
            {"AutoLivingBody(\"<fn>\")", "AutoLivingBody.cb(\"QUJD\",4,0)", "AutoLivingBody.cb(\"{'live':true}!\",13,1)", "AutoLivingBody.cb(\"x\",1,7)"});
        row("CloseLivingBody()", R"({"CloseLivingBody":[{"cb":[[]]}]})", {"*BeginCloseLivingBodytrueEndCloseLivingBody"},
            {R"(CloseLivingBody("<fn>"))", "CloseLivingBody.cb()"});
        row("ShowLivingBodyPage()", R"({"DemoUIShow":[{"cb":[[2]]}]})", {"BeginShowLivingBodyPagefalseEndShowLivingBodyPage"},
            {R"(DemoUIShow(0,"<fn>"))", "DemoUIShow.cb(2)"});
        row("ShowLivingBodyPage()", R"({"DemoUIShow":[{"cb":[[1]]}]})", {"BeginShowLivingBodyPagetrueEndShowLivingBodyPage"},
            {R"(DemoUIShow(0,"<fn>"))", "DemoUIShow.cb(1)"});
        // Fingerprints: the capture object in the key order Qt writes, emptied on a negative score.
        row("fingerCaptureRawData(5)", R"({"fingerCaptureRawData":[{"cb":[["aW1n","0a0b",-3,"bad capture"]]}]})",
            {R"(BeginfingerCaptureRawData{"feature":"","image":"","msg":"bad capture","score":-3}EndfingerCaptureRawData)"},
            {R"(fingerCaptureRawData(5000,"<fn>","<ptr>"))", R"(fingerCaptureRawData.cb("aW1n","0a0b",-3,"bad capture"))"});
        row("fingerCaptureRawData()", R"({"fingerCaptureRawData":[{"cb":[["aW1n","0a0b",0,"ok"]]}]})",
            {R"(BeginfingerCaptureRawData{"feature":"0a0b","image":"aW1n","msg":"ok","score":0}EndfingerCaptureRawData)"},
            {R"(fingerCaptureRawData(0,"<fn>","<ptr>"))", R"(fingerCaptureRawData.cb("aW1n","0a0b",0,"ok"))"});
        row("lFingerMatch(1,AABB,2)", "{}", {"BeginlFingerMatch0EndlFingerMatch"}, {});
        row("lFingerMatch(1,AABB,2,CC,DD)", R"({"lFingerMatch":[2]})", {"BeginlFingerMatch2EndlFingerMatch"}, {R"(lFingerMatch(1,"aabb",2,"ccdd"))"});
        row("lFingerMatch(0,AxAB,1,C C)", R"({"lFingerMatch":[-1]})", {"BeginlFingerMatch-1EndlFingerMatch"}, {R"(lFingerMatch(0,"0aab",1,"cc"))"});
        row("bSaveZAZFPBMP(anything)", "{}", {"BeginbSaveZAZFPBMPfalseEndbSaveZAZFPBMP"}, {});
        row("bSaveZAZFPBMPBase64()", "{}", {"BeginbSaveZAZFPBMPBase64falseEndbSaveZAZFPBMPBase64"}, {});
    }

    void commands()
    {
        QFETCH(QString, command);
        QFETCH(QByteArray, script);
        QFETCH(QStringList, replies);
        QFETCH(QStringList, calls);
        Trace trace;
        applyScript(script);
        m_run.recv_msg(command, m_page.serverSide());
        QCOMPARE(collect(replies.size()).join('\n'), replies.join('\n'));
        QCOMPARE(callTexts(trace), calls);
    }

    // Requests that pile up while a comparison runs are dropped but the newest.
    void imageMatchKeepsTheNewestPair()
    {
        Trace trace;
        applyScript(R"({"lImageMatch":[{"ret":11,"delayMs":1200},22,33]})");
        m_run.recv_msg("lImageMatch(a0,b0)", m_page.serverSide());
        QTest::qWait(300);
        for (int i = 1; i <= 5; ++i)
            m_run.recv_msg(QStringLiteral("lImageMatch(a%1,b%1)").arg(i), m_page.serverSide());
        QCOMPARE(collect(2, 800), (QStringList{"*BeginlImageMatch11EndlImageMatch", "*BeginlImageMatch22EndlImageMatch"}));
        QCOMPARE(callTexts(trace), (QStringList{R"(lImageMatch("a0","b0"))", R"(lImageMatch("a5","b5"))"}));
    }

    // Every liveness request gets its own check and reply, in order, also those that come
    // while a check runs.
    void livingBodyAnswersEveryRequest()
    {
        applyScript(R"({"bLivingBodyDetect":[{"ret":true,"delayMs":200},false,true]})");
        for (int i = 0; i < 3; ++i)
            m_run.recv_msg("bLivingBodyDetect()", m_page.serverSide());
        QCOMPARE(collect(3), (QStringList{"*BeginbLivingBodyDetecttrueEndbLivingBodyDetect",
                                               "*BeginbLivingBodyDetectfalseEndbLivingBodyDetect",
                                               "*BeginbLivingBodyDetecttrueEndbLivingBodyDetect"}));
    }

    // A library event finds no page once the page that asked has left.
    void eventsGoToTheCurrentPageOnly()
    {
        applyScript(R"({"bLivingBodyDetectOnline":[{"ret":true,"cb":[[1]],"delayMs":1000}]})");
        m_run.recv_msg("bLivingBodyDetectOnline(1,0)", m_page.serverSide());
        QCOMPARE(m_page.next(), QStringLiteral("BeginbLivingBodyDetectOnlinetrueEndbLivingBodyDetectOnline"));
        gpWebSocket = nullptr;
        QTest::qWait(1300);
        QCOMPARE(settle(), QStringList());
    }

    // The preview waits while the liveness window has the camera, and goes on after.
    void livingBodyPagePausesThePreview()
    {
        CaptureImgThreadTestAccess::setDelays(0, 0, 0, 0);
        applyScript(R"({"DemoUIShow":[{"cb":[[1]],"delayMs":1200}]})");
        m_run.recv_msg("ShowLivingBodyPage()", m_page.serverSide());
        CaptureImgThread::instance()->closeCamera();
        QTest::qWait(200);
        QCOMPARE(CaptureImgThreadTestAccess::queuedOperations(), 1);
        QTRY_COMPARE(CaptureImgThreadTestAccess::queuedOperations(), 0);
        QVERIFY(collect(1).contains("BeginShowLivingBodyPagetrueEndShowLivingBodyPage"));
    }
};

QTEST_MAIN(TestFaceCommands)
#include "tst_facecommands.moc"
