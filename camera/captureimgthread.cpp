#include "camera/captureimgthread.h"
#include "camera/previewframe.h"
#include "dispatch/threadowner.h"

#include "devicelib/doccamera.h"

#include <QDebug>
#include <QDeadlineTimer>
#include <QImage>
#include <QList>
#include <QMutex>
#include <QMutexLocker>
#include <QWaitCondition>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>

namespace {

// The pauses of the loop, in milliseconds. Only tests change them (to run in seconds).
std::atomic<int> g_firstRetryMs{500};
std::atomic<int> g_secondRetryMs{1000};
std::atomic<int> g_failureMs{1000};
std::atomic<int> g_recoveryMs{3000};

// A page may ask for a preview up to the camera's own frame size, or this when the frame is
// smaller: enough for any screen, while one request can no longer make every frame cost
// gigabytes.
constexpr int kPreviewCap = 4096;

// A preview dimension computed in floating point, truncated toward zero, raised to its floor
// and held at the cap, without any step that could overflow an int.
int previewDimension(double value, int floor, int cap)
{
    if (std::isnan(value) || value >= cap)
        return cap;
    if (value <= floor)
        return floor;
    return static_cast<int>(value);
}

// What each queued start does: the camera code it answers at once for, the code it leaves
// behind, and its reply name. The dual camera answers under another name when already open.
struct StartRow {
    int code;
    int stored;
    const char* name;
};

// Indexed by enumCameraOPeration (OpClose has no row). bStartPlay5 leaves 3 behind: pages and
// the recovery depend on it restarting like the third camera.
const StartRow kStartRows[] = {
    {0, 0, ""},
    {1, 1, "bStartPlay"},
    {1, 1, "bStartPlayRotate"},
    {2, 2, "bStartPlay2"},
    {3, 3, "bStartPlay3"},
    {5, 3, "bStartPlay5"},
    {6, 6, "bStartPlay6"},
    {8, 8, "bStartPlay8"},
    {9, 9, "bStartPlay9"},
    {25, 25, "bStartPlayOpen"},
};

QByteArray framed(const char* name, bool ok)
{
    return QByteArray("Begin") + name + (ok ? "true" : "false") + "End" + name;
}

// One start try. The later cameras pass 0 on the last try: a rotation the camera refused twice
// is not offered a third time.
bool tryStart(CaptureImgThread::enumCameraOPeration op, int attempt)
{
    const bool last = attempt == 3;
    switch (op) {
    case CaptureImgThread::OpStartPlay:
    case CaptureImgThread::OpStartPlayRotate:
        return bStartPlay(iGetRotate());
    case CaptureImgThread::OpStartPlay2:
        return bStartPlay2(0);
    case CaptureImgThread::OpStartPlay3:
        return bStartPlay3(0);
    case CaptureImgThread::OpStartPlay5:
        return bStartPlay5(last ? 0 : iGetRotate());
    case CaptureImgThread::OpStartPlay6:
        return bStartPlay6(last ? 0 : iGetRotate());
    case CaptureImgThread::OpStartPlay8:
        return bStartPlay8(last ? 0 : iGetRotate());
    case CaptureImgThread::OpStartPlay9:
        return bStartPlay9(last ? 0 : iGetRotate());
    case CaptureImgThread::OpStartPlayOpen:
        return bStartPlayOpen();
    case CaptureImgThread::OpClose:
        break;
    }
    return false;
}

// After six failed frames the camera is restarted plainly, without rotation.
void restartCamera(int camera)
{
    switch (camera) {
    case 1: bStartPlay(0); break;
    case 2: bStartPlay2(0); break;
    case 3: bStartPlay3(0); break;
    case 5: bStartPlay5(0); break;
    case 6: bStartPlay6(0); break;
    case 8: bStartPlay8(0); break;
    case 9: bStartPlay9(0); break;
    case 25: bStartPlayOpen(); break;
    default: break;
    }
}

}  // namespace

struct CaptureImgThread::Private {
    explicit Private(CaptureImgThread* owner) : q(owner) {}

    void perform(enumCameraOPeration op, quint64 epoch);
    void start(enumCameraOPeration op, quint64 epoch);
    void close();
    void fetchFrame(quint64 epoch);
    // Waits up to ms on the wake condition; false when destory() or silenceClose() cut it short.
    bool pause(int ms, quint64 epoch);
    int camera() const
    {
        QMutexLocker lock(&mutex);
        return currentCamera;
    }
    bool stillRunning() const
    {
        QMutexLocker lock(&mutex);
        return running;
    }
    int widthCap() const { return std::max(frameWidth.load(), kPreviewCap); }
    int heightCap() const { return std::max(frameHeight.load(), kPreviewCap); }

    CaptureImgThread* q;

    // Guarded by mutex, which is only ever held for a few instructions.
    bool running = true;
    int currentCamera = -1;
    QList<enumCameraOPeration> queue;
    // Moved on by silenceClose() and destory(): work begun before no longer applies.
    quint64 epoch = 0;
    mutable QMutex mutex;
    QWaitCondition wake;

    // Written by commands without the lock; atomics so the loop never reads a torn value.
    std::atomic<bool> paused{false};
    std::atomic<double> zoomFactor{0.1};
    std::atomic<int> previewWidth{800};
    std::atomic<int> previewHeight{600};
    std::atomic<bool> previewEnabled{true};
    // The size of the last frame fetched (0 before any), for the preview cap.
    std::atomic<int> frameWidth{0};
    std::atomic<int> frameHeight{0};

    // Consecutive failed frames; only the loop touches it.
    int failures = 0;
};

void CaptureImgThread::Private::perform(enumCameraOPeration op, quint64 epoch)
{
    if (op == OpClose)
        close();
    else
        start(op, epoch);
}

bool CaptureImgThread::Private::pause(int ms, quint64 since)
{
    const QDeadlineTimer deadline(ms);
    QMutexLocker lock(&mutex);
    while (running && epoch == since) {
        if (!wake.wait(&mutex, deadline))
            return running && epoch == since;
    }
    return false;
}

void CaptureImgThread::Private::start(enumCameraOPeration op, quint64 epoch)
{
    const StartRow& row = kStartRows[op];
    const int current = camera();
    if (current == row.code) {
        emit q->sig_msg(framed(op == OpStartPlayOpen ? "bDualCameraOpen" : row.name, true));
        return;
    }
    if (current > 0)
        bStopPlay();
    // A camera that has just been released often refuses the first open: stop it cleanly and
    // give the driver a little longer each time. When the camera is taken over meanwhile
    // (silenceClose), the remaining tries are left out and the page hears false.
    bool ok = tryStart(op, 1);
    bool given = false;
    if (!ok) {
        bStopPlay();
        given = !pause(g_firstRetryMs, epoch);
        ok = !given && tryStart(op, 2);
    }
    if (!ok && !given) {
        bStopPlay();
        given = !pause(g_secondRetryMs, epoch);
        ok = !given && tryStart(op, 3);
    }
    if (given && !stillRunning())
        return;
    if (ok) {
        QMutexLocker lock(&mutex);
        if (this->epoch == epoch)
            currentCamera = row.stored;
    }
    emit q->sig_msg(framed(row.name, ok));
}

void CaptureImgThread::Private::close()
{
    {
        QMutexLocker lock(&mutex);
        currentCamera = -1;
    }
    emit q->sig_msg(framed("bStopPlay", bStopPlay()));
}

void CaptureImgThread::Private::fetchFrame(quint64 epoch)
{
    QImage frame;
    if (!getVideoFrame(frame) || frame.isNull()) {
        ++failures;
    } else {
        frameWidth = frame.width();
        frameHeight = frame.height();
        if (previewEnabled) {
            emit q->sig_msg(previewFrameBase64(frame, previewWidth, previewHeight));
            failures = 0;
            return;
        }
        if (failures == 0)
            return;
    }

    if (!pause(g_failureMs, epoch)) {
        failures = 0;   // the camera was given up meanwhile
        return;
    }
    if (failures > 5) {
        // The camera stopped delivering: release it and open it again as it was.
        qDebug() << "capture error";
        bStopPlay();
        failures = 0;
        if (pause(g_recoveryMs, epoch))
            restartCamera(camera());
    }
}

// ---------------------------------------------------------------------------------------------

CaptureImgThread* CaptureImgThread::instance()
{
    // On the heap, stopped and deleted by ThreadOwner when the application ends.
    static CaptureImgThread* const thread = ThreadOwner::adopt(new CaptureImgThread, &CaptureImgThread::destory);
    return thread;
}

CaptureImgThread::CaptureImgThread() : d(std::make_unique<Private>(this))
{
    start();
}

CaptureImgThread::~CaptureImgThread()
{
    destory();
    wait();
}

void CaptureImgThread::run()
{
    for (;;) {
        // Take the next piece of work under the lock, then do it without: a command that
        // queues an operation meanwhile is never made to wait for the camera.
        enum { Nothing, Operation, Frame } work = Nothing;
        enumCameraOPeration op = OpClose;
        quint64 epoch = 0;
        {
            QMutexLocker lock(&d->mutex);
            if (!d->running)
                return;
            if (d->paused) {
                // Another component has the camera; keep away from the library until it is done.
                d->wake.wait(&d->mutex, 20);
                continue;
            }
            // Up to 20 ms between frames; queued work goes first and needs no wait.
            if (d->queue.isEmpty())
                d->wake.wait(&d->mutex, 20);
            if (!d->running || d->paused)
                continue;
            if (!d->queue.isEmpty()) {
                work = Operation;
                op = d->queue.takeFirst();
            } else if (d->currentCamera > 0) {
                work = Frame;
            }
            epoch = d->epoch;
        }
        if (work == Operation)
            d->perform(op, epoch);
        else if (work == Frame)
            d->fetchFrame(epoch);
    }
}

void CaptureImgThread::openCamera(int code)
{
    {
        QMutexLocker lock(&d->mutex);
        switch (code) {
        case 1: d->queue.append(OpStartPlay); break;
        case 11: d->queue.append(OpStartPlayRotate); break;
        case 2: d->queue.append(OpStartPlay2); break;
        case 3: d->queue.append(OpStartPlay3); break;
        case 5: d->queue.append(OpStartPlay5); break;
        case 6: d->queue.append(OpStartPlay6); break;
        case 8: d->queue.append(OpStartPlay8); break;
        case 9: d->queue.append(OpStartPlay9); break;
        case 25: d->queue.append(OpStartPlayOpen); break;
        default: qDebug() << __LINE__ << __FUNCTION__ << "captureimgthread" << "unknown camera code" << code; break;
        }
    }
    d->wake.wakeAll();
}

void CaptureImgThread::closeCamera()
{
    {
        QMutexLocker lock(&d->mutex);
        d->queue.append(OpClose);
    }
    d->wake.wakeAll();
}

void CaptureImgThread::silenceClose()
{
    {
        QMutexLocker lock(&d->mutex);
        d->queue.clear();
        d->currentCamera = -1;
        ++d->epoch;
    }
    d->wake.wakeAll();
}

void CaptureImgThread::destory()
{
    QMutexLocker lock(&d->mutex);
    d->running = false;
    ++d->epoch;
    d->wake.wakeAll();
}

void CaptureImgThread::setPause(bool paused)
{
    d->paused = paused;
    d->wake.wakeAll();
}

void CaptureImgThread::vSetPreviewEnable(bool enabled)
{
    d->previewEnabled = enabled;
}

bool CaptureImgThread::bGetPreviewEnable()
{
    return d->previewEnabled;
}

void CaptureImgThread::vSetPreViewSize(int w, int h)
{
    d->previewWidth = previewDimension(w, 400, d->widthCap());
    d->previewHeight = previewDimension(h, 300, d->heightCap());
}

void CaptureImgThread::vSetZoomFactor(int percent)
{
    d->zoomFactor = percent / 100.0;
}

void CaptureImgThread::vZoomOut()
{
    // Zooming out shows the page a larger frame, up to the cap; there is no floor.
    const double f = d->zoomFactor;
    const double w = d->previewWidth;
    const double h = d->previewHeight;
    d->previewWidth = previewDimension(w + w * f, INT_MIN, d->widthCap());
    d->previewHeight = previewDimension(h + h * f, INT_MIN, d->heightCap());
}

void CaptureImgThread::vZoomIn()
{
    const double f = d->zoomFactor;
    const double w = d->previewWidth;
    const double h = d->previewHeight;
    d->previewWidth = previewDimension(w - w * f, 400, d->widthCap());
    d->previewHeight = previewDimension(h - h * f, 300, d->heightCap());
}

void CaptureImgThread::vZoomOriginal()
{
    d->previewWidth = 800;
    d->previewHeight = 600;
    d->zoomFactor = 0.1;
}

int CaptureImgThread::previewWidth() const
{
    return d->previewWidth;
}

int CaptureImgThread::previewHeight() const
{
    return d->previewHeight;
}

int CaptureImgThread::currentCamera() const
{
    return d->camera();
}

int CaptureImgThread::queuedOperations() const
{
    QMutexLocker lock(&d->mutex);
    return d->queue.size();
}

void CaptureImgThread::setDelays(int firstRetryMs, int secondRetryMs, int failureMs, int recoveryMs)
{
    g_firstRetryMs = firstRetryMs;
    g_secondRetryMs = secondRetryMs;
    g_failureMs = failureMs;
    g_recoveryMs = recoveryMs;
}
