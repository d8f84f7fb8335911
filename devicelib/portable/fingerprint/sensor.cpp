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

#include <QBuffer>
#include <QByteArray>
#include <QCoreApplication>
#include <QImage>
#include <QJsonArray>

#include <atomic>
#include <chrono>
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

// libfprint's asynchronous calls, run to their end on GLib's default main context: libfprint
// waits for its devices there (a context of our own would never see them). The program's
// event loop may iterate the same context, so the flag is atomic.
struct Wait {
    std::atomic<bool> done{false};
    GObject* source = nullptr;
    GAsyncResult* result = nullptr;
};

void finished(GObject* source, GAsyncResult* res, gpointer data)
{
    auto* w = static_cast<Wait*>(data);
    w->done = true;
    w->source = source;
    w->result = G_ASYNC_RESULT(g_object_ref(res));
}

void runUntil(GMainContext* ctx, Wait& w, GCancellable* cancel, Clock::time_point deadline, const std::atomic<bool>& stop)
{
    while (!w.done) {
        if ((stop || Clock::now() >= deadline) && !g_cancellable_is_cancelled(cancel))
            g_cancellable_cancel(cancel);
        if (!g_main_context_iteration(ctx, FALSE))
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

// A capture from the first libfprint device; score -2 when there is none.
Capture withLibfprint(int timeoutMs, const std::atomic<bool>& stop)
{
    Capture c{-2, {}, {}, "no fingerprint sensor"};
    GMainContext* ctx = g_main_context_default();
    // libfprint's own waits block in that context; when the event loop dispatches what they
    // wait for, only a later event wakes them. A tick makes sure one comes.
    const guint tick = g_timeout_add(50, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
    FpContext* fp = fp_context_new();
    GPtrArray* devices = fp_context_get_devices(fp);
    GCancellable* cancel = g_cancellable_new();
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    if (devices && devices->len > 0) {
        FpDevice* dev = FP_DEVICE(g_ptr_array_index(devices, 0));
        GError* err = nullptr;
        if (!fp_device_open_sync(dev, cancel, &err)) {
            c = {-2, {}, {}, QByteArray("the sensor cannot be opened: ") + (err ? err->message : "")};
        } else if (!fp_device_has_feature(dev, FP_DEVICE_FEATURE_CAPTURE)) {
            c = {-2, {}, {}, "the sensor gives no image (it matches on the chip)"};
        } else {
            Wait w;
            fp_device_capture(dev, TRUE, cancel, finished, &w);
            runUntil(ctx, w, cancel, deadline, stop);
            FpImage* image = fp_device_capture_finish(dev, w.result, &err);
            g_object_unref(w.result);
            if (!image) {
                const bool timedOut = g_cancellable_is_cancelled(cancel);
                c = {timedOut ? -1 : -3, {}, {}, QByteArray(timedOut ? "time-out: " : "bad capture: ") + (err ? err->message : "")};
            } else {
                Wait m;
                g_cancellable_reset(cancel);
                fp_image_detect_minutiae(image, cancel, finished, &m);
                runUntil(ctx, m, cancel, Clock::now() + std::chrono::seconds(10), stop);
                g_clear_error(&err);
                std::vector<cv::Point2f> points;
                if (fp_image_detect_minutiae_finish(image, m.result, &err)) {
                    GPtrArray* found = fp_image_get_minutiae(image);
                    for (guint i = 0; found && i < found->len; ++i) {
                        gint x = 0, y = 0;
                        fp_minutia_get_coords(static_cast<FpMinutia*>(g_ptr_array_index(found, i)), &x, &y);
                        points.emplace_back(static_cast<float>(x), static_cast<float>(y));
                    }
                }
                g_object_unref(m.result);
                gsize len = 0;
                const guchar* data = fp_image_get_data(image, &len);
                const int w2 = static_cast<int>(fp_image_get_width(image)), h2 = static_cast<int>(fp_image_get_height(image));
                if (data && len >= static_cast<gsize>(w2) * h2 && w2 > 0 && h2 > 0) {
                    const cv::Mat grey = cv::Mat(h2, w2, CV_8U, const_cast<guchar*>(data)).clone();
                    if (points.size() > static_cast<size_t>(kMaxMinutiae))
                        points.resize(kMaxMinutiae);
                    c = fromImage(grey, withAngles(grey, points), "libfprint");
                } else {
                    c = {-3, {}, {}, "bad capture: no image data"};
                }
                g_object_unref(image);
            }
            g_clear_error(&err);
            fp_device_close_sync(dev, nullptr, nullptr);
        }
        g_clear_error(&err);
    }
    g_object_unref(cancel);
    g_object_unref(fp);
    g_source_remove(tick);
    return c;
}

// The capture threads, stopped and joined when the profile is replaced or the program ends.
class Captures {
public:
    void start(std::function<void(const std::atomic<bool>&)> body)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto it = m_jobs.begin(); it != m_jobs.end();) {
            if ((*it)->done) {
                (*it)->thread.join();
                it = m_jobs.erase(it);
            } else {
                ++it;
            }
        }
        auto job = std::make_unique<Job>();
        Job* j = job.get();
        j->thread = std::thread([j, body = std::move(body)] {
            body(j->stop);
            j->done = true;
        });
        m_jobs.push_back(std::move(job));
    }
    void stopAll()
    {
        std::list<std::unique_ptr<Job>> jobs;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            jobs.swap(m_jobs);
        }
        for (auto& j : jobs)
            j->stop = true;
        for (auto& j : jobs)
            j->thread.join();
    }

private:
    struct Job {
        std::thread thread;
        std::atomic<bool> stop{false};
        std::atomic<bool> done{false};
    };
    std::mutex m_mutex;
    std::list<std::unique_ptr<Job>> m_jobs;
};

Captures& captures()
{
    static Captures* const c = [] {
        auto* created = new Captures;
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
