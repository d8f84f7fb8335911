// The preview capture thread: its queue, start retries, stored camera codes, the frame push,
// preview size and zoom, pause, and the recovery after failed frames. The device library is
// the portable one, scripted per test; the thread's messages are collected on the main thread.
#include "camera/captureimgthread.h"
#include "devicelib/portable/core.h"
#include "fixture.h"

#include "transport/websocketservermanager.h"

#include <QJsonArray>
#include <QRegularExpression>
#include <QTest>
#include <QWebSocket>

namespace {

using Access = CaptureImgThreadTestAccess;

CaptureImgThread* capture()
{
    return CaptureImgThread::instance();
}

QJsonArray bools(std::initializer_list<bool> values)
{
    QJsonArray a;
    for (bool v : values)
        a.append(v);
    return a;
}

// The start and stop calls of a trace with their first argument, e.g. "bStartPlay5(90)".
QStringList cameraCalls(const Trace& trace)
{
    QStringList r;
    for (const QJsonObject& c : trace.calls()) {
        const QString fn = c.value("fn").toString();
        if (!fn.startsWith("bStartPlay") && fn != "bStopPlay")
            continue;
        const QJsonArray args = c.value("args").toArray();
        r << (args.isEmpty() ? fn : QStringLiteral("%1(%2)").arg(fn).arg(args.at(0).toInt()));
    }
    return r;
}

}  // namespace

class TestCaptureThread : public QObject {
    Q_OBJECT

private:
    // Messages of the thread, in arrival order; replies and frames apart.
    QList<QByteArray> m_replies;
    QList<QByteArray> m_frames;

    // The next reply of the thread; empty when none came in time.
    QByteArray nextReply(int timeoutMs = 5000)
    {
        waitFor([this] { return !m_replies.isEmpty(); }, timeoutMs);
        return m_replies.isEmpty() ? QByteArray() : m_replies.takeFirst();
    }
    // Lets queued messages arrive, then forgets them.
    void settle()
    {
        QTest::qWait(100);
        m_replies.clear();
        m_frames.clear();
    }
    // Opens a camera whose start succeeds at once; returns the thread's reply.
    QByteArray open(int code, const QString& startFn)
    {
        portable::setScript(startFn, bools({true}));
        capture()->openCamera(code);
        return nextReply();
    }

private slots:
    void initTestCase()
    {
        connect(capture(), &CaptureImgThread::sig_msg, this, [this](const QByteArray& m) {
            (m.startsWith("Begin") ? m_replies : m_frames) << m;
        });
    }

    void init()
    {
        portable::loadProfileText(QByteArray());
        capture()->setPause(false);
        capture()->silenceClose();
        capture()->vZoomOriginal();
        capture()->vSetPreviewEnable(true);
        // Whatever camera a test opens keeps delivering small frames until it is closed.
        portable::setScript("getVideoFrame", frameScript(3000));
        settle();
    }

    void cleanup()
    {
        capture()->setPause(false);
        capture()->silenceClose();
        settle();
    }

    void unknownCodeQueuesNothing()
    {
        Trace trace;
        capture()->openCamera(7);
        capture()->openCamera(4);
        QTest::qWait(300);
        QVERIFY(m_replies.isEmpty());
        QVERIFY(trace.calls().isEmpty());
        QCOMPARE(Access::currentCamera(), -1);
    }

    // Each code opens through its own start, failing twice first where rotations are listed:
    // tries 1 and 2 pass the rotation, the third passes 0 for cameras 5, 6, 8 and 9.
    void codesMapToTheirStarts_data()
    {
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("startFn");
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<int>("stored");
        QTest::addColumn<QList<int>>("rotations");   // empty: succeeds at the first try
        QTest::newRow("1") << 1 << "bStartPlay" << QByteArray("BeginbStartPlaytrueEndbStartPlay") << 1 << QList<int>{90, 90, 90};
        QTest::newRow("11 rotate") << 11 << "bStartPlay" << QByteArray("BeginbStartPlayRotatetrueEndbStartPlayRotate") << 1 << QList<int>{};
        QTest::newRow("2") << 2 << "bStartPlay2" << QByteArray("BeginbStartPlay2trueEndbStartPlay2") << 2 << QList<int>{0, 0, 0};
        QTest::newRow("3") << 3 << "bStartPlay3" << QByteArray("BeginbStartPlay3trueEndbStartPlay3") << 3 << QList<int>{0, 0, 0};
        QTest::newRow("5 stores 3") << 5 << "bStartPlay5" << QByteArray("BeginbStartPlay5trueEndbStartPlay5") << 3 << QList<int>{90, 90, 0};
        QTest::newRow("6") << 6 << "bStartPlay6" << QByteArray("BeginbStartPlay6trueEndbStartPlay6") << 6 << QList<int>{90, 90, 0};
        QTest::newRow("8") << 8 << "bStartPlay8" << QByteArray("BeginbStartPlay8trueEndbStartPlay8") << 8 << QList<int>{90, 90, 0};
        QTest::newRow("9") << 9 << "bStartPlay9" << QByteArray("BeginbStartPlay9trueEndbStartPlay9") << 9 << QList<int>{90, 90, 0};
        QTest::newRow("25 dual") << 25 << "bStartPlayOpen" << QByteArray("BeginbStartPlayOpentrueEndbStartPlayOpen") << 25 << QList<int>{};
    }
    void codesMapToTheirStarts()
    {
        QFETCH(int, code);
        QFETCH(QString, startFn);
        QFETCH(QByteArray, reply);
        QFETCH(int, stored);
        QFETCH(QList<int>, rotations);
        portable::setScript("iGetRotate", QJsonArray{90, 90, 90});
        portable::setScript(startFn, rotations.isEmpty() ? bools({true}) : bools({false, false, true}));
        Trace trace;
        capture()->openCamera(code);
        QCOMPARE(nextReply(), reply);
        QList<int> seen;
        for (const QJsonObject& c : trace.callsOf(startFn))
            seen << c.value("args").toArray().at(0).toInt();
        QCOMPARE(trace.functions().filter("bStartPlay").size(), qMax(1, rotations.size()));
        if (!rotations.isEmpty())
            QCOMPARE(seen, rotations);
        QCOMPARE(Access::currentCamera(), stored);
    }

    void secondStartAnswersWithoutTheLibrary()
    {
        Trace trace;
        QCOMPARE(open(1, "bStartPlay"), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
        trace.clear();
        capture()->openCamera(1);
        QCOMPARE(nextReply(), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
        // The rotate start is the same camera: also answered at once, under its own name.
        capture()->openCamera(11);
        QCOMPARE(nextReply(), QByteArray("BeginbStartPlayRotatetrueEndbStartPlayRotate"));
        QCOMPARE(trace.functions(), QStringList());
    }

    void startRetries_data()
    {
        QTest::addColumn<QJsonArray>("results");
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<int>("camera");
        QTest::newRow("third try") << bools({false, false, true}) << QByteArray("BeginbStartPlaytrueEndbStartPlay") << 1;
        QTest::newRow("all fail") << bools({false, false, false}) << QByteArray("BeginbStartPlayfalseEndbStartPlay") << -1;
    }
    void startRetries()
    {
        QFETCH(QJsonArray, results);
        QFETCH(QByteArray, reply);
        QFETCH(int, camera);
        portable::setScript("iGetRotate", QJsonArray{90, 90, 90});
        portable::setScript("bStartPlay", results);
        Trace trace;
        capture()->openCamera(1);
        QCOMPARE(nextReply(), reply);
        QCOMPARE(cameraCalls(trace), (QStringList{"bStartPlay(90)", "bStopPlay", "bStartPlay(90)", "bStopPlay", "bStartPlay(90)"}));
        QCOMPARE(Access::currentCamera(), camera);
    }

    void secondStartPlay5Restarts()
    {
        QCOMPARE(open(5, "bStartPlay5"), QByteArray("BeginbStartPlay5trueEndbStartPlay5"));
        portable::setScript("iGetRotate", QJsonArray{180, 180, 180});
        portable::setScript("bStartPlay5", bools({false, false, true}));
        Trace trace;
        capture()->openCamera(5);
        QCOMPARE(nextReply(), QByteArray("BeginbStartPlay5trueEndbStartPlay5"));
        QCOMPARE(cameraCalls(trace), (QStringList{"bStopPlay", "bStartPlay5(180)", "bStopPlay", "bStartPlay5(180)",
                                                  "bStopPlay", "bStartPlay5(0)"}));
        QCOMPARE(Access::currentCamera(), 3);
    }

    void dualCameraAlreadyOpen()
    {
        QCOMPARE(open(25, "bStartPlayOpen"), QByteArray("BeginbStartPlayOpentrueEndbStartPlayOpen"));
        Trace trace;
        capture()->openCamera(25);
        QCOMPARE(nextReply(), QByteArray("BeginbDualCameraOpentrueEndbDualCameraOpen"));
        QCOMPARE(trace.functions(), QStringList());
    }

    // Switching stops the open camera first; when the new one fails, the former code stays
    // for the recovery.
    void switchingCamera_data()
    {
        QTest::addColumn<bool>("succeeds");
        QTest::newRow("new camera opens") << true;
        QTest::newRow("new camera fails") << false;
    }
    void switchingCamera()
    {
        QFETCH(bool, succeeds);
        QCOMPARE(open(1, "bStartPlay"), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
        portable::setScript("bStartPlay2", succeeds ? bools({true}) : bools({false, false, false}));
        Trace trace;
        capture()->openCamera(2);
        QCOMPARE(nextReply(), succeeds ? QByteArray("BeginbStartPlay2trueEndbStartPlay2") : QByteArray("BeginbStartPlay2falseEndbStartPlay2"));
        QCOMPARE(cameraCalls(trace).mid(0, 2), (QStringList{"bStopPlay", "bStartPlay2(0)"}));
        QCOMPARE(Access::currentCamera(), succeeds ? 2 : 1);
    }

    void stopReportsTheLibrary_data()
    {
        QTest::addColumn<bool>("cameraOpen");
        QTest::addColumn<bool>("result");
        QTest::addColumn<QByteArray>("reply");
        QTest::newRow("no camera, true") << false << true << QByteArray("BeginbStopPlaytrueEndbStopPlay");
        QTest::newRow("open, false") << true << false << QByteArray("BeginbStopPlayfalseEndbStopPlay");
    }
    void stopReportsTheLibrary()
    {
        QFETCH(bool, cameraOpen);
        QFETCH(bool, result);
        QFETCH(QByteArray, reply);
        if (cameraOpen)
            QCOMPARE(open(3, "bStartPlay3"), QByteArray("BeginbStartPlay3trueEndbStartPlay3"));
        portable::setScript("bStopPlay", bools({result}));
        Trace trace;
        capture()->closeCamera();
        QCOMPARE(nextReply(), reply);
        QCOMPARE(cameraCalls(trace), QStringList{"bStopPlay"});
        QCOMPARE(Access::currentCamera(), -1);
    }

    void silenceCloseLeavesTheLibraryAlone()
    {
        QCOMPARE(open(1, "bStartPlay"), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
        Trace trace;
        capture()->silenceClose();
        settle();
        QTest::qWait(200);
        QVERIFY(m_frames.isEmpty());
        QVERIFY(m_replies.isEmpty());
        QCOMPARE(trace.functions(), QStringList());
        QCOMPARE(Access::currentCamera(), -1);
    }

    void frameScaling_data()
    {
        QTest::addColumn<QSize>("frame");
        QTest::addColumn<QSize>("preview");
        QTest::addColumn<QSize>("pushed");
        QTest::newRow("default size") << QSize(640, 480) << QSize(800, 600) << QSize(800, 600);
        QTest::newRow("aspect ignored") << QSize(1000, 1000) << QSize(800, 600) << QSize(800, 600);
        QTest::newRow("width reaches tenfold") << QSize(100, 80) << QSize(1200, 900) << QSize(1000, 800);
        QTest::newRow("height reaches tenfold") << QSize(200, 50) << QSize(1200, 600) << QSize(2000, 500);
        QTest::newRow("just below tenfold") << QSize(100, 80) << QSize(999, 799) << QSize(999, 799);
    }
    void frameScaling()
    {
        QFETCH(QSize, frame);
        QFETCH(QSize, preview);
        QFETCH(QSize, pushed);
        capture()->vSetPreViewSize(preview.width(), preview.height());
        portable::setScript("getVideoFrame", frameScript(3000, frame.width(), frame.height()));
        QCOMPARE(open(1, "bStartPlay"), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
        QTRY_VERIFY_WITH_TIMEOUT(!m_frames.isEmpty(), 5000);

        // The message is the bare base64 of a JPEG file: nothing before or after it.
        const QByteArray jpeg = QByteArray::fromBase64(m_frames.first());
        QCOMPARE(jpeg.toBase64(), m_frames.first());
        QVERIFY(jpeg.startsWith("\xFF\xD8"));
        QCOMPARE(jpegSize(jpeg), pushed);
    }

    void previewSize_data()
    {
        QTest::addColumn<QString>("steps");
        QTest::addColumn<QSize>("size");
        QTest::newRow("original") << "" << QSize(800, 600);
        QTest::newRow("set") << "size 1024 768" << QSize(1024, 768);
        QTest::newRow("floors apply one by one") << "size 1024 200" << QSize(1024, 300);
        QTest::newRow("no upper bound") << "size 9000 7000" << QSize(9000, 7000);
        QTest::newRow("zoom in truncates") << "in in in" << QSize(583, 437);
        QTest::newRow("zoom in to the floors and no further") << "in in in in in in in in in in" << QSize(400, 300);
        QTest::newRow("height floors alone") << "size 1000 320 in" << QSize(900, 300);
        QTest::newRow("zoom out unbounded")
            << "out out out out out out out out out out out out out out out out out out out out out out out" << QSize(7136, 5342);
        QTest::newRow("factor 50 out") << "factor 50 out" << QSize(1200, 900);
        QTest::newRow("original resets size and factor") << "factor 50 out out original in" << QSize(720, 540);
    }
    void previewSize()
    {
        QFETCH(QString, steps);
        QFETCH(QSize, size);
        const QStringList words = steps.split(' ', Qt::SkipEmptyParts);
        for (int i = 0; i < words.size(); ++i) {
            const QString& w = words[i];
            if (w == "in") {
                capture()->vZoomIn();
            } else if (w == "out") {
                capture()->vZoomOut();
            } else if (w == "original") {
                capture()->vZoomOriginal();
            } else if (w == "factor") {
                capture()->vSetZoomFactor(words[++i].toInt());
            } else if (w == "size") {
                const int width = words[++i].toInt();
                capture()->vSetPreViewSize(width, words[++i].toInt());
            }
        }
        QCOMPARE(Access::previewSize(), size);
    }

    void pausedThreadWaits()
    {
        capture()->setPause(true);
        QTest::qWait(100);   // the loop is now spinning in its paused path
        portable::setScript("bStartPlay", bools({true}));
        portable::setScript("bStopPlay", bools({true}));
        Trace trace;
        capture()->openCamera(1);
        capture()->closeCamera();
        QTest::qWait(300);
        QVERIFY(m_replies.isEmpty());
        QCOMPARE(trace.functions(), QStringList());

        capture()->setPause(false);
        QCOMPARE(nextReply(), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
        QCOMPARE(nextReply(), QByteArray("BeginbStopPlaytrueEndbStopPlay"));
        QCOMPARE(cameraCalls(trace), (QStringList{"bStartPlay(0)", "bStopPlay"}));
    }

    // The portable camera for real, through a real WebSocket: a started preview sends the page
    // 800 x 600 JPEG frames until the page switches the preview off.
    void realCameraFramesReachAPage()
    {
        WebSocketServerManager server(QStringLiteral("boreaTcp"), QWebSocketServer::NonSecureMode);
        QVERIFY(server.websocke_server_start(QHostAddress::LocalHost, 0));
        Page page;
        QVERIFY(page.open(server.serverPort()));
        QVERIFY(waitFor([&] { return server.clientCount() == 1; }));
        const auto frames = [&page] { return page.got.filter(QRegularExpression("^(?!Begin)")); };

        portable::setScript("getVideoFrame", QJsonArray());
        capture()->openCamera(1);
        QCOMPARE(nextReply(10000), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
        QVERIFY(waitFor([&] { return frames().size() >= 3; }, 10000));
        for (const QString& message : frames().mid(0, 3))
            QCOMPARE(jpegSize(QByteArray::fromBase64(message.toLatin1())), QSize(800, 600));

        // The page switches the preview off with its command, and on again.
        page.ws.sendTextMessage("vSetPreviewEnable(0)");
        QVERIFY(waitFor([&] { return page.got.contains("BeginvSetPreviewEnabletrueEndvSetPreviewEnable"); }));
        QVERIFY(!capture()->bGetPreviewEnable());
        QTest::qWait(200);
        page.got.clear();
        QTest::qWait(400);
        QCOMPARE(page.got, QStringList());
        page.ws.sendTextMessage("vSetPreviewEnable(1)");
        QVERIFY(waitFor([&] { return !frames().isEmpty(); }));
        capture()->closeCamera();
        QCOMPARE(nextReply(), QByteArray("BeginbStopPlaytrueEndbStopPlay"));
        page.ws.close();
    }

    // Six failed frames in a row: the camera is stopped and opened again without rotation,
    // silently for the pages. Takes about nine seconds of the thread's own pauses.
    void failedFramesRecover()
    {
        QJsonArray script = bools({false, false, false, false, false, false});
        for (const QJsonValue& v : frameScript(3000))
            script.append(v);
        portable::setScript("getVideoFrame", script);
        portable::setScript("iGetRotate", QJsonArray{90});
        portable::setScript("bStartPlay", bools({true, true}));
        LogCapture log;
        Trace trace;
        capture()->openCamera(1);
        QCOMPARE(nextReply(), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
        QTRY_VERIFY_WITH_TIMEOUT(trace.callsOf("bStartPlay").size() == 2, 15000);
        QVERIFY(log.contains("capture error"));
        QCOMPARE(cameraCalls(trace), (QStringList{"bStartPlay(90)", "bStopPlay", "bStartPlay(0)"}));
        // Frames flow again, and no reply told the pages about it.
        m_frames.clear();
        QTRY_VERIFY_WITH_TIMEOUT(!m_frames.isEmpty(), 5000);
        QVERIFY(m_replies.isEmpty());
        QCOMPARE(Access::currentCamera(), 1);
    }

    // Fewer than six failures in a row never trigger the recovery.
    void goodFrameResetsTheFailureCount()
    {
        QJsonArray script = bools({false, false, false, false, false});
        script.append(frameScript(1).at(0));
        for (int i = 0; i < 2; ++i)
            script.append(false);
        for (const QJsonValue& v : frameScript(3000))
            script.append(v);
        portable::setScript("getVideoFrame", script);
        Trace trace;
        QCOMPARE(open(1, "bStartPlay"), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
        // Seven failures in all, but never six in a row.
        QTRY_VERIFY_WITH_TIMEOUT(m_frames.size() >= 2, 15000);
        QCOMPARE(cameraCalls(trace), QStringList{"bStartPlay(0)"});
    }
};

QTEST_MAIN(TestCaptureThread)
#include "tst_capturethread.moc"
