// The preview capture thread: its queue, start retries, stored camera codes, the frame push,
// preview size and zoom, pause, and the recovery after failed frames. The device library is
// the portable one, scripted per test; the thread's messages are collected on the main thread.
#include "camera/captureimgthread.h"
#include "devicelib/portable/core.h"
#include "fixture.h"

#include <QBuffer>
#include <QElapsedTimer>
#include <QImage>
#include <QImageReader>
#include <QJsonArray>
#include <QMutex>
#include <QMutexLocker>
#include <QSize>
#include <QTest>

class CaptureImgThreadTestAccess {
public:
    static QSize previewSize()
    {
        CaptureImgThread* t = CaptureImgThread::instance();
        return QSize(t->previewWidth(), t->previewHeight());
    }
    static int currentCamera() { return CaptureImgThread::instance()->currentCamera(); }
};

namespace {

using Access = CaptureImgThreadTestAccess;

CaptureImgThread* capture()
{
    return CaptureImgThread::instance();
}

// n good frames of w x h for getVideoFrame, so an open camera keeps delivering.
QJsonArray frames(int n, int w = 8, int h = 6)
{
    QJsonArray a;
    for (int i = 0; i < n; ++i)
        a.append(QJsonObject{{"ret", true}, {"out", QJsonArray{QJsonObject{{"w", w}, {"h", h}}}}});
    return a;
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

// Debug lines, captured so the recovery's log line can be seen.
QMutex gLogMutex;
QStringList gLog;
QtMessageHandler gPreviousHandler = nullptr;

void recordLog(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    {
        QMutexLocker lock(&gLogMutex);
        gLog << text;
    }
    if (gPreviousHandler)
        gPreviousHandler(type, context, text);
}

bool logContains(const QString& text)
{
    QMutexLocker lock(&gLogMutex);
    for (const QString& line : gLog)
        if (line.contains(text))
            return true;
    return false;
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
        QElapsedTimer t;
        t.start();
        while (m_replies.isEmpty() && t.elapsed() < timeoutMs)
            QTest::qWait(5);
        return m_replies.isEmpty() ? QByteArray() : m_replies.takeFirst();
    }
    // Lets queued messages arrive, then forgets them.
    void settle()
    {
        QTest::qWait(100);
        m_replies.clear();
        m_frames.clear();
    }
    void openScripted(int code, const QString& startFn)
    {
        portable::setScript(startFn, bools({true}));
        capture()->openCamera(code);
    }

private slots:
    void initTestCase()
    {
        gPreviousHandler = qInstallMessageHandler(recordLog);
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
        portable::setScript("getVideoFrame", frames(3000));
        settle();
    }

    void cleanup()
    {
        capture()->setPause(false);
        capture()->silenceClose();
        settle();
    }

    void codesMapToTheirStarts_data()
    {
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("startFn");
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<int>("stored");
        QTest::newRow("1") << 1 << "bStartPlay" << QByteArray("BeginbStartPlaytrueEndbStartPlay") << 1;
        QTest::newRow("11 rotate") << 11 << "bStartPlay" << QByteArray("BeginbStartPlayRotatetrueEndbStartPlayRotate") << 1;
        QTest::newRow("2") << 2 << "bStartPlay2" << QByteArray("BeginbStartPlay2trueEndbStartPlay2") << 2;
        QTest::newRow("3") << 3 << "bStartPlay3" << QByteArray("BeginbStartPlay3trueEndbStartPlay3") << 3;
        QTest::newRow("5 stores 3") << 5 << "bStartPlay5" << QByteArray("BeginbStartPlay5trueEndbStartPlay5") << 3;
        QTest::newRow("6") << 6 << "bStartPlay6" << QByteArray("BeginbStartPlay6trueEndbStartPlay6") << 6;
        QTest::newRow("8") << 8 << "bStartPlay8" << QByteArray("BeginbStartPlay8trueEndbStartPlay8") << 8;
        QTest::newRow("9") << 9 << "bStartPlay9" << QByteArray("BeginbStartPlay9trueEndbStartPlay9") << 9;
        QTest::newRow("25 dual") << 25 << "bStartPlayOpen" << QByteArray("BeginbStartPlayOpentrueEndbStartPlayOpen") << 25;
    }
    void codesMapToTheirStarts()
    {
        QFETCH(int, code);
        QFETCH(QString, startFn);
        QFETCH(QByteArray, reply);
        QFETCH(int, stored);
        Trace trace;
        openScripted(code, startFn);
        QCOMPARE(nextReply(), reply);
        QCOMPARE(trace.functions().filter("bStartPlay"), QStringList{startFn});
        QCOMPARE(Access::currentCamera(), stored);
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

    void secondStartAnswersWithoutTheLibrary()
    {
        Trace trace;
        openScripted(1, "bStartPlay");
        QCOMPARE(nextReply(), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
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
        QTest::addColumn<QStringList>("calls");
        QTest::addColumn<int>("camera");
        QTest::newRow("first try") << bools({true}) << QByteArray("BeginbStartPlaytrueEndbStartPlay")
                                   << QStringList{"bStartPlay(90)"} << 1;
        QTest::newRow("second try") << bools({false, true}) << QByteArray("BeginbStartPlaytrueEndbStartPlay")
                                    << QStringList{"bStartPlay(90)", "bStopPlay", "bStartPlay(90)"} << 1;
        QTest::newRow("third try") << bools({false, false, true}) << QByteArray("BeginbStartPlaytrueEndbStartPlay")
                                   << QStringList{"bStartPlay(90)", "bStopPlay", "bStartPlay(90)", "bStopPlay", "bStartPlay(90)"}
                                   << 1;
        QTest::newRow("all fail") << bools({false, false, false}) << QByteArray("BeginbStartPlayfalseEndbStartPlay")
                                  << QStringList{"bStartPlay(90)", "bStopPlay", "bStartPlay(90)", "bStopPlay", "bStartPlay(90)"}
                                  << -1;
    }
    void startRetries()
    {
        QFETCH(QJsonArray, results);
        QFETCH(QByteArray, reply);
        QFETCH(QStringList, calls);
        QFETCH(int, camera);
        portable::setScript("iGetRotate", QJsonArray{90, 90, 90});
        portable::setScript("bStartPlay", results);
        Trace trace;
        capture()->openCamera(1);
        QCOMPARE(nextReply(), reply);
        QCOMPARE(cameraCalls(trace), calls);
        QCOMPARE(Access::currentCamera(), camera);
    }

    // Tries 1 and 2 pass the rotation; the third passes 0 for cameras 5, 6, 8 and 9.
    void rotationPerTry_data()
    {
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("fn");
        QTest::addColumn<QList<int>>("arguments");
        QTest::newRow("1") << 1 << "bStartPlay" << QList<int>{90, 90, 90};
        QTest::newRow("2") << 2 << "bStartPlay2" << QList<int>{0, 0, 0};
        QTest::newRow("3") << 3 << "bStartPlay3" << QList<int>{0, 0, 0};
        QTest::newRow("5") << 5 << "bStartPlay5" << QList<int>{90, 90, 0};
        QTest::newRow("6") << 6 << "bStartPlay6" << QList<int>{90, 90, 0};
        QTest::newRow("8") << 8 << "bStartPlay8" << QList<int>{90, 90, 0};
        QTest::newRow("9") << 9 << "bStartPlay9" << QList<int>{90, 90, 0};
    }
    void rotationPerTry()
    {
        QFETCH(int, code);
        QFETCH(QString, fn);
        QFETCH(QList<int>, arguments);
        portable::setScript("iGetRotate", QJsonArray{90, 90, 90});
        portable::setScript(fn, bools({false, false, true}));
        Trace trace;
        capture()->openCamera(code);
        QVERIFY(nextReply().contains("true"));
        QList<int> seen;
        for (const QJsonObject& c : trace.callsOf(fn))
            seen << c.value("args").toArray().at(0).toInt();
        QCOMPARE(seen, arguments);
    }

    void secondStartPlay5Restarts()
    {
        openScripted(5, "bStartPlay5");
        QCOMPARE(nextReply(), QByteArray("BeginbStartPlay5trueEndbStartPlay5"));
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
        openScripted(25, "bStartPlayOpen");
        QCOMPARE(nextReply(), QByteArray("BeginbStartPlayOpentrueEndbStartPlayOpen"));
        Trace trace;
        capture()->openCamera(25);
        QCOMPARE(nextReply(), QByteArray("BeginbDualCameraOpentrueEndbDualCameraOpen"));
        QCOMPARE(trace.functions(), QStringList());
    }

    void switchingCameraStopsTheOpenOne()
    {
        openScripted(1, "bStartPlay");
        QCOMPARE(nextReply(), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
        Trace trace;
        openScripted(2, "bStartPlay2");
        QCOMPARE(nextReply(), QByteArray("BeginbStartPlay2trueEndbStartPlay2"));
        QCOMPARE(cameraCalls(trace), (QStringList{"bStopPlay", "bStartPlay2(0)"}));
        QCOMPARE(Access::currentCamera(), 2);
    }

    // The former camera was stopped by the attempt, but its code stays for the recovery.
    void failedSwitchKeepsTheFormerCode()
    {
        openScripted(1, "bStartPlay");
        QCOMPARE(nextReply(), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
        portable::setScript("bStartPlay2", bools({false, false, false}));
        capture()->openCamera(2);
        QCOMPARE(nextReply(), QByteArray("BeginbStartPlay2falseEndbStartPlay2"));
        QCOMPARE(Access::currentCamera(), 1);
    }

    void stopReportsTheLibrary_data()
    {
        QTest::addColumn<bool>("cameraOpen");
        QTest::addColumn<bool>("result");
        QTest::addColumn<QByteArray>("reply");
        QTest::newRow("no camera, true") << false << true << QByteArray("BeginbStopPlaytrueEndbStopPlay");
        QTest::newRow("no camera, false") << false << false << QByteArray("BeginbStopPlayfalseEndbStopPlay");
        QTest::newRow("open, false") << true << false << QByteArray("BeginbStopPlayfalseEndbStopPlay");
    }
    void stopReportsTheLibrary()
    {
        QFETCH(bool, cameraOpen);
        QFETCH(bool, result);
        QFETCH(QByteArray, reply);
        if (cameraOpen) {
            openScripted(3, "bStartPlay3");
            QCOMPARE(nextReply(), QByteArray("BeginbStartPlay3trueEndbStartPlay3"));
        }
        portable::setScript("bStopPlay", bools({result}));
        Trace trace;
        capture()->closeCamera();
        QCOMPARE(nextReply(), reply);
        QCOMPARE(cameraCalls(trace), QStringList{"bStopPlay"});
        QCOMPARE(Access::currentCamera(), -1);
    }

    void silenceCloseLeavesTheLibraryAlone()
    {
        openScripted(1, "bStartPlay");
        QCOMPARE(nextReply(), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
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
        portable::setScript("getVideoFrame", frames(3000, frame.width(), frame.height()));
        openScripted(1, "bStartPlay");
        QCOMPARE(nextReply(), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
        QTRY_VERIFY_WITH_TIMEOUT(!m_frames.isEmpty(), 5000);

        // The message is the bare base64 of a JPEG file: nothing before or after it.
        const QByteArray message = m_frames.first();
        const QByteArray jpeg = QByteArray::fromBase64(message);
        QCOMPARE(jpeg.toBase64(), message);
        QVERIFY(jpeg.startsWith("\xFF\xD8"));
        QBuffer buffer;
        buffer.setData(jpeg);
        QImageReader reader(&buffer);
        QCOMPARE(reader.format(), QByteArray("jpeg"));
        QCOMPARE(reader.read().size(), pushed);
    }

    void previewSize_data()
    {
        QTest::addColumn<QString>("steps");
        QTest::addColumn<QSize>("size");
        QTest::newRow("original") << "" << QSize(800, 600);
        QTest::newRow("set") << "size 1024 768" << QSize(1024, 768);
        QTest::newRow("floors apply one by one") << "size 1024 200" << QSize(1024, 300);
        QTest::newRow("no upper bound") << "size 9000 7000" << QSize(9000, 7000);
        QTest::newRow("zoom in") << "in" << QSize(720, 540);
        QTest::newRow("zoom in truncates") << "in in in" << QSize(583, 437);
        QTest::newRow("zoom in to the floors") << "in in in in in in in" << QSize(400, 300);
        QTest::newRow("zoom in stays at the floors") << "in in in in in in in in in in" << QSize(400, 300);
        QTest::newRow("height floors alone") << "size 1000 320 in" << QSize(900, 300);
        QTest::newRow("zoom out") << "out" << QSize(880, 660);
        QTest::newRow("zoom out unbounded")
            << "out out out out out out out out out out out out out out out out out out out out out out out"
            << QSize(7136, 5342);
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

    void disabledPreviewPushesNothing()
    {
        openScripted(1, "bStartPlay");
        QCOMPARE(nextReply(), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
        QTRY_VERIFY_WITH_TIMEOUT(!m_frames.isEmpty(), 5000);
        capture()->vSetPreviewEnable(false);
        QVERIFY(!capture()->bGetPreviewEnable());
        settle();
        QTest::qWait(400);
        QVERIFY(m_frames.isEmpty());
        capture()->vSetPreviewEnable(true);
        QTRY_VERIFY_WITH_TIMEOUT(!m_frames.isEmpty(), 5000);
    }

    // The portable camera for real: a started preview pushes 800 x 600 JPEG frames.
    void realCameraPushesPreviewFrames()
    {
        portable::setScript("getVideoFrame", QJsonArray());
        capture()->openCamera(1);
        QCOMPARE(nextReply(10000), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
        QTRY_VERIFY_WITH_TIMEOUT(m_frames.size() >= 3, 10000);
        for (const QByteArray& message : m_frames.mid(0, 3)) {
            QBuffer buffer;
            buffer.setData(QByteArray::fromBase64(message));
            QImageReader reader(&buffer);
            QCOMPARE(reader.format(), QByteArray("jpeg"));
            QCOMPARE(reader.read().size(), QSize(800, 600));
        }
        capture()->closeCamera();
        QCOMPARE(nextReply(), QByteArray("BeginbStopPlaytrueEndbStopPlay"));
    }

    // Six failed frames in a row: the camera is stopped and opened again without rotation,
    // silently for the pages. Takes about nine seconds of the thread's own pauses.
    void failedFramesRecover()
    {
        QJsonArray script = bools({false, false, false, false, false, false});
        for (const QJsonValue& v : frames(3000))
            script.append(v);
        portable::setScript("getVideoFrame", script);
        portable::setScript("iGetRotate", QJsonArray{90});
        portable::setScript("bStartPlay", bools({true, true}));
        {
            QMutexLocker lock(&gLogMutex);
            gLog.clear();
        }
        Trace trace;
        capture()->openCamera(1);
        QCOMPARE(nextReply(), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
        QTRY_VERIFY_WITH_TIMEOUT(trace.callsOf("bStartPlay").size() == 2, 15000);
        QVERIFY(logContains("capture error"));
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
        script.append(frames(1).at(0));
        for (int i = 0; i < 2; ++i)
            script.append(false);
        for (const QJsonValue& v : frames(3000))
            script.append(v);
        portable::setScript("getVideoFrame", script);
        Trace trace;
        openScripted(1, "bStartPlay");
        QCOMPARE(nextReply(), QByteArray("BeginbStartPlaytrueEndbStartPlay"));
        // Seven failures in all, but never six in a row.
        QTRY_VERIFY_WITH_TIMEOUT(m_frames.size() >= 2, 15000);
        QCOMPARE(cameraCalls(trace), QStringList{"bStartPlay(0)"});
    }
};

QTEST_MAIN(TestCaptureThread)
#include "tst_capturethread.moc"
