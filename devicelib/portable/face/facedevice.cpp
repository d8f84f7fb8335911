#include "devicelib/portable/face/facedevice.h"
#include "devicelib/portable/camera/camerasource.h"
#include "devicelib/portable/core.h"
#include "devicelib/portable/face/faceengine.h"
#include "devicelib/portable/face/livenesswindow.h"
#include "devicelib/portable/jobs.h"

#include <QByteArray>
#include <QCoreApplication>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

namespace portable {

namespace {

using Clock = std::chrono::steady_clock;

void stopJobs();

// Each session runs on a thread of the module's own.
Jobs& jobs()
{
    static Jobs* const j = [] {
        auto* created = new Jobs;
        addResetHook([] { stopJobs(); });
        // Before the application object goes, so no session still calls into the server.
        qAddPostRoutine([] { stopJobs(); });
        return created;
    }();
    return *j;
}

// The running AutoLivingBody session: told to stop, and telling when it has.
struct AutoSession {
    std::atomic<bool> stop{false};
    std::atomic<bool> ended{false};
};
std::mutex g_autoMutex;
std::shared_ptr<AutoSession> g_auto;

void stopJobs()
{
    {
        std::lock_guard<std::mutex> lock(g_autoMutex);
        if (g_auto)
            g_auto->stop = true;
    }
    jobs().stopAll();
}

// ---------------------------------------------------------------------------------------------
// The face camera as sessions use it: frames in BGR.
class FaceCamera {
public:
    bool open(int number)
    {
        m_source = makeCameraSource(number);
        if (!m_source || !m_source->open(0, 0)) {
            logLine(QStringLiteral("face: camera %1 cannot be opened").arg(number));
            m_source.reset();
            return false;
        }
        return true;
    }
    ~FaceCamera()
    {
        if (m_source)
            m_source->close();
    }
    bool frame(cv::Mat& bgr)
    {
        RawFrame raw;
        if (!m_source || !m_source->grab(raw))
            return false;
        bgr = raw.jpeg ? decodeJpegBgr(*raw.jpeg) : raw.bgr;
        return !bgr.empty();
    }

private:
    std::unique_ptr<CameraSource> m_source;
};

cv::Mat toGrey(const cv::Mat& bgr)
{
    cv::Mat g;
    cv::cvtColor(bgr, g, cv::COLOR_BGR2GRAY);
    return g;
}

// ---------------------------------------------------------------------------------------------
// Liveness: a blink (the eye aspect ratio falls below 70 % of the open eyes' and comes back
// above 85 %) or a turn of the head (the nose moves by a quarter of the eye distance against
// the eyes from where it was at the start).
class LivenessTracker {
public:
    bool feed(const FaceShape& face)
    {
        if (face.marks.size() != 68)
            return false;
        const double ear = eyeAspectRatio(face.marks);
        if (m_open <= 0)
            m_open = ear;
        if (ear > m_open * 0.85)
            m_open = 0.8 * m_open + 0.2 * ear;   // follows the open eyes only
        m_lowest = std::min(m_lowest, ear / m_open);
        if (ear < m_open * 0.7)
            m_closed = true;
        else if (m_closed && ear > m_open * 0.85)
            return m_live = true;

        const cv::Point2f l = face.marks[39], r = face.marks[42], nose = face.marks[30];
        const double eyes = std::max(1.0, cv::norm(r - l));
        const double yaw = (nose.x - (l.x + r.x) / 2) / eyes;
        if (!m_yawSet) {
            m_yaw0 = yaw;
            m_yawSet = true;
        } else if (std::abs(yaw - m_yaw0) > 0.25) {
            m_lowest = std::min(m_lowest, 0.5);
            return m_live = true;
        }
        return false;
    }
    bool live() const { return m_live; }
    // How clearly it was seen: the depth of the blink, 0..100.
    int score() const { return std::clamp(static_cast<int>(std::lround(100 * (1 - m_lowest) * 1.6)), 0, 100); }

private:
    double m_open = 0;
    double m_lowest = 1;
    bool m_closed = false;
    bool m_live = false;
    double m_yaw0 = 0;
    bool m_yawSet = false;
};

// Camera 0 is the face camera; 1 to 9 are cameras by number; anything else is refused.
bool cameraNumber(const char* fn, int requested, int* camera)
{
    if (requested == 0) {
        *camera = kFaceCamera;
        return true;
    }
    if (requested < 1 || requested > 9) {
        logLine(QStringLiteral("%1: camera %2 is not 0 to 9").arg(QLatin1String(fn)).arg(requested));
        return false;
    }
    *camera = requested;
    return true;
}

bool duration(const char* fn, int seconds, std::chrono::milliseconds* out)
{
    if (seconds < 0 || seconds > 3600) {
        logLine(QStringLiteral("%1: %2 seconds is not 0 to 3600").arg(QLatin1String(fn)).arg(seconds));
        return false;
    }
    *out = std::chrono::seconds(seconds == 0 ? 10 : seconds);
    return true;
}

std::string base64(const std::string& bytes)
{
    return QByteArray(bytes.data(), static_cast<int>(bytes.size())).toBase64().toStdString();
}

std::string jpegBase64(const cv::Mat& img, int quality = 80)
{
    std::vector<unsigned char> jpeg;
    cv::imencode(".jpg", img, jpeg, {cv::IMWRITE_JPEG_QUALITY, quality});
    return QByteArray(reinterpret_cast<const char*>(jpeg.data()), static_cast<int>(jpeg.size())).toBase64().toStdString();
}

// Runs the liveness check on a camera until it decides, the time is up or stop is set. Each
// frame goes to onFrame with the face found in it (if any).
struct LivenessResult {
    bool cameraOk = false;
    bool live = false;
    int score = 0;
    cv::Mat face;   // the face seen last, in colour
};

LivenessResult runLiveness(int number, std::chrono::milliseconds limit, const std::atomic<bool>& stop,
                           const std::function<void(const cv::Mat&, const std::optional<FaceShape>&)>& onFrame = {},
                           bool untilStopped = false)
{
    LivenessResult r;
    FaceCamera cam;
    if (!cam.open(number))
        return r;
    r.cameraOk = true;
    FaceEngine& engine = FaceEngine::instance();
    LivenessTracker tracker;
    bool decided = false;
    const auto deadline = Clock::now() + limit;
    cv::Mat bgr;
    while (!stop && (untilStopped || Clock::now() < deadline)) {
        if (!cam.frame(bgr))
            break;
        std::optional<FaceShape> face;
        if (!decided) {
            face = engine.find(toGrey(bgr));
            if (face) {
                r.face = bgr(face->box & cv::Rect(0, 0, bgr.cols, bgr.rows)).clone();
                if (tracker.feed(*face))
                    decided = true;
            }
            if (!decided && Clock::now() >= deadline)
                decided = true;
            if (decided) {
                r.live = tracker.live();
                r.score = r.live ? tracker.score() : 0;
            }
        } else if (onFrame) {
            face = engine.find(toGrey(bgr));
        }
        if (onFrame)
            onFrame(bgr, face);
        if (decided && !untilStopped)
            break;
    }
    if (!decided) {
        r.live = tracker.live();
        r.score = r.live ? tracker.score() : 0;
    }
    return r;
}

}  // namespace

// ---------------------------------------------------------------------------------------------

int faceThreshold()
{
    return static_cast<int>(profileNumber(QStringLiteral("face.threshold"), 60));
}

int imageMatch(const char* a, const char* b)
{
    FaceEngine& e = FaceEngine::instance();
    cv::Mat ga, gb;
    const int la = FaceEngine::loadGrey(a, &ga);
    const int lb = FaceEngine::loadGrey(b, &gb);
    if (la == BadFile || lb == BadFile)
        return BadFile;
    if (la || lb)
        return TooLarge;
    std::string fa, fb;
    if (e.featureOf(ga, &fa) || e.featureOf(gb, &fb))
        return NoFace;
    return FaceEngine::compare(fa, fb);
}

int imageIdMatch(const char* photo, const char* idPortrait)
{
    FaceEngine& e = FaceEngine::instance();
    cv::Mat ga, gb;
    const int la = FaceEngine::loadGrey(photo, &ga);
    const int lb = FaceEngine::loadGrey(idPortrait, &gb);
    if (la == BadFile || lb == BadFile)
        return BadFile;
    if (la || lb)
        return TooLarge;
    // An ID portrait is about 102 x 126: too small for the cascade, and pale. Bring it to
    // about 400 pixels high and spread its grey levels first.
    if (gb.rows < 400) {
        const double s = 400.0 / gb.rows;
        cv::resize(gb, gb, cv::Size(), s, s, cv::INTER_CUBIC);
    }
    cv::equalizeHist(gb, gb);
    std::string fa, fb;
    if (e.featureOf(ga, &fa) || e.featureOf(gb, &fb))
        return NoFace;
    return FaceEngine::compare(fa, fb);
}

int faceMatch(const char* path)
{
    FaceEngine& e = FaceEngine::instance();
    cv::Mat g;
    const int l = FaceEngine::loadGrey(path, &g);
    if (l)
        return l;
    std::string fp;
    if (e.featureOf(g, &fp))
        return NoFace;
    FaceCamera cam;
    if (!cam.open(kFaceCamera))
        return NoCamera;
    // The newest frame with a face in it, within a second.
    const auto deadline = Clock::now() + std::chrono::seconds(1);
    cv::Mat bgr;
    bool any = false;
    while (Clock::now() < deadline) {
        if (!cam.frame(bgr))
            return any ? NoFace : NoCamera;
        any = true;
        std::string fc;
        if (e.featureOf(toGrey(bgr), &fc, nullptr, false) == 0)
            return FaceEngine::compare(fp, fc);
    }
    return NoFace;
}

long long featureMatch(const char* f1, const char* f2)
{
    if (!f1 || !f2)
        return -1;
    // Features have one size and no zero byte, so the terminating zero tells where each ends;
    // strnlen stops one past the size, never reading past a shorter buffer's zero.
    const size_t n1 = ::strnlen(f1, FaceEngine::kFeatureSize + 1);
    const size_t n2 = ::strnlen(f2, FaceEngine::kFeatureSize + 1);
    if (n1 != static_cast<size_t>(FaceEngine::kFeatureSize) || n2 != static_cast<size_t>(FaceEngine::kFeatureSize)) {
        logLine(QStringLiteral("lFaceFeatureMatch: features of %1 and %2 bytes, not %3")
                    .arg(n1).arg(n2).arg(FaceEngine::kFeatureSize));
        return -1;
    }
    const int s = FaceEngine::compare(std::string(f1, n1), std::string(f2, n2));
    if (s < 0)
        logLine(QStringLiteral("lFaceFeatureMatch: not a face feature"));
    return s;
}

std::string featureGet(bool fromCamera, const char* path, const char* cropPath)
{
    FaceEngine& e = FaceEngine::instance();
    std::string feature;
    cv::Mat aligned;
    if (fromCamera) {
        FaceCamera cam;
        if (!cam.open(kFaceCamera))
            return std::string();
        const auto deadline = Clock::now() + std::chrono::seconds(2);
        cv::Mat bgr;
        while (feature.empty() && Clock::now() < deadline && cam.frame(bgr))
            e.featureOf(toGrey(bgr), &feature, &aligned, false);
        if (feature.empty())
            logLine(QStringLiteral("bFaceFeatureGet: no face on camera %1").arg(kFaceCamera));
    } else {
        cv::Mat g;
        if (FaceEngine::loadGrey(path, &g) || e.featureOf(g, &feature, &aligned)) {
            logLine(QStringLiteral("bFaceFeatureGet: no face in %1").arg(QString::fromUtf8(path ? path : "")));
            return std::string();
        }
    }
    if (feature.empty())
        return std::string();
    if (cropPath && *cropPath && !cv::imwrite(cropPath, aligned))
        logLine(QStringLiteral("bFaceFeatureGet: the face cannot be written to %1").arg(QString::fromUtf8(cropPath)));
    return base64(feature);
}

bool imageMatchOnline(const char* photo, int seconds, int threshold, int camera, FaceResultFn fn)
{
    int number = 0;
    std::chrono::milliseconds limit{};
    if (!fn || !cameraNumber("bImageMatchOnline", camera, &number) || !duration("bImageMatchOnline", seconds, &limit))
        return false;
    cv::Mat g;
    std::string fp;
    if (FaceEngine::loadGrey(photo, &g) || FaceEngine::instance().featureOf(g, &fp)) {
        logLine(QStringLiteral("bImageMatchOnline: no face in %1").arg(QString::fromUtf8(photo ? photo : "")));
        return false;
    }
    jobs().start([=](const std::atomic<bool>& stop) {
        FaceCamera cam;
        if (!cam.open(number)) {
            traceCallback("bImageMatchOnline", {int(NoCamera), PtrArg{nullptr}});
            fn(NoCamera, nullptr);
            return;
        }
        int best = 0;
        const auto deadline = Clock::now() + limit;
        cv::Mat bgr;
        while (!stop && Clock::now() < deadline && best < threshold && cam.frame(bgr)) {
            std::string fc;
            if (FaceEngine::instance().featureOf(toGrey(bgr), &fc, nullptr, false) == 0)
                best = std::max(best, FaceEngine::compare(fp, fc));
        }
        traceCallback("bImageMatchOnline", {best, PtrArg{nullptr}});
        fn(best, nullptr);
    });
    return true;
}

bool featureGetOnline(int seconds, int camera, FaceFeatureFn fn)
{
    int number = 0;
    std::chrono::milliseconds limit{};
    if (!fn || !cameraNumber("bFaceFeatureGetOnline", camera, &number) || !duration("bFaceFeatureGetOnline", seconds, &limit))
        return false;
    jobs().start([=](const std::atomic<bool>& stop) {
        std::string feature;
        FaceCamera cam;
        if (cam.open(number)) {
            const auto deadline = Clock::now() + limit;
            cv::Mat bgr;
            while (!stop && feature.empty() && Clock::now() < deadline && cam.frame(bgr))
                FaceEngine::instance().featureOf(toGrey(bgr), &feature, nullptr, false);
        }
        const std::string text = feature.empty() ? std::string() : base64(feature);
        traceCallback("bFaceFeatureGetOnline", {text.c_str(), PtrArg{nullptr}});
        fn(text.c_str(), nullptr);
    });
    return true;
}

bool livingBodyOnline(int seconds, int camera, FaceResultFn fn)
{
    int number = 0;
    std::chrono::milliseconds limit{};
    if (!fn || !cameraNumber("bLivingBodyDetectOnline", camera, &number) || !duration("bLivingBodyDetectOnline", seconds, &limit))
        return false;
    jobs().start([=](const std::atomic<bool>& stop) {
        const int live = runLiveness(number, limit, stop).live ? 1 : 0;
        traceCallback("bLivingBodyDetectOnline", {live, PtrArg{nullptr}});
        fn(live, nullptr);
    });
    return true;
}

bool livingBodyDetect()
{
    std::atomic<bool> never{false};
    return runLiveness(kFaceCamera, std::chrono::seconds(10), never).live;
}

bool autoLivingBody(LivingBodyDataFn fn)
{
    if (!fn)
        return false;
    auto session = std::make_shared<AutoSession>();
    {
        std::lock_guard<std::mutex> lock(g_autoMutex);
        if (g_auto)
            g_auto->stop = true;   // one session at a time: the newest page's
        g_auto = session;
    }
    const int previewWidth = static_cast<int>(profileNumber(QStringLiteral("camera.previewWidth"), 1280));
    jobs().start([=](const std::atomic<bool>& jobStop) {
        std::atomic<bool> either{false};
        bool reported = false;
        auto onFrame = [&](const cv::Mat& bgr, const std::optional<FaceShape>& face) {
            if (session->stop || jobStop)
                either = true;
            if (either)
                return;
            cv::Mat shown = bgr.clone();
            if (face)
                cv::rectangle(shown, face->box, cv::Scalar(0, 200, 0), 2);
            if (previewWidth > 0 && shown.cols > previewWidth)
                cv::resize(shown, shown, cv::Size(previewWidth, shown.rows * previewWidth / shown.cols), 0, 0, cv::INTER_AREA);
            const std::string frame = jpegBase64(shown, 70);
            traceCallback("AutoLivingBody", {"<frame>", 0});
            fn(frame.data(), static_cast<int>(frame.size()), 0);
        };
        // The result once, at the first blink or after 10 s; the stream goes on until closed.
        auto deliver = [&](const LivenessResult& r) {
            if (reported)
                return;
            reported = true;
            const std::string face = r.face.empty() ? std::string() : jpegBase64(r.face);
            const std::string json = std::string("{\"live\":") + (r.live ? "true" : "false") + ",\"score\":"
                + std::to_string(r.score) + ",\"face\":\"" + face + "\"}";
            traceCallback("AutoLivingBody", {json.size() > 200 ? "<result>" : json.c_str(), 1});
            fn(json.data(), static_cast<int>(json.size()), 1);
        };
        // First until decided, then streaming until stopped.
        const LivenessResult r = runLiveness(kFaceCamera, std::chrono::seconds(10), either, onFrame);
        if (r.cameraOk && !either)
            deliver(r);
        if (r.cameraOk && !either)
            runLiveness(kFaceCamera, std::chrono::seconds(0), either, onFrame, true);
        session->ended = true;
    });
    return true;
}

void closeLivingBody(LivingBodyDoneFn fn)
{
    std::shared_ptr<AutoSession> session;
    {
        std::lock_guard<std::mutex> lock(g_autoMutex);
        session.swap(g_auto);
    }
    if (session)
        session->stop = true;
    // The done callback comes from the library's thread, once, whether a session ran or not,
    // after the session's last frame.
    jobs().start([fn, session](const std::atomic<bool>& stop) {
        while (session && !session->ended && !stop)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        traceCallback("CloseLivingBody", {});
        if (fn)
            fn();
    });
}

void demoUIShow(int seconds, DemoUIResultFn fn)
{
    std::chrono::milliseconds limit = std::chrono::seconds(seconds <= 0 ? 30 : std::min(seconds, 3600));
    auto window = LivenessWindow::open();   // null without a GUI: the check runs without a window
    jobs().start([=](const std::atomic<bool>& stop) {
        std::atomic<bool> closed{false};
        auto onFrame = [&](const cv::Mat& bgr, const std::optional<FaceShape>& face) {
            if (window) {
                window->show(bgr, face ? face->box : cv::Rect());
                if (window->closedByCustomer())
                    closed = true;
            }
            if (stop)
                closed = true;
        };
        const LivenessResult r = runLiveness(kFaceCamera, limit, closed, onFrame);
        const bool byCustomer = window && window->closedByCustomer();
        if (window)
            window->finish(r.live);
        const int result = byCustomer ? 2 : r.live ? 1 : 0;
        traceCallback("DemoUIShow", {result});
        if (fn)
            fn(result);
    });
}

}  // namespace portable
