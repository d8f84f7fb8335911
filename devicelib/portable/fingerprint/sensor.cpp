// The fingerprint sensor: a libfprint 2 device when one is attached (the image from
// fp_device_capture, minutiae positions from fp_image_detect_minutiae, their angles from the
// image), otherwise a simulated sensor whose finger (profile "fingerprint.finger", a seed; 0
// means no finger ever lands) is placed 500 ms after the call, turned, moved and noisy as a
// real placement is. Each capture runs on a thread of the module.
// libfprint first: GLib names a member "signals", which Qt defines as a keyword.
#include <fprint.h>

#include "devicelib/biometrics.h"
#include "devicelib/portable/core.h"
#include "devicelib/portable/fingerprint/fingerprint.h"
#include "devicelib/portable/jobs.h"

#include <QAbstractEventDispatcher>
#include <QBuffer>
#include <QByteArray>
#include <QCoreApplication>
#include <QImage>
#include <QJsonArray>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

namespace portable {

namespace {

using Clock = std::chrono::steady_clock;

struct Capture {
    int score = 0;
    QByteArray image;     // base64 PNG
    QByteArray feature;   // hex template
    QByteArray msg;
};

QByteArray pngBase64(const cv::Mat& grey)
{
    const QImage img(grey.data, grey.cols, grey.rows, static_cast<int>(grey.step), QImage::Format_Grayscale8);
    QByteArray png;
    QBuffer buf(&png);
    buf.open(QIODevice::WriteOnly);
    img.save(&buf, "PNG");
    return png.toBase64();
}

Capture fromImage(const cv::Mat& grey, std::vector<Minutia> minutiae, const char* source)
{
    Capture c;
    if (minutiae.size() < 8) {
        c.score = -3;
        c.msg = QByteArray("bad capture: ") + QByteArray::number(int(minutiae.size())) + " minutiae";
        return c;
    }
    c.score = fingerQuality(grey);
    c.image = pngBase64(grey);
    c.feature = QByteArray::fromStdString(encodeTemplate(minutiae)).toHex();
    c.msg = QByteArray("captured by ") + source;
    return c;
}

Capture simulated(int timeoutMs, const std::atomic<bool>& stop)
{
    const int finger = static_cast<int>(profileNumber(QStringLiteral("fingerprint.finger"), 1));
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    const auto lands = Clock::now() + std::chrono::milliseconds(500);
    while (!stop && Clock::now() < (finger > 0 ? std::min(lands, deadline) : deadline))
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (stop || finger <= 0 || Clock::now() >= deadline)
        return {-1, {}, {}, "time-out: no finger on the sensor"};
    static std::atomic<unsigned> placement{1};
    std::mt19937 rng(placement++);
    std::uniform_real_distribution<double> u(-1, 1);
    const cv::Mat img = renderFinger(static_cast<std::uint32_t>(finger), 8 * u(rng),
                                     cv::Point2f(static_cast<float>(10 * u(rng)), static_cast<float>(10 * u(rng))), 12, rng());
    return fromImage(img, extractMinutiae(img), "the simulated sensor");
}

// One libfprint capture, driven by GLib callbacks on whichever thread runs GLib's default main
// context: the program's event loop when it runs on GLib (Qt's usual loop), else the capture
// thread itself. libfprint waits for its devices in that context, so two threads must not take
// turns at it. The capture thread waits for the outcome and cancels on time-out.
struct FpJob {
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    GCancellable* cancel = g_cancellable_new();
    FpContext* context = nullptr;
    FpDevice* device = nullptr;
    Capture failure{-2, {}, {}, "no fingerprint sensor"};
    cv::Mat grey;
    std::vector<cv::Point2f> points;

    ~FpJob()
    {
        g_object_unref(cancel);
        if (context)
            g_object_unref(context);
    }
    void fail(int score, const QByteArray& msg, GError* err = nullptr)
    {
        failure = {score, {}, {}, err ? msg + ": " + QByteArray(err->message) : msg};
        g_clear_error(&err);
    }
};

void fpEnd(FpJob* job)
{
    std::lock_guard<std::mutex> lock(job->mutex);
    job->done = true;
    job->finished.notify_all();
}

void fpClosed(GObject* device, GAsyncResult* res, gpointer data)
{
    fp_device_close_finish(FP_DEVICE(device), res, nullptr);
    fpEnd(static_cast<FpJob*>(data));
}

void fpClose(FpJob* job)
{
    fp_device_close(job->device, nullptr, fpClosed, job);
}

void fpDetected(GObject* source, GAsyncResult* res, gpointer data)
{
    auto* job = static_cast<FpJob*>(data);
    FpImage* image = FP_IMAGE(source);
    GError* err = nullptr;
    if (fp_image_detect_minutiae_finish(image, res, &err)) {
        GPtrArray* found = fp_image_get_minutiae(image);
        for (guint i = 0; found && i < found->len && job->points.size() < static_cast<size_t>(kMaxMinutiae); ++i) {
            gint x = 0, y = 0;
            fp_minutia_get_coords(static_cast<FpMinutia*>(g_ptr_array_index(found, i)), &x, &y);
            job->points.emplace_back(static_cast<float>(x), static_cast<float>(y));
        }
        gsize len = 0;
        const guchar* pixels = fp_image_get_data(image, &len);
        const int w = static_cast<int>(fp_image_get_width(image)), h = static_cast<int>(fp_image_get_height(image));
        if (pixels && w > 0 && h > 0 && len >= static_cast<gsize>(w) * h)
            job->grey = cv::Mat(h, w, CV_8U, const_cast<guchar*>(pixels)).clone();
        else
            job->fail(-3, "bad capture: no image data");
    } else {
        job->fail(-3, "bad capture: no minutiae", err);
    }
    g_object_unref(image);
    fpClose(job);
}

void fpCaptured(GObject* device, GAsyncResult* res, gpointer data)
{
    auto* job = static_cast<FpJob*>(data);
    GError* err = nullptr;
    FpImage* image = fp_device_capture_finish(FP_DEVICE(device), res, &err);
    if (!image) {
        const bool timedOut = g_cancellable_is_cancelled(job->cancel);
        job->fail(timedOut ? -1 : -3, timedOut ? "time-out" : "bad capture", err);
        fpClose(job);
        return;
    }
    fp_image_detect_minutiae(image, nullptr, fpDetected, job);
}

void fpOpened(GObject* device, GAsyncResult* res, gpointer data)
{
    auto* job = static_cast<FpJob*>(data);
    GError* err = nullptr;
    if (!fp_device_open_finish(FP_DEVICE(device), res, &err)) {
        job->fail(-2, "the sensor cannot be opened", err);
        fpEnd(job);
    } else if (!fp_device_has_feature(job->device, FP_DEVICE_FEATURE_CAPTURE)) {
        job->fail(-2, "the sensor gives no image (it matches on the chip)");
        fpClose(job);
    } else {
        fp_device_capture(job->device, TRUE, job->cancel, fpCaptured, job);
    }
}

void fpStart(FpJob* job)
{
    job->context = fp_context_new();
    GPtrArray* devices = fp_context_get_devices(job->context);
    if (!devices || devices->len == 0) {
        fpEnd(job);
        return;
    }
    job->device = FP_DEVICE(g_ptr_array_index(devices, 0));
    fp_device_open(job->device, job->cancel, fpOpened, job);
}

bool eventLoopRunsGlib()
{
    QCoreApplication* app = QCoreApplication::instance();
    QAbstractEventDispatcher* d = app ? QAbstractEventDispatcher::instance(app->thread()) : nullptr;
    return d && d->inherits("QEventDispatcherGlib");
}

// A capture from the first libfprint device; score -2 when there is none.
Capture withLibfprint(int timeoutMs, const std::atomic<bool>& stop)
{
    auto job = std::make_shared<FpJob>();
    const bool onEventLoop = eventLoopRunsGlib();
    if (onEventLoop)
        QMetaObject::invokeMethod(QCoreApplication::instance(), [job] { fpStart(job.get()); }, Qt::QueuedConnection);
    else
        fpStart(job.get());
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if ((stop || Clock::now() >= deadline) && !g_cancellable_is_cancelled(job->cancel))
            g_cancellable_cancel(job->cancel);
        if (!onEventLoop)
            while (g_main_context_iteration(nullptr, FALSE)) {
            }
        std::unique_lock<std::mutex> lock(job->mutex);
        if (job->finished.wait_for(lock, std::chrono::milliseconds(10), [&] { return job->done; }))
            break;
        // A sensor that ignores the cancel: give up a few seconds later. Its callbacks may
        // still come, so the job is kept for them.
        if (Clock::now() > deadline + std::chrono::seconds(5)) {
            static std::mutex keptMutex;
            static std::vector<std::shared_ptr<FpJob>> kept;
            std::lock_guard<std::mutex> keep(keptMutex);
            kept.push_back(job);
            return {-1, {}, {}, "time-out: the sensor does not answer"};
        }
    }
    const Capture failure = job->failure;
    const cv::Mat grey = job->grey;
    const std::vector<cv::Point2f> points = job->points;
    // libfprint's objects go where they were made.
    if (onEventLoop)
        QMetaObject::invokeMethod(QCoreApplication::instance(), [job] {}, Qt::QueuedConnection);
    job.reset();
    if (grey.empty())
        return failure;
    return fromImage(grey, withAngles(grey, points), "libfprint");
}

// The capture threads, stopped and joined when the profile is replaced or the program ends.
Jobs& captures()
{
    static Jobs* const c = [] {
        auto* created = new Jobs;
        addResetHook([created] { created->stopAll(); });
        qAddPostRoutine([] { captures().stopAll(); });
        return created;
    }();
    return *c;
}

}  // namespace

void captureFinger(int timeoutMs, FingerCaptureFn fn, void* context)
{
    const int ms = timeoutMs == 0 ? 10000 : timeoutMs;
    const QString sensor = profileText(QStringLiteral("fingerprint.sensor"), QStringLiteral("auto"));
    captures().start([=](const std::atomic<bool>& stop) {
        Capture c;
        if (ms < 0) {
            c = {-1, {}, {}, "time-out: a negative time"};
        } else if (sensor == QLatin1String("none")) {
            c = {-2, {}, {}, "no fingerprint sensor"};
        } else if (sensor == QLatin1String("simulated")) {
            c = simulated(ms, stop);
        } else {
            c = withLibfprint(ms, stop);
            if (c.score == -2 && sensor != QLatin1String("libfprint") && c.msg == "no fingerprint sensor")
                c = simulated(ms, stop);
        }
        traceCallback("fingerCaptureRawData", {c.image.size() > 64 ? "<png>" : c.image.constData(), c.feature.constData(),
                                               c.score, c.msg.constData(), PtrArg{context}});
        if (fn)
            fn(c.image, c.feature, c.score, c.msg.constData(), context);
    });
}

int fingerMatch(int mode, const char* probe, int count, const char* stored)
{
    if (mode != 0 && mode != 1) {
        logLine(QStringLiteral("lFingerMatch: mode %1 is not 0 or 1").arg(mode));
        return -1;
    }
    if (count <= 0 || count > 100000 || !probe || !stored) {
        logLine(QStringLiteral("lFingerMatch: %1 stored templates is not 1 to 100000").arg(count));
        return -1;
    }
    const size_t np = ::strnlen(probe, kTemplateSize + 1);
    const size_t want = static_cast<size_t>(count) * kTemplateSize;
    const size_t ns = ::strnlen(stored, want + 1);
    std::vector<Minutia> p;
    if (np != static_cast<size_t>(kTemplateSize) || ns != want || !decodeTemplate(probe, &p)) {
        logLine(QStringLiteral("lFingerMatch: a probe of %1 bytes and %2 stored bytes do not make templates of %3 bytes "
                               "(%4 stored)").arg(np).arg(ns).arg(kTemplateSize).arg(count));
        return -1;
    }
    const int threshold = static_cast<int>(profileNumber(QStringLiteral("fingerprint.threshold"), 40));
    int bestIndex = 0, bestScore = 0;
    for (int i = 0; i < count; ++i) {
        std::vector<Minutia> s;
        if (!decodeTemplate(stored + static_cast<size_t>(i) * kTemplateSize, &s)) {
            logLine(QStringLiteral("lFingerMatch: stored template %1 is not a template").arg(i + 1));
            continue;
        }
        const int score = matchMinutiae(p, s);
        if (score > bestScore) {
            bestScore = score;
            bestIndex = i + 1;
        }
    }
    if (mode == 1)
        return bestScore;
    return bestScore >= threshold ? bestIndex : 0;
}

}  // namespace portable

using namespace portable;

extern "C" void fingerCaptureRawData(int timeoutMs, FingerCaptureFn fn, void* context)
{
    const CallbackArg cb{reinterpret_cast<const void*>(fn), [fn, context](const QJsonArray& a) {
                             fn(a.at(0).toString().toUtf8(), a.at(1).toString().toUtf8(), a.at(2).toInt(),
                                a.at(3).toString().toUtf8().constData(), context);
                         }};
    traced<void>("fingerCaptureRawData", {timeoutMs, cb, PtrArg{context}}, [&] { captureFinger(timeoutMs, fn, context); });
}

extern "C" int lFingerMatch(int mode, const char* probe, int count, const char* stored)
{
    const BytesArg p{probe, probe ? ::strnlen(probe, kTemplateSize + 1) : 0};
    const BytesArg s{stored, stored ? std::strlen(stored) : 0};
    return traced<int>("lFingerMatch", {mode, p, count, s}, [&] { return fingerMatch(mode, probe, count, stored); });
}
