// The portable face and fingerprint modules for real: scores of known pairs, the failure
// values, features, the synthetic face camera's liveness, the simulated fingerprint sensor and
// the libfprint path through its virtual_image driver.
#include "devicelib/biometrics.h"
#include "devicelib/portable/core.h"
#include "devicelib/portable/fingerprint/fingerprint.h"
#include "fixture.h"

#include <QApplication>
#include <QFile>
#include <QLocalSocket>
#include <QTest>
#include <QWidget>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <atomic>
#include <mutex>

using namespace portable;

namespace {

QTemporaryDir* g_dir = nullptr;

QString file(const QString& name) { return g_dir->filePath(name); }

// The shipped photographs, turned, scaled and re-lit as a test needs.
QString picture(const QString& name, const QString& photo, double angle = 0, double scale = 1, double gain = 1)
{
    const QString path = file(name);
    if (QFile::exists(path))
        return path;
    QFile f(":/portable/face/" + photo);
    f.open(QIODevice::ReadOnly);
    const QByteArray b = f.readAll();
    cv::Mat m = cv::imdecode(cv::Mat(1, b.size(), CV_8U, const_cast<char*>(b.data())), cv::IMREAD_COLOR);
    cv::warpAffine(m, m, cv::getRotationMatrix2D(cv::Point2f(m.cols / 2.f, m.rows / 2.f), angle, 1.0), m.size(),
                   cv::INTER_LINEAR, cv::BORDER_REPLICATE);
    cv::resize(m, m, cv::Size(), scale, scale, cv::INTER_AREA);
    m.convertTo(m, -1, gain, 0);
    cv::imwrite(path.toStdString(), m);
    return path;
}

// A JPEG whose header claims 20000 x 20000 pixels, with a few pixels behind it.
QString hugeImage()
{
    std::vector<uchar> jpeg;
    cv::imencode(".jpg", cv::Mat(16, 16, CV_8UC3, cv::Scalar::all(90)), jpeg);
    for (size_t i = 0; i + 8 < jpeg.size(); ++i) {
        if (jpeg[i] == 0xFF && jpeg[i + 1] == 0xC0) {   // start of frame: height and width
            jpeg[i + 5] = jpeg[i + 7] = 20000 >> 8;
            jpeg[i + 6] = jpeg[i + 8] = 20000 & 0xFF;
            break;
        }
    }
    writeFile(file("huge.jpg"), QByteArray(reinterpret_cast<const char*>(jpeg.data()), int(jpeg.size())));
    return file("huge.jpg");
}

// What the library's later callbacks deliver.
struct Events {
    std::mutex mutex;
    QList<QByteArray> got;
    void add(const QByteArray& b) { std::lock_guard<std::mutex> l(mutex); got << b; }
    bool has(int n) { std::lock_guard<std::mutex> l(mutex); return got.size() >= n; }
    QByteArray at(int i) { std::lock_guard<std::mutex> l(mutex); return got.value(i); }
    QList<QByteArray> all() { std::lock_guard<std::mutex> l(mutex); return got; }
    QList<QByteArray> starting(const QByteArray& prefix)
    {
        QList<QByteArray> r;
        for (const QByteArray& b : all())
            if (b.startsWith(prefix))
                r << b;
        return r;
    }
};
Events* g_events = nullptr;

void onInt(int v, void*) { g_events->add(QByteArray::number(v)); }
void onText(const char* t, void*) { g_events->add(QByteArray(t)); }
void onCapture(const QByteArray& image, const QByteArray& feature, int score, const char* msg, void*)
{
    g_events->add(QByteArray::number(score) + "|" + feature + "|" + image.left(12) + "|" + msg);
}
void onData(const char* data, int length, int kind)
{
    g_events->add(QByteArray::number(kind) + ":" + QByteArray(data, length).left(kind == 1 ? 40 : 4));
}
void onDone() { g_events->add("done"); }
void onResult(int r) { g_events->add("window " + QByteArray::number(r)); }
void keep(const char* t, void* ctx) { *static_cast<QByteArray*>(ctx) = t; }

QByteArray featureOf(const QString& path)
{
    QByteArray f;
    return bFaceFeatureGet(false, path.toUtf8().constData(), "", keep, &f) ? QByteArray::fromBase64(f) : QByteArray();
}

QByteArray fingerTemplate(int finger, double angle, float dx, float dy, unsigned noise)
{
    return QByteArray::fromStdString(encodeTemplate(extractMinutiae(renderFinger(finger, angle, {dx, dy}, 12, noise))));
}

}  // namespace

class TestBiometrics : public QObject {
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Q_INIT_RESOURCE(face);
        g_dir = new QTemporaryDir;
        g_events = new Events;
        writeFile(file("blank.jpg"), QByteArray());
        cv::imwrite(file("grey.jpg").toStdString(), cv::Mat(300, 300, CV_8UC3, cv::Scalar::all(128)));
        writeFile(file("text.jpg"), "not a picture");
    }
    void cleanupTestCase()
    {
        portable::loadProfileText(QByteArray());   // stops the sessions before the events go
        delete g_dir;
        delete g_events;
    }
    void init()
    {
        portable::loadProfileText(QByteArray());
        g_events->got.clear();
    }

    void imageScores_data()
    {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<int>("low");
        QTest::addColumn<int>("high");
        const QString hopper = picture("hopper.jpg", "grace_hopper.jpg");
        QTest::newRow("same, turned 10 degrees") << hopper << picture("hopper-10.jpg", "grace_hopper.jpg", 10) << 60 << 100;
        QTest::newRow("same, half size, darker") << hopper << picture("hopper-s.jpg", "grace_hopper.jpg", 0, 0.5, 0.6) << 60 << 100;
        QTest::newRow("two people") << hopper << picture("astronaut.jpg", "astronaut.jpg") << 0 << 59;
        QTest::newRow("two people, turned") << picture("astronaut-10.jpg", "astronaut.jpg", -10) << hopper << 0 << 59;
        QTest::newRow("no face") << hopper << file("grey.jpg") << -1 << -1;
        QTest::newRow("missing file") << hopper << file("none.jpg") << -2 << -2;
        QTest::newRow("missing beats no face") << file("grey.jpg") << file("none.jpg") << -2 << -2;
        QTest::newRow("not a picture") << file("text.jpg") << hopper << -2 << -2;
        QTest::newRow("empty file") << file("blank.jpg") << hopper << -2 << -2;
        QTest::newRow("20000 x 20000") << hugeImage() << hopper << -3 << -3;
    }
    void imageScores()
    {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(int, low);
        QFETCH(int, high);
        const int score = lImageMatch(a.toUtf8().constData(), b.toUtf8().constData());
        QVERIFY2(score >= low && score <= high, qPrintable(QString::number(score)));
        QCOMPARE(bImageMatch(a.toUtf8().constData(), b.toUtf8().constData()), low >= 60);
        // Features score as their images do.
        const QByteArray fa = featureOf(a), fb = featureOf(b);
        if (low >= 0) {
            QVERIFY(fa.size() > 100 && !fa.contains('\0'));
            QCOMPARE(fa.size(), fb.size());
            QCOMPARE(int(lFaceFeatureMatch(fa.constData(), fb.constData())), score);
            QCOMPARE(int(lFaceFeatureMatch(fa.left(fa.size() - 1).constData(), fb.constData())), -1);
        }
    }

    // An ID card's portrait is small and pale; it still matches its photograph.
    void idPortrait()
    {
        cv::Mat m = cv::imread(picture("hopper.jpg", "grace_hopper.jpg").toStdString());
        cv::Mat portrait;
        cv::resize(m(cv::Rect(110, 50, 300, 371)), portrait, cv::Size(102, 126), 0, 0, cv::INTER_AREA);
        portrait.convertTo(portrait, -1, 0.5, 110);
        cv::imwrite(file("portrait.jpg").toStdString(), portrait);
        const QByteArray p = file("portrait.jpg").toUtf8();
        QVERIFY(lImageIdMatch(picture("hopper-10.jpg", "grace_hopper.jpg", 10).toUtf8().constData(), p.constData()) >= 60);
        QVERIFY(lImageIdMatch(picture("astronaut.jpg", "astronaut.jpg").toUtf8().constData(), p.constData()) < 60);
    }

    // Camera 4 without hardware shows the shipped face, blinking; a still photo never blinks.
    void faceCamera_data()
    {
        QTest::addColumn<QByteArray>("profile");
        QTest::addColumn<QString>("photo");
        QTest::addColumn<bool>("live");
        QTest::addColumn<bool>("same");
        QTest::newRow("synthetic face camera") << QByteArray("{}") << "hopper.jpg" << true << true;
        QTest::newRow("a still photo") << QByteArray(R"({"camera":{"sources":{"4":{"type":"file","path":"%1"}}}})") << "hopper-10.jpg"
                                       << false << true;
        QTest::newRow("another person") << QByteArray("{}") << "astronaut.jpg" << true << false;
    }
    void faceCamera()
    {
        QFETCH(QByteArray, profile);
        QFETCH(QString, photo);
        QFETCH(bool, live);
        QFETCH(bool, same);
        picture("hopper-10.jpg", "grace_hopper.jpg", 10);
        loadProfileText(QString::fromUtf8(profile).replace("%1", picture("hopper.jpg", "grace_hopper.jpg")).toUtf8());
        const QByteArray path = picture(photo, photo.startsWith("astro") ? "astronaut.jpg" : "grace_hopper.jpg").toUtf8();
        QCOMPARE(lFaceMatch(path.constData()) >= 60, same);
        QVERIFY(bLivingBodyDetectOnline(4, 0, onInt));
        QVERIFY(bImageMatchOnline(path.constData(), 2, 60, 4, onInt));
        QVERIFY(bFaceFeatureGetOnline(2, 0, onText));
        QTRY_VERIFY_WITH_TIMEOUT(g_events->has(3), 8000);
        QList<QByteArray> got = g_events->all();
        std::sort(got.begin(), got.end(), [](const QByteArray& x, const QByteArray& y) { return x.size() < y.size(); });
        // Shortest first: the liveness result, the best score, the feature.
        QCOMPARE(got[0] == "1" || got[1] == "1", live);
        QCOMPARE(qMax(got[0].toInt(), got[1].toInt()) >= 60, same);
        QVERIFY(QByteArray::fromBase64(got[2]).size() > 100);
    }

    // The liveness window passes on the blinking face camera, and reports 2 when the customer
    // closes it; the stream sends frames and one result until it is closed.
    void livenessWindowAndStream()
    {
        DemoUIShow(30, onResult);   // ends at the first blink; the time allows a slow first model load
        QTRY_VERIFY_WITH_TIMEOUT(g_events->has(1), 35000);
        QCOMPARE(g_events->at(0), QByteArray("window 1"));
        // A still photo never blinks, so only the customer's close can end this one early.
        loadProfileText(QByteArray(R"({"camera":{"sources":{"4":{"type":"file","path":")")
                        + picture("hopper.jpg", "grace_hopper.jpg").toUtf8() + "\"}}}}");
        const auto shown = [] {
            const QWidgetList all = QApplication::topLevelWidgets();
            const auto it = std::find_if(all.begin(), all.end(), [](QWidget* w) { return w->isVisible(); });
            return it == all.end() ? nullptr : *it;
        };
        QTRY_VERIFY(!shown());   // the passed check's window has gone
        DemoUIShow(5, onResult);
        QTRY_VERIFY(shown());
        shown()->close();
        QTRY_VERIFY_WITH_TIMEOUT(g_events->has(2), 3000);
        QCOMPARE(g_events->at(1), QByteArray("window 2"));

        g_events->got.clear();
        loadProfileText("{}");
        QVERIFY(AutoLivingBody(onData));
        QTRY_VERIFY_WITH_TIMEOUT(g_events->starting("1:").size() == 1, 6000);
        CloseLivingBody(onDone);
        QTRY_VERIFY(g_events->all().contains("done"));
        QTest::qWait(200);
        const QList<QByteArray> got = g_events->all();
        QCOMPARE(got.last(), QByteArray("done"));
        QVERIFY(got.first().startsWith("0:/9j/"));   // a JPEG frame first
        QVERIFY(g_events->starting("1:").first().startsWith("1:{\"live\":true,\"score\":"));
        CloseLivingBody(onDone);   // nothing runs: done all the same
        QTRY_COMPARE(g_events->all().count("done"), 2);
    }

    void onlineArguments_data()
    {
        QTest::addColumn<int>("seconds");
        QTest::addColumn<int>("camera");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("camera 10") << 1 << 10 << false;
        QTest::newRow("camera -1") << 1 << -1 << false;
        QTest::newRow("negative time") << -1 << 4 << false;
        QTest::newRow("camera 9, no such camera") << 1 << 9 << true;
    }
    void onlineArguments()
    {
        QFETCH(int, seconds);
        QFETCH(int, camera);
        QFETCH(bool, accepted);
        loadProfileText(R"({"camera":{"sources":{"9":{"type":"v4l2","device":"/nonexistent/video99"}}}})");
        QCOMPARE(bLivingBodyDetectOnline(seconds, camera, onInt), accepted);
        if (accepted) {
            QTRY_VERIFY(g_events->has(1));
            QCOMPARE(g_events->at(0), QByteArray("0"));
        }
    }

    // The same finger placed again matches; others do not; mode 0 finds it among several.
    void fingerMatching_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<QByteArray>("probe");
        QTest::addColumn<int>("count");
        QTest::addColumn<QByteArray>("stored");
        QTest::addColumn<int>("low");
        QTest::addColumn<int>("high");
        const QByteArray probe = fingerTemplate(3, 7, 8, -6, 11);
        QByteArray five;
        for (int f : {5, 9, 3, 12, 3})
            five += fingerTemplate(f, -4, -5, 4, 100 + f);
        QTest::newRow("same finger, turned and moved") << 1 << probe << 1 << fingerTemplate(3, -5, -9, 7, 12) << 40 << 100;
        QTest::newRow("another finger") << 1 << probe << 1 << fingerTemplate(4, 0, 0, 0, 13) << 0 << 39;
        QTest::newRow("mode 0 finds the first of two") << 0 << probe << 5 << five << 3 << 3;
        QTest::newRow("mode 0, none") << 0 << fingerTemplate(8, 0, 0, 0, 1) << 5 << five << 0 << 0;
        QTest::newRow("mode 2") << 2 << probe << 5 << five << -1 << -1;
        QTest::newRow("count 0") << 1 << probe << 0 << five << -1 << -1;
        QTest::newRow("count of a million") << 1 << probe << 1000000 << five << -1 << -1;
        QTest::newRow("count short of the bytes") << 0 << probe << 4 << five << -1 << -1;
        QTest::newRow("probe cut short") << 1 << probe.left(100) << 5 << five << -1 << -1;
        QTest::newRow("not a template") << 1 << QByteArray(245, 'x') << 5 << five << -1 << -1;
    }
    void fingerMatching()
    {
        QFETCH(int, mode);
        QFETCH(QByteArray, probe);
        QFETCH(int, count);
        QFETCH(QByteArray, stored);
        QFETCH(int, low);
        QFETCH(int, high);
        QCOMPARE(probe.contains('\0'), false);
        const int r = lFingerMatch(mode, probe.constData(), count, stored.constData());
        QVERIFY2(r >= low && r <= high, qPrintable(QString::number(r)));
    }

    // The simulated sensor: a finger 500 ms after the call, none, or no sensor at all.
    void fingerCapture_data()
    {
        QTest::addColumn<QByteArray>("profile");
        QTest::addColumn<int>("ms");
        QTest::addColumn<QByteArray>("starts");
        QTest::newRow("simulated finger") << QByteArray(R"({"fingerprint":{"sensor":"simulated","finger":4}})") << 3000 << QByteArray("|46505431");
        QTest::newRow("no finger") << QByteArray(R"({"fingerprint":{"sensor":"simulated","finger":0}})") << 300 << QByteArray("-1||");
        QTest::newRow("finger too late") << QByteArray(R"({"fingerprint":{"sensor":"simulated"}})") << 200 << QByteArray("-1||");
        QTest::newRow("no sensor attached") << QByteArray(R"({"fingerprint":{"finger":2}})") << 3000 << QByteArray("|46505431");
        QTest::newRow("no sensor") << QByteArray(R"({"fingerprint":{"sensor":"none"}})") << 1000 << QByteArray("-2||");
    }
    void fingerCapture()
    {
        QFETCH(QByteArray, profile);
        QFETCH(int, ms);
        QFETCH(QByteArray, starts);
        loadProfileText(profile);
        fingerCaptureRawData(ms, onCapture, nullptr);
        QTRY_VERIFY_WITH_TIMEOUT(g_events->has(1), 5000);
        const QByteArray got = g_events->at(0);
        const int score = got.split('|').value(0).toInt();
        QVERIFY2(starts.startsWith('|') ? got.contains(starts) && score > 0 : got.startsWith(starts), got.constData());
        if (score > 0)
            QVERIFY(got.contains("|iVBORw0KGgo"));   // a PNG
    }


    // The libfprint path, through libfprint's own virtual_image driver: the test is the finger,
    // sending a synthetic ridge image over the driver's socket.
    void libfprintVirtualImage()
    {
        QTemporaryDir dir;
        const QString socketPath = dir.filePath("fp.sock");
        qputenv("FP_VIRTUAL_IMAGE", QFile::encodeName(socketPath));
        loadProfileText(R"({"fingerprint":{"sensor":"libfprint"}})");
        fingerCaptureRawData(8000, onCapture, nullptr);
        QLocalSocket finger;
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(socketPath), 5000);
        finger.connectToServer(socketPath);
        QTRY_COMPARE(finger.state(), QLocalSocket::ConnectedState);
        const cv::Mat img = renderFinger(6, 3, {4, -3}, 8, 5);
        QByteArray frame;
        for (qint32 v : {qint32(img.cols), qint32(img.rows)})
            frame.append(reinterpret_cast<const char*>(&v), sizeof v);
        frame.append(reinterpret_cast<const char*>(img.data), int(img.total()));
        finger.write(frame);
        QVERIFY(finger.waitForBytesWritten(2000));
        QTRY_VERIFY_WITH_TIMEOUT(g_events->has(1), 10000);
        qunsetenv("FP_VIRTUAL_IMAGE");
        const QList<QByteArray> parts = g_events->at(0).split('|');
        QVERIFY2(parts.value(0).toInt() >= 0 && parts.value(3).contains("libfprint"), g_events->at(0).constData());
        // The same finger from the simulated sensor matches what libfprint saw.
        const QByteArray probe = QByteArray::fromHex(parts.value(1));
        const QByteArray stored = fingerTemplate(6, -2, 0, 0, 9);
        QVERIFY(lFingerMatch(1, probe.constData(), 1, stored.constData()) >= 40);
    }
};

QTEST_MAIN(TestBiometrics)
#include "tst_biometrics.moc"
