// The preview capture thread on the portable library, scripted per row: start table, retries, stop, silent
// close, recovery, pause, preview size and cap, the frame push, commands never wait. Pauses are shortened.
#include "camera/captureimgthread.h"
#include "devicelib/portable/core.h"
#include "fixture.h"
#include "transport/websocketservermanager.h"

#include <QJsonArray>
#include <QRegularExpression>
#include <QTest>

namespace {

using Access = CaptureImgThreadTestAccess;
CaptureImgThread* capture() { return CaptureImgThread::instance(); }
template <typename... T> void columns(std::initializer_list<const char*> n) { auto i = n.begin(); (QTest::addColumn<T>(*i++), ...); }
// "ttf" -> [true, true, false]
QJsonArray bools(const QString& tf) { QJsonArray a; for (QChar c : tf) a.append(c == 't'); return a; }
// The library's start function of a camera code.
QString startFn(int code) { return code == 1 || code == 11 ? "bStartPlay" : code == 25 ? "bStartPlayOpen" : "bStartPlay" + QString::number(code); }
QByteArray reply(const QString& fn, bool ok) { return QStringLiteral("Begin%1%2End%1").arg(fn, ok ? "true" : "false").toLatin1(); }

// The start and stop calls of a trace with their first argument, e.g. "bStartPlay5(90)".
QStringList cameraCalls(const Trace& trace)
{
    QStringList r;
    for (const QJsonObject& c : trace.calls()) {
        const QString fn = c.value("fn").toString();
        if (fn.startsWith("bStartPlay") || fn == "bStopPlay")
            r << (c.value("args").toArray().isEmpty() ? fn : QStringLiteral("%1(%2)").arg(fn).arg(c.value("args")[0].toInt()));
    }
    return r;
}

}  // namespace

class TestCaptureThread : public QObject {
    Q_OBJECT
    QList<QByteArray> m_replies, m_frames;

    QByteArray nextReply() { return waitFor([this] { return !m_replies.isEmpty(); }, 10000) ? m_replies.takeFirst() : QByteArray(); }
    void send(int code) { code ? capture()->openCamera(code) : capture()->closeCamera(); }   // code 0: close
    QByteArray run(int code) { send(code); return nextReply(); }
    QByteArray open(int code) { portable::setScript(startFn(code), bools("t")); return run(code); }
    bool firstFrame() { return waitFor([this] { return !m_frames.isEmpty(); }); }

public:
    TestCaptureThread() { connect(capture(), &CaptureImgThread::sig_msg, this, [this](const QByteArray& m) { (m.startsWith("Begin") ? m_replies : m_frames) << m; }); }

private slots:
    void init()
    {
        // Whatever a row left behind is closed, and its messages have all arrived.
        Access::setDelays(10, 20, 10, 30);
        capture()->setPause(false);
        QVERIFY(run(0).startsWith("BeginbStopPlay"));
        portable::loadProfileText(QByteArray());
        capture()->vZoomOriginal(), capture()->vSetPreviewEnable(true);
        portable::setScript("getVideoFrame", frameScript(3000));
        m_replies.clear(), m_frames.clear();
    }
    // first: the camera opened before (0: none); code: the operation (0: stop); results: of its
    // library call (the start of that code, or bStopPlay); reply: its function and result.
    void operations_data()
    {
        columns<int, int, QString, QStringList, QByteArray, int>({"first", "code", "results", "calls", "reply", "stored"});
        const auto tries = [](const QString& f, int rotate, int last) {   // three starts, a stop after each failure
            const QString t = QStringLiteral("%1(%2)").arg(f).arg(rotate);
            return QStringList{t, "bStopPlay", t, "bStopPlay", QStringLiteral("%1(%2)").arg(f).arg(last)};
        };
        QTest::newRow("1 third try") << 0 << 1 << "fft" << tries("bStartPlay", 90, 90) << reply("bStartPlay", true) << 1;
        QTest::newRow("1 all fail") << 0 << 1 << "fff" << tries("bStartPlay", 90, 90) << reply("bStartPlay", false) << -1;
        QTest::newRow("11 rotate") << 0 << 11 << "t" << QStringList{"bStartPlay(90)"} << reply("bStartPlayRotate", true) << 1;
        QTest::newRow("2") << 0 << 2 << "fft" << tries("bStartPlay2", 0, 0) << reply("bStartPlay2", true) << 2;
        QTest::newRow("3") << 0 << 3 << "t" << QStringList{"bStartPlay3(0)"} << reply("bStartPlay3", true) << 3;
        for (int code : {5, 6, 8, 9})   // the last try without rotation; 5 stores 3
            QTest::addRow("%d", code) << 0 << code << "fft" << tries(startFn(code), 90, 0) << reply(startFn(code), true) << (code == 5 ? 3 : code);
        QTest::newRow("25 dual") << 0 << 25 << "t" << QStringList{"bStartPlayOpen"} << reply("bStartPlayOpen", true) << 25;
        QTest::newRow("1 again, no call") << 1 << 1 << "" << QStringList() << reply("bStartPlay", true) << 1;
        QTest::newRow("rotate on 1, no call") << 1 << 11 << "" << QStringList() << reply("bStartPlayRotate", true) << 1;
        QTest::newRow("dual again") << 25 << 25 << "" << QStringList() << reply("bDualCameraOpen", true) << 25;
        QTest::newRow("5 again restarts") << 5 << 5 << "fft" << QStringList{"bStopPlay"} + tries("bStartPlay5", 90, 0) << reply("bStartPlay5", true) << 3;
        QTest::newRow("switch") << 1 << 2 << "t" << QStringList{"bStopPlay", "bStartPlay2(0)"} << reply("bStartPlay2", true) << 2;
        QTest::newRow("switch fails, former stays") << 1 << 2 << "fff" << QStringList{"bStopPlay"} + tries("bStartPlay2", 0, 0) << reply("bStartPlay2", false) << 1;
        QTest::newRow("stop, none open") << 0 << 0 << "t" << QStringList{"bStopPlay"} << reply("bStopPlay", true) << -1;
        QTest::newRow("stop fails") << 3 << 0 << "f" << QStringList{"bStopPlay"} << reply("bStopPlay", false) << -1;
    }
    void operations()
    {
        QFETCH(int, first);
        QFETCH(int, code);
        QFETCH(QString, results);
        QVERIFY(!first || open(first).contains("true"));
        portable::setScript("iGetRotate", QJsonArray{90, 90, 90});
        portable::setScript(code ? startFn(code) : "bStopPlay", bools(results));
        Trace trace;
        send(7), send(4);   // unknown codes queue nothing
        QTEST(run(code), "reply");
        QTEST(cameraCalls(trace), "calls");
        QTEST(Access::currentCamera(), "stored");
    }
    // Paused, commands queue and the library is left alone. A start retrying with long pauses:
    // commands queue and read at once, meanwhile; a silent close cuts the pause short, leaves
    // out the last tries, and drops what was queued; on an open camera it leaves the library alone.
    void commandsNeverWaitForTheCamera()
    {
        capture()->setPause(true);
        portable::setScript("bStartPlay", bools("t"));
        Trace paused;
        send(1), send(0);
        QTest::qWait(100);
        QCOMPARE(Access::queuedOperations(), 2);
        QCOMPARE(paused.functions(), QStringList());
        capture()->setPause(false);
        QCOMPARE(nextReply(), reply("bStartPlay", true));
        QCOMPARE(nextReply(), reply("bStopPlay", true));
        Access::setDelays(600000, 600000, 10, 30);
        portable::setScript("bStartPlay", bools("fff"));
        Trace trace;
        capture()->openCamera(1);
        QVERIFY(waitFor([&] { return trace.functions().contains("bStopPlay"); }));
        send(2), send(0);
        QCOMPARE(Access::queuedOperations(), 2);
        QCOMPARE(Access::currentCamera(), -1);
        QCOMPARE(cameraCalls(trace), (QStringList{"bStartPlay(0)", "bStopPlay"}));
        capture()->silenceClose();
        QCOMPARE(nextReply(), reply("bStartPlay", false));
        QCOMPARE(run(0), reply("bStopPlay", true));   // the queued two are gone
        QCOMPARE(cameraCalls(trace), (QStringList{"bStartPlay(0)", "bStopPlay", "bStopPlay"}));
        QVERIFY(open(1).contains("true") && firstFrame());   // an open camera: no stop, no reply, no frames
        Trace silent;
        capture()->silenceClose();
        QCOMPARE(Access::currentCamera(), -1);
        QTest::qWait(100);   // a frame already on its way may still come
        m_frames.clear(), QTest::qWait(100);
        QVERIFY(m_frames.isEmpty() && m_replies.isEmpty());
        QCOMPARE(silent.functions(), QStringList());
    }
    // Six failed frames in a row stop the camera and start it again without rotation, silently.
    // A frame fetched while the preview is off does not end a run of failures.
    void failedFrames_data()
    {
        columns<QString, bool, bool>({"frames", "preview", "recovers"});   // frames: f failed, g good
        QTest::newRow("six in a row") << "ffffff" << true << true;
        QTest::newRow("a good frame between") << "fffffgff" << true << false;
        QTest::newRow("preview off: not reset") << "fffgfff" << false << true;
    }
    void failedFrames()
    {
        QFETCH(QString, frames);
        QFETCH(bool, preview);
        QFETCH(bool, recovers);
        QJsonArray script = frameScript(3000);
        for (int i = frames.size() - 1; i >= 0; --i)
            script.prepend(frames[i] == 'g' ? frameScript(1).at(0) : QJsonValue(false));
        portable::setScript("getVideoFrame", script), portable::setScript("iGetRotate", QJsonArray{90});
        capture()->vSetPreviewEnable(preview);
        LogCapture log;
        Trace trace;
        QCOMPARE(open(1), reply("bStartPlay", true));
        QVERIFY(waitFor([&] { return recovers ? trace.callsOf("bStartPlay").size() == 2 : m_frames.size() >= 2; }));
        QCOMPARE(cameraCalls(trace), (recovers ? QStringList{"bStartPlay(90)", "bStopPlay", "bStartPlay(0)"} : QStringList{"bStartPlay(90)"}));
        QCOMPARE(log.contains("capture error"), recovers);
        QVERIFY(m_replies.isEmpty() && (preview || m_frames.isEmpty()));
        QCOMPARE(Access::currentCamera(), 1);
    }
    // Steps: "size W H", "in", "out", "factor P", "original", "frame W H" (a W x H camera opens and pushes a
    // frame). The cap is the larger of the last frame's dimension and 4096. pushed: null is not checked.
    void previewSize_data()
    {
        columns<QString, QSize, QSize>({"steps", "size", "pushed"});
        QTest::newRow("original") << "size 1024 768, original" << QSize(800, 600) << QSize();
        QTest::newRow("floors one by one") << "size 1024 200" << QSize(1024, 300) << QSize();
        QTest::newRow("zoom in truncates") << "in, in, in" << QSize(583, 437) << QSize();
        QTest::newRow("zoom in stops at the floors") << "in, in, in, in, in, in, in, in, in, in" << QSize(400, 300) << QSize();
        QTest::newRow("height floors alone") << "size 1000 320, in" << QSize(900, 300) << QSize();
        QTest::newRow("factor 50 out") << "factor 50, out" << QSize(1200, 900) << QSize();
        QTest::newRow("original resets the factor") << "factor 50, out, out, original, in" << QSize(720, 540) << QSize();
        QTest::newRow("pushed at the size") << "frame 640 480" << QSize(800, 600) << QSize(800, 600);
        QTest::newRow("proportions ignored") << "frame 1000 1000" << QSize(800, 600) << QSize(800, 600);
        QTest::newRow("width reaches tenfold") << "size 1200 900, frame 100 80" << QSize(1200, 900) << QSize(1000, 800);
        QTest::newRow("height reaches tenfold") << "size 1200 600, frame 200 50" << QSize(1200, 600) << QSize(2000, 500);
        QTest::newRow("just below tenfold") << "size 999 799, frame 100 80" << QSize(999, 799) << QSize(999, 799);
        QTest::newRow("request beyond the cap") << "frame 640 480, size 25000 19000, frame 640 480" << QSize(4096, 4096) << QSize(4096, 4096);
        QTest::newRow("zoom in from the cap shrinks") << "frame 640 480, size 25000 19000, in" << QSize(3686, 3686) << QSize();
        QTest::newRow("zoom out stops at the cap") << "frame 64 48, factor 50, out, out, out, out, out, out, out" << QSize(4096, 4096) << QSize();
        QTest::newRow("huge factor never overflows") << "frame 64 48, factor 2147483647, out, out, out" << QSize(4096, 4096) << QSize();
        QTest::newRow("cap is a larger frame") << "frame 5000 4200, size 25000 19000" << QSize(5000, 4200) << QSize();
    }
    void previewSize()
    {
        QFETCH(QString, steps);
        QFETCH(QSize, pushed);
        QByteArray frame;
        for (const QString& step : steps.split(", ")) {
            const QString op = step.section(' ', 0, 0);
            const int a = step.section(' ', 1, 1).toInt(), b = step.section(' ', 2, 2).toInt();
            if (op == "frame") {
                portable::setScript("getVideoFrame", frameScript(3000, a, b));
                QVERIFY(open(1).contains("true") && firstFrame() && run(0).contains("true"));
                frame = m_frames.first(), m_frames.clear();
            }
            op == "size" ? capture()->vSetPreViewSize(a, b) : op == "factor" ? capture()->vSetZoomFactor(a) : op == "in" ? capture()->vZoomIn()
                : op == "out" ? capture()->vZoomOut() : op == "original" ? capture()->vZoomOriginal() : void();
        }
        QTEST(Access::previewSize(), "size");
        if (pushed.isValid()) {   // the message is the bare base64 of a JPEG file, nothing around it
            QCOMPARE(QByteArray::fromBase64(frame).toBase64(), frame);
            QCOMPARE(jpegSize(QByteArray::fromBase64(frame)), pushed);
        }
    }
    // The portable camera for real, through a real WebSocket: 800 x 600 frames reach the page.
    void realCameraFramesReachAPage()
    {
        WebSocketServerManager server(QStringLiteral("boreaTcp"), QWebSocketServer::NonSecureMode);
        QVERIFY(server.websocke_server_start(QHostAddress::LocalHost, 0));
        Page page;
        QVERIFY(page.open(server.serverPort()));
        const auto frames = [&page] { return page.got.filter(QRegularExpression("^(?!Begin)")); };
        portable::setScript("getVideoFrame", QJsonArray());
        QCOMPARE(run(1), reply("bStartPlay", true));
        QVERIFY(waitFor([&] { return frames().size() >= 3; }, 10000));
        QCOMPARE(jpegSize(QByteArray::fromBase64(frames().at(2).toLatin1())), QSize(800, 600));
    }
};

QTEST_MAIN(TestCaptureThread)
#include "tst_capturethread.moc"
