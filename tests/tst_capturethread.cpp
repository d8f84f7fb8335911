// The preview capture thread on the portable library, scripted per row: start table, retries,
// stop, silent close, recovery after failed frames, pause, preview size and cap, the frame push,
// and that commands never wait for the camera. Its pauses are shortened for the run.
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

QJsonArray bools(const QString& tf)   // "ttf" -> [true, true, false]
{
    QJsonArray a;
    for (QChar c : tf)
        a.append(c == 't');
    return a;
}

// The library's start function of a camera code.
QString startFn(int code)
{
    return code == 1 || code == 11 ? "bStartPlay" : code == 25 ? "bStartPlayOpen" : "bStartPlay" + QString::number(code);
}

// The start and stop calls of a trace with their first argument, e.g. "bStartPlay5(90)".
QStringList cameraCalls(const Trace& trace)
{
    QStringList r;
    for (const QJsonObject& c : trace.calls()) {
        const QString fn = c.value("fn").toString();
        const QJsonArray args = c.value("args").toArray();
        if (fn.startsWith("bStartPlay") || fn == "bStopPlay")
            r << (args.isEmpty() ? fn : QStringLiteral("%1(%2)").arg(fn).arg(args.at(0).toInt()));
    }
    return r;
}

}  // namespace

class TestCaptureThread : public QObject {
    Q_OBJECT
    QList<QByteArray> m_replies, m_frames;

    QByteArray nextReply()
    {
        waitFor([this] { return !m_replies.isEmpty(); }, 10000);
        return m_replies.isEmpty() ? QByteArray() : m_replies.takeFirst();
    }
    // Runs an operation (code 0: close) and returns the thread's reply.
    QByteArray run(int code)
    {
        code ? capture()->openCamera(code) : capture()->closeCamera();
        return nextReply();
    }
    QByteArray open(int code)
    {
        portable::setScript(startFn(code), bools("t"));
        return run(code);
    }

public:
    TestCaptureThread()
    {
        connect(capture(), &CaptureImgThread::sig_msg, this,
                [this](const QByteArray& m) { (m.startsWith("Begin") ? m_replies : m_frames) << m; });
    }

private slots:
    void init()
    {
        // Whatever a row left behind is closed, and its messages have all arrived.
        Access::setDelays(10, 20, 10, 30);
        capture()->setPause(false);
        QVERIFY(run(0).startsWith("BeginbStopPlay"));
        portable::loadProfileText(QByteArray());
        capture()->vZoomOriginal();
        capture()->vSetPreviewEnable(true);
        portable::setScript("getVideoFrame", frameScript(3000));
        m_replies.clear();
        m_frames.clear();
    }
    // first: the camera opened before (0: none); code: the operation (0: stop); results: of
    // its library call (the start of that code, or bStopPlay).
    void operations_data()
    {
        QTest::addColumn<int>("first");
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("results");
        QTest::addColumn<QStringList>("calls");
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<int>("stored");
        const auto tries = [](const QString& f, int last) {
            return QStringList{f + "(90)", "bStopPlay", f + "(90)", "bStopPlay", f + QStringLiteral("(%1)").arg(last)};
        };
        const QStringList two{"bStartPlay2(0)", "bStopPlay", "bStartPlay2(0)", "bStopPlay", "bStartPlay2(0)"};
        QTest::newRow("1 third try") << 0 << 1 << "fft" << tries("bStartPlay", 90) << QByteArray("BeginbStartPlaytrueEndbStartPlay") << 1;
        QTest::newRow("1 all fail") << 0 << 1 << "fff" << tries("bStartPlay", 90) << QByteArray("BeginbStartPlayfalseEndbStartPlay") << -1;
        QTest::newRow("11 rotate") << 0 << 11 << "t" << QStringList{"bStartPlay(90)"} << QByteArray("BeginbStartPlayRotatetrueEndbStartPlayRotate") << 1;
        QTest::newRow("2") << 0 << 2 << "fft" << two << QByteArray("BeginbStartPlay2trueEndbStartPlay2") << 2;
        QTest::newRow("3") << 0 << 3 << "t" << QStringList{"bStartPlay3(0)"} << QByteArray("BeginbStartPlay3trueEndbStartPlay3") << 3;
        QTest::newRow("5 stores 3") << 0 << 5 << "fft" << tries("bStartPlay5", 0) << QByteArray("BeginbStartPlay5trueEndbStartPlay5") << 3;
        QTest::newRow("6") << 0 << 6 << "fft" << tries("bStartPlay6", 0) << QByteArray("BeginbStartPlay6trueEndbStartPlay6") << 6;
        QTest::newRow("8") << 0 << 8 << "fft" << tries("bStartPlay8", 0) << QByteArray("BeginbStartPlay8trueEndbStartPlay8") << 8;
        QTest::newRow("9") << 0 << 9 << "fft" << tries("bStartPlay9", 0) << QByteArray("BeginbStartPlay9trueEndbStartPlay9") << 9;
        QTest::newRow("25 dual") << 0 << 25 << "t" << QStringList{"bStartPlayOpen"} << QByteArray("BeginbStartPlayOpentrueEndbStartPlayOpen") << 25;
        QTest::newRow("1 again, no call") << 1 << 1 << "" << QStringList() << QByteArray("BeginbStartPlaytrueEndbStartPlay") << 1;
        QTest::newRow("rotate on 1, no call") << 1 << 11 << "" << QStringList() << QByteArray("BeginbStartPlayRotatetrueEndbStartPlayRotate") << 1;
        QTest::newRow("dual again") << 25 << 25 << "" << QStringList() << QByteArray("BeginbDualCameraOpentrueEndbDualCameraOpen") << 25;
        QTest::newRow("5 again restarts") << 5 << 5 << "fft" << QStringList{"bStopPlay"} + tries("bStartPlay5", 0) << QByteArray("BeginbStartPlay5trueEndbStartPlay5") << 3;
        QTest::newRow("switch") << 1 << 2 << "t" << QStringList{"bStopPlay", "bStartPlay2(0)"} << QByteArray("BeginbStartPlay2trueEndbStartPlay2") << 2;
        QTest::newRow("switch fails, former stays") << 1 << 2 << "fff" << QStringList{"bStopPlay"} + two << QByteArray("BeginbStartPlay2falseEndbStartPlay2") << 1;
        QTest::newRow("stop, none open") << 0 << 0 << "t" << QStringList{"bStopPlay"} << QByteArray("BeginbStopPlaytrueEndbStopPlay") << -1;
        QTest::newRow("stop fails") << 3 << 0 << "f" << QStringList{"bStopPlay"} << QByteArray("BeginbStopPlayfalseEndbStopPlay") << -1;
    }
    void operations()
    {
        QFETCH(int, first);
        QFETCH(int, code);
        QFETCH(QString, results);
        QFETCH(QStringList, calls);
        QFETCH(QByteArray, reply);
        QFETCH(int, stored);
        if (first)
            QVERIFY(open(first).contains("true"));
        portable::setScript("iGetRotate", QJsonArray{90, 90, 90});
        portable::setScript(code ? startFn(code) : "bStopPlay", bools(results));
        Trace trace;
        capture()->openCamera(7);   // unknown codes queue nothing
        capture()->openCamera(4);
        QCOMPARE(run(code), reply);
        QCOMPARE(cameraCalls(trace), calls);
        QCOMPARE(Access::currentCamera(), stored);
    }
    // A start retrying with long pauses: commands queue and read at once, meanwhile; a silent
    // close cuts the pause short, leaves out the last tries, and drops what was queued.
    void commandsNeverWaitForTheCamera()
    {
        Access::setDelays(600000, 600000, 10, 30);
        portable::setScript("bStartPlay", bools("fff"));
        Trace trace;
        capture()->openCamera(1);
        QVERIFY(waitFor([&] { return trace.functions().contains("bStopPlay"); }));
        capture()->openCamera(2);
        capture()->closeCamera();
        QCOMPARE(Access::queuedOperations(), 2);
        QCOMPARE(Access::currentCamera(), -1);
        QCOMPARE(cameraCalls(trace), (QStringList{"bStartPlay(0)", "bStopPlay"}));
        capture()->silenceClose();
        QCOMPARE(nextReply(), QByteArray("BeginbStartPlayfalseEndbStartPlay"));
        QCOMPARE(run(0), QByteArray("BeginbStopPlaytrueEndbStopPlay"));   // the queued two are gone
        QCOMPARE(cameraCalls(trace), (QStringList{"bStartPlay(0)", "bStopPlay", "bStopPlay"}));
    }
    void silenceCloseLeavesTheLibraryAlone()
    {
        QVERIFY(open(1).contains("true"));
        QVERIFY(waitFor([this] { return !m_frames.isEmpty(); }));
        Trace trace;
        capture()->silenceClose();
        QCOMPARE(Access::currentCamera(), -1);
        QTest::qWait(100);   // a frame already on its way may still come
        m_frames.clear();
        QTest::qWait(100);
        QVERIFY(m_frames.isEmpty());
        QVERIFY(m_replies.isEmpty());
        QCOMPARE(trace.functions(), QStringList());
    }
    // Six failed frames in a row stop the camera and start it again without rotation, silently.
    // A frame fetched while the preview is off does not end a run of failures.
    void failedFrames_data()
    {
        QTest::addColumn<QString>("frames");   // f: failed, g: good
        QTest::addColumn<bool>("preview");
        QTest::addColumn<bool>("recovers");
        QTest::newRow("six in a row") << "ffffff" << true << true;
        QTest::newRow("a good frame between") << "fffffgff" << true << false;
        QTest::newRow("preview off: not reset") << "fffgfff" << false << true;
    }
    void failedFrames()
    {
        QFETCH(QString, frames);
        QFETCH(bool, preview);
        QFETCH(bool, recovers);
        QJsonArray script;
        for (QChar c : frames)
            script.append(c == 'g' ? frameScript(1).at(0) : QJsonValue(false));
        for (const QJsonValue& v : frameScript(3000))
            script.append(v);
        portable::setScript("getVideoFrame", script);
        portable::setScript("iGetRotate", QJsonArray{90});
        capture()->vSetPreviewEnable(preview);
        LogCapture log;
        Trace trace;
        QCOMPARE(open(1), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
        if (recovers)
            QVERIFY(waitFor([&] { return trace.callsOf("bStartPlay").size() == 2; }));
        else
            QVERIFY(waitFor([this] { return m_frames.size() >= 2; }));
        const QStringList recovery{"bStartPlay(90)", "bStopPlay", "bStartPlay(0)"};
        QCOMPARE(cameraCalls(trace), recovers ? recovery : QStringList{recovery.first()});
        QCOMPARE(log.contains("capture error"), recovers);
        QVERIFY(m_replies.isEmpty());
        QVERIFY(preview || m_frames.isEmpty());
        QCOMPARE(Access::currentCamera(), 1);
    }
    void pausedThreadWaits()
    {
        capture()->setPause(true);
        portable::setScript("bStartPlay", bools("t"));
        Trace trace;
        capture()->openCamera(1);
        capture()->closeCamera();
        QTest::qWait(100);
        QCOMPARE(Access::queuedOperations(), 2);
        QCOMPARE(trace.functions(), QStringList());
        capture()->setPause(false);
        QCOMPARE(nextReply(), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
        QCOMPARE(nextReply(), QByteArray("BeginbStopPlaytrueEndbStopPlay"));
    }
    // Steps: "size W H", "in", "out", "factor P", "original", and "frame W H": a camera
    // delivering W x H opens and pushes a frame. The cap is the larger of the last frame's
    // dimension and 4096. pushed: the size of the frame pushed (a null size: not checked).
    void previewSize_data()
    {
        QTest::addColumn<QString>("steps");
        QTest::addColumn<QSize>("size");
        QTest::addColumn<QSize>("pushed");
        QTest::newRow("original") << "size 1024 768 original" << QSize(800, 600) << QSize();
        QTest::newRow("floors one by one") << "size 1024 200" << QSize(1024, 300) << QSize();
        QTest::newRow("zoom in truncates") << "in in in" << QSize(583, 437) << QSize();
        QTest::newRow("zoom in stops at the floors") << "in in in in in in in in in in" << QSize(400, 300) << QSize();
        QTest::newRow("height floors alone") << "size 1000 320 in" << QSize(900, 300) << QSize();
        QTest::newRow("factor 50 out") << "factor 50 out" << QSize(1200, 900) << QSize();
        QTest::newRow("original resets the factor") << "factor 50 out out original in" << QSize(720, 540) << QSize();
        QTest::newRow("pushed at the size") << "frame 640 480" << QSize(800, 600) << QSize(800, 600);
        QTest::newRow("proportions ignored") << "frame 1000 1000" << QSize(800, 600) << QSize(800, 600);
        QTest::newRow("width reaches tenfold") << "size 1200 900 frame 100 80" << QSize(1200, 900) << QSize(1000, 800);
        QTest::newRow("height reaches tenfold") << "size 1200 600 frame 200 50" << QSize(1200, 600) << QSize(2000, 500);
        QTest::newRow("just below tenfold") << "size 999 799 frame 100 80" << QSize(999, 799) << QSize(999, 799);
        QTest::newRow("request beyond the cap") << "frame 640 480 size 25000 19000 frame 640 480" << QSize(4096, 4096) << QSize(4096, 4096);
        QTest::newRow("zoom in from the cap shrinks") << "frame 640 480 size 25000 19000 in" << QSize(3686, 3686) << QSize();
        QTest::newRow("zoom out stops at the cap") << "frame 64 48 factor 50 out out out out out out out" << QSize(4096, 4096) << QSize();
        QTest::newRow("huge factor never overflows") << "frame 64 48 factor 2147483647 out out out" << QSize(4096, 4096) << QSize();
        QTest::newRow("cap is a larger frame") << "frame 5000 4200 size 25000 19000" << QSize(5000, 4200) << QSize();
    }
    void previewSize()
    {
        QFETCH(QString, steps);
        QFETCH(QSize, size);
        QFETCH(QSize, pushed);
        QByteArray frame;
        const QStringList w = steps.split(' ');
        for (int i = 0; i < w.size(); ++i) {
            const auto num = [&] { return w[++i].toInt(); };
            if (w[i] == "frame") {
                const int fw = num();
                portable::setScript("getVideoFrame", frameScript(3000, fw, num()));
                QVERIFY(open(1).contains("true"));
                QVERIFY(waitFor([this] { return !m_frames.isEmpty(); }));
                frame = m_frames.takeFirst();
                QVERIFY(run(0).contains("true"));
                m_frames.clear();
            } else if (w[i] == "size") {
                const int sw = num();
                capture()->vSetPreViewSize(sw, num());
            } else if (w[i] == "factor") {
                capture()->vSetZoomFactor(num());
            } else if (w[i] != "") {
                w[i] == "in" ? capture()->vZoomIn() : w[i] == "out" ? capture()->vZoomOut() : capture()->vZoomOriginal();
            }
        }
        QCOMPARE(Access::previewSize(), size);
        if (pushed.isValid()) {
            // The message is the bare base64 of a JPEG file: nothing before or after it.
            const QByteArray jpeg = QByteArray::fromBase64(frame);
            QCOMPARE(jpeg.toBase64(), frame);
            QCOMPARE(jpegSize(jpeg), pushed);
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
        QCOMPARE(run(1), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
        QVERIFY(waitFor([&] { return frames().size() >= 3; }, 10000));
        QCOMPARE(jpegSize(QByteArray::fromBase64(frames().at(2).toLatin1())), QSize(800, 600));
    }
};

QTEST_MAIN(TestCaptureThread)
#include "tst_capturethread.moc"
