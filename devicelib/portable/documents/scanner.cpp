// Scanning on the open camera: automatic (a shot each time a new page is laid down and held
// still), timed (a shot every few seconds) and book (a two-page spread split at its spine).
// The scans stop when the camera stops.
#include "devicelib/portable/camera/camera.h"
#include "devicelib/portable/camera/camerastills.h"
#include "devicelib/portable/core.h"
#include "devicelib/portable/documents/documents.h"

#include <QDir>
#include <QFileInfo>
#include <QMetaMethod>
#include <QMetaObject>
#include <QObject>

#include <opencv2/imgproc.hpp>

#include <chrono>

#ifdef __linux__
#include <pthread.h>
#endif

namespace portable {

namespace {

using Clock = std::chrono::steady_clock;

// Share of the pixels of two watch pictures that differ beyond the tuning's grey-level step.
double differing(const cv::Mat& a, const cv::Mat& b, int delta)
{
    if (a.size() != b.size())
        return 1.0;
    cv::Mat d;
    cv::absdiff(a, b, d);
    return static_cast<double>(cv::countNonZero(d > delta)) / static_cast<double>(d.total());
}

bool scanFolder(const char* fn, const char* folder, QString* out)
{
    const QString dir = folder ? QString::fromUtf8(folder) : QString();
    const QFileInfo fi(dir);
    if (dir.isEmpty() || !fi.isDir() || !fi.isWritable()) {
        logLine(QStringLiteral("%1: the folder \"%2\" does not exist or cannot be written").arg(QLatin1String(fn), dir));
        return false;
    }
    *out = dir;
    return true;
}

void nameThread(std::thread& t, const char* name)
{
#ifdef __linux__
    pthread_setname_np(t.native_handle(), name);
#else
    Q_UNUSED(t);
    Q_UNUSED(name);
#endif
}

}  // namespace

bool saveShot(const char* fn, const QString& folder, const QString& file)
{
    StillFormat format;
    const cv::Mat img = camera().stillFrame(fn, &format);
    return !img.empty() && writeJpegFile(QDir(folder).filePath(file), img, format);
}

Scanner::Scanner() = default;

Scanner::~Scanner()
{
    stopAll();
}

void Scanner::stopJob(std::unique_ptr<Job>& job)
{
    if (!job)
        return;
    {
        std::lock_guard<std::mutex> lock(job->mutex);
        job->stop = true;
    }
    job->wake.notify_all();
    if (job->thread.joinable())
        job->thread.join();
    job.reset();
}

void Scanner::stopAll()
{
    std::unique_ptr<Job> a, t;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        a = std::move(m_auto);
        t = std::move(m_timer);
    }
    stopJob(a);   // joined outside the lock: a shot in progress may report first
    stopJob(t);
}

void Scanner::setObserver(QObject* observer, const char* slot)
{
    // "1slot_iAutoshot(int)": Qt's slot code, then the signature; invoked by its name.
    QByteArray method = slot ? QByteArray(slot) : QByteArray();
    if (!method.isEmpty() && method.at(0) >= '0' && method.at(0) <= '9')
        method.remove(0, 1);
    const int paren = method.indexOf('(');
    if (paren >= 0)
        method.truncate(paren);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_observer = observer;
    m_method = method;
}

void Scanner::report(int n)
{
    QPointer<QObject> observer;
    QByteArray method;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        observer = m_observer;
        method = m_method;
    }
    if (!observer)
        return;
    const QByteArray signature = method + "(int)";
    if (observer->metaObject()->indexOfMethod(signature.constData()) < 0) {
        logLine(QStringLiteral("iAutoScan: the observer (%1) has no slot %2; shot %3 not reported")
                    .arg(QLatin1String(observer->metaObject()->className()), QLatin1String(signature))
                    .arg(n));
        return;
    }
    // Queued: the slot runs on the observer's own thread, never on the scan's.
    QMetaObject::invokeMethod(observer.data(), method.constData(), Qt::QueuedConnection, Q_ARG(int, n));
}

int Scanner::startOrStop(const char* fn, int mode, std::unique_ptr<Job>& running, const char* folder, QString* dir)
{
    if (mode == 0) {
        std::unique_ptr<Job> job;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            job = std::move(running);
        }
        stopJob(job);
        return 1;
    }
    if (mode != 1) {
        logLine(QStringLiteral("%1: mode %2 is not 1 (start) or 0 (stop)").arg(QLatin1String(fn)).arg(mode));
        return 0;
    }
    if (!scanFolder(fn, folder, dir))
        return 0;
    if (!camera().previewOpen()) {
        logLine(QStringLiteral("%1: no camera is open").arg(QLatin1String(fn)));
        return 0;
    }
    return -1;
}

int Scanner::autoScan(int mode, const char* folder, const char* prefix)
{
    const char* fn = "iAutoScan";
    QString dir;
    const int early = startOrStop(fn, mode, m_auto, folder, &dir);
    if (early >= 0)
        return early;
    const QString pre = prefix ? QString::fromUtf8(prefix) : QString();
    auto job = std::make_unique<Job>();
    Job* raw = job.get();
    std::unique_ptr<Job> former;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        former = std::move(m_auto);
    }
    stopJob(former);   // a new start counts from 1 again
    job->thread = std::thread([this, raw, dir, pre] { autoLoop(raw, dir, pre); });
    nameThread(job->thread, "autoscan");
    std::lock_guard<std::mutex> lock(m_mutex);
    m_auto = std::move(job);
    return 1;
}

// Watches small grey copies of the live frames. The scene at start is the baseline. Over a
// quarter of the picture differing from the baseline means a page is being changed; once the
// picture then holds still (under a tenth differing from where it settled) for a second, and
// it differs from the baseline by a tenth or more, it is a new page: shot, reported, and the
// new baseline. Lifting a page and laying it back changes nothing; a small moving thing (a
// hand at the edge, the synthetic camera's marker) stays under a tenth and never counts.
void Scanner::autoLoop(Job* job, QString folder, QString prefix)
{
    const AutoScanTuning t;
    cv::Mat baseline, anchor;
    Clock::time_point anchorTime;
    bool disturbed = false;
    int k = 0;
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(job->mutex);
            if (job->wake.wait_for(lock, std::chrono::milliseconds(t.tickMs), [&] { return job->stop; }))
                return;
        }
        cv::Mat grey;
        unsigned long long seq = 0;
        if (!camera().watchFrame(t.width, grey, &seq))
            continue;
        cv::GaussianBlur(grey, grey, cv::Size(5, 5), 0);
        const auto now = Clock::now();
        if (baseline.empty()) {
            baseline = anchor = grey;
            anchorTime = now;
            continue;
        }
        if (differing(grey, baseline, t.pixelDelta) > t.changed)
            disturbed = true;
        if (differing(grey, anchor, t.pixelDelta) >= t.small) {
            anchor = grey;   // still moving
            anchorTime = now;
            continue;
        }
        if (!disturbed || now - anchorTime < std::chrono::milliseconds(t.stillMs))
            continue;
        disturbed = false;
        if (differing(grey, baseline, t.pixelDelta) < t.small)
            continue;   // the same page again
        baseline = grey;
        const QString file = prefix + QString::number(k + 1) + QStringLiteral(".jpg");
        if (saveShot("iAutoScan", folder, file))
            report(++k);
        else
            report(-1);
    }
}

int Scanner::timerScan(int mode, const char* folder, const char* prefix, int seconds)
{
    const char* fn = "iTimerScan";
    QString dir;
    const int early = startOrStop(fn, mode, m_timer, folder, &dir);
    if (early >= 0)
        return early;
    if (seconds < 1)
        logLine(QStringLiteral("%1: an interval of %2 s is taken as 1 s").arg(QLatin1String(fn)).arg(seconds));
    const QString pre = prefix ? QString::fromUtf8(prefix) : QString();
    const int interval = std::max(1, seconds);
    std::unique_ptr<Job> former;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        former = std::move(m_timer);
    }
    stopJob(former);
    auto job = std::make_unique<Job>();
    Job* raw = job.get();
    job->thread = std::thread([this, raw, dir, pre, interval] { timerLoop(raw, dir, pre, interval); });
    nameThread(job->thread, "timerscan");
    std::lock_guard<std::mutex> lock(m_mutex);
    m_timer = std::move(job);
    return 1;
}

void Scanner::timerLoop(Job* job, QString folder, QString prefix, int seconds)
{
    int k = 0;
    auto next = Clock::now();
    for (;;) {
        next += std::chrono::seconds(seconds);
        {
            std::unique_lock<std::mutex> lock(job->mutex);
            if (job->wake.wait_until(lock, next, [&] { return job->stop; }))
                return;
        }
        if (saveShot("iTimerScan", folder, prefix + QString::number(k + 1) + QStringLiteral(".jpg")))
            ++k;
    }
}

bool Scanner::bookScan(const char* folder, const char* name, const char* name2)
{
    const char* fn = "bBookScanner";
    QString dir;
    if (!scanFolder(fn, folder, &dir))
        return false;
    const QString left = name ? QString::fromUtf8(name) : QString();
    QString right = name2 ? QString::fromUtf8(name2) : QString();
    if (left.isEmpty()) {
        logLine(QStringLiteral("%1: no file name given").arg(QLatin1String(fn)));
        return false;
    }
    QString leftFile = left + QStringLiteral(".jpg");
    QString rightFile = right + QStringLiteral(".jpg");
    if (right.isEmpty()) {
        leftFile = left + QStringLiteral("_1.jpg");
        rightFile = left + QStringLiteral("_2.jpg");
    }
    StillFormat format;
    const cv::Mat spread = camera().stillFrame(fn, &format);
    if (spread.empty())
        return false;
    if (spread.cols < 2) {
        logLine(QStringLiteral("%1: the picture is too narrow to split").arg(QLatin1String(fn)));
        return false;
    }
    const int spine = std::clamp(findSpine(spread), 1, spread.cols - 1);
    return writeJpegFile(QDir(dir).filePath(leftFile), spread(cv::Rect(0, 0, spine, spread.rows)), format)
        && writeJpegFile(QDir(dir).filePath(rightFile), spread(cv::Rect(spine, 0, spread.cols - spine, spread.rows)), format);
}

Documents::Documents()
{
    // The camera first: made before this, so destroyed after it.
    camera().addStopHook([this] { scanner.stopAll(); });
    addResetHook([this] {
        scanner.stopAll();
        scanner.setObserver(nullptr, nullptr);
        pdf.discard();
        ofd.discard();
        merge.discard();
    });
}

Documents& documents()
{
    static Documents d;
    return d;
}

}  // namespace portable
