#include "camera/captureimgthread.h"
#include "camera/previewframe.h"

#include "devicelib/doccamera.h"

#include <QDebug>
#include <QImage>
#include <QList>
#include <QMutex>
#include <QMutexLocker>
#include <QWaitCondition>

#include <atomic>

namespace {

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

    void perform(enumCameraOPeration op);
    void start(enumCameraOPeration op);
    void close();
    void fetchFrame();

    CaptureImgThread* q;

    // Guarded by mutex.
    bool running = true;
    int currentCamera = -1;
    QList<enumCameraOPeration> queue;
    QMutex mutex;
    QWaitCondition wake;

    // Written by commands without the lock; atomics so the loop never reads a torn value.
    std::atomic<bool> paused{false};
    std::atomic<double> zoomFactor{0.1};
    std::atomic<int> previewWidth{800};
    std::atomic<int> previewHeight{600};
    std::atomic<bool> previewEnabled{true};

    // Consecutive failed frames; only the loop touches it.
    int failures = 0;
};

void CaptureImgThread::Private::perform(enumCameraOPeration op)
{
    if (op == OpClose)
        close();
    else
        start(op);
}

void CaptureImgThread::Private::start(enumCameraOPeration op)
{
    const StartRow& row = kStartRows[op];
    if (currentCamera == row.code) {
        emit q->sig_msg(framed(op == OpStartPlayOpen ? "bDualCameraOpen" : row.name, true));
        return;
    }
    if (currentCamera > 0)
        bStopPlay();
    // A camera that has just been released often refuses the first open: stop it cleanly and
    // give the driver a little longer each time.
    bool ok = tryStart(op, 1);
    if (!ok) {
        bStopPlay();
        QThread::msleep(500);
        ok = tryStart(op, 2);
    }
    if (!ok) {
        bStopPlay();
        QThread::msleep(1000);
        ok = tryStart(op, 3);
    }
    if (ok)
        currentCamera = row.stored;
    emit q->sig_msg(framed(row.name, ok));
}

void CaptureImgThread::Private::close()
{
    currentCamera = -1;
    emit q->sig_msg(framed("bStopPlay", bStopPlay()));
}

void CaptureImgThread::Private::fetchFrame()
{
    QImage frame;
    if (!getVideoFrame(frame) || frame.isNull()) {
        ++failures;
    } else if (!previewEnabled) {
        if (failures == 0)
            return;
    } else {
        emit q->sig_msg(previewFrameBase64(frame, previewWidth, previewHeight));
        failures = 0;
        return;
    }

    QThread::sleep(1);
    if (failures > 5) {
        // The camera stopped delivering: release it and open it again as it was.
        qDebug() << "capture error";
        bStopPlay();
        QThread::sleep(3);
        restartCamera(currentCamera);
        failures = 0;
    }
}

// ---------------------------------------------------------------------------------------------

CaptureImgThread* CaptureImgThread::instance()
{
    static CaptureImgThread thread;
    return &thread;
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
        QMutexLocker lock(&d->mutex);
        if (!d->running)
            return;
        if (d->paused) {
            // Another component has the camera; keep away from the library until it is done.
            lock.unlock();
            QThread::yieldCurrentThread();
            continue;
        }
        d->wake.wait(&d->mutex, 20);
        if (!d->queue.isEmpty())
            d->perform(d->queue.takeFirst());
        else if (d->currentCamera > 0)
            d->fetchFrame();
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
    d->wake.wakeOne();
}

void CaptureImgThread::closeCamera()
{
    {
        QMutexLocker lock(&d->mutex);
        d->queue.append(OpClose);
    }
    d->wake.wakeOne();
}

void CaptureImgThread::silenceClose()
{
    {
        QMutexLocker lock(&d->mutex);
        d->queue.clear();
        d->currentCamera = -1;
    }
    d->wake.wakeOne();
}

void CaptureImgThread::destory()
{
    QMutexLocker lock(&d->mutex);
    d->running = false;
    d->wake.wakeOne();
}

void CaptureImgThread::setPause(bool paused)
{
    d->paused = paused;
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
    d->previewWidth = qMax(w, 400);
    d->previewHeight = qMax(h, 300);
}

void CaptureImgThread::vSetZoomFactor(int percent)
{
    d->zoomFactor = percent / 100.0;
}

void CaptureImgThread::vZoomOut()
{
    // Zooming out shows the page a larger frame; there is no upper bound.
    const double f = d->zoomFactor;
    const int w = d->previewWidth;
    const int h = d->previewHeight;
    d->previewWidth = static_cast<int>(w + w * f);
    d->previewHeight = static_cast<int>(h + h * f);
}

void CaptureImgThread::vZoomIn()
{
    const double f = d->zoomFactor;
    const int w = d->previewWidth;
    const int h = d->previewHeight;
    vSetPreViewSize(static_cast<int>(w - w * f), static_cast<int>(h - h * f));
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
    QMutexLocker lock(&d->mutex);
    return d->currentCamera;
}
