// The cameras behind the preview: one grabber thread per open camera writing into a single
// newest-frame slot, the settings that act on fetched frames, and the still pipeline.
#include "devicelib/portable/camera/camera.h"
#include "devicelib/portable/camera/camerasource.h"
#include "devicelib/portable/camera/camerastills.h"
#include "devicelib/portable/camera/capturebutton.h"
#include "devicelib/portable/camera/watermark.h"

#include <QDir>
#include <QFileInfo>

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#ifdef __linux__
#include <pthread.h>
#endif

namespace portable {

namespace {

using Clock = std::chrono::steady_clock;

// Frame numbers are unique across cameras and reopenings, so "newer than the last one
// returned" stays true after a camera is restarted.
std::atomic<unsigned long long> g_frameCounter{0};

constexpr int kDefaultPreviewWidth = 1280;
constexpr int kMaxCamera = 9;

// One open camera: its source, its grabber thread and its newest-frame slot.
class Device {
public:
    Device(int number, std::unique_ptr<CameraSource> source) : m_number(number), m_source(std::move(source)) {}
    ~Device() { stop(); }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    int number() const { return m_number; }
    QString describe() const { return m_source->describe(); }
    QString devicePath() const { return m_source->devicePath(); }

    bool start(int width, int height)
    {
        std::lock_guard<std::mutex> control(m_control);
        return startLocked(width, height);
    }

    void stop()
    {
        std::lock_guard<std::mutex> control(m_control);
        stopLocked();
    }

    // Opens again at another size; on failure the former size is tried again.
    bool reopen(int width, int height)
    {
        std::lock_guard<std::mutex> control(m_control);
        const std::pair<int, int> former = m_source->currentSize();
        stopLocked();
        if (startLocked(width, height))
            return true;
        startLocked(former.first, former.second);
        return false;
    }

    std::pair<int, int> size()
    {
        std::lock_guard<std::mutex> control(m_control);
        return m_source->currentSize();
    }

    double frameRate()
    {
        std::lock_guard<std::mutex> control(m_control);
        return m_source->frameRate();
    }

    std::vector<std::pair<int, int>> sizes()
    {
        std::lock_guard<std::mutex> control(m_control);
        return m_source->sizes();
    }

    bool setControl(Control c, int value)
    {
        std::lock_guard<std::mutex> control(m_control);
        return m_source->setControl(c, value);
    }

    // Waits until a frame newer than `after` is in the slot (or the deadline passes, or the
    // camera stops).
    bool waitNewer(unsigned long long after, Clock::time_point deadline, RawFrame& frame, unsigned long long& seq)
    {
        std::unique_lock<std::mutex> lock(m_slotMutex);
        m_slotChanged.wait_until(lock, deadline, [&] { return !m_running || m_seq > after; });
        if (!m_running || m_seq <= after)
            return false;
        frame = m_slot;
        seq = m_seq;
        return true;
    }

    // The newest frame; right after the start, waits (up to the deadline) for the first one.
    bool newest(Clock::time_point deadline, RawFrame& frame, unsigned long long& seq)
    {
        return waitNewer(0, deadline, frame, seq);
    }

    // The newest frame decoded at full size, BGR. Decoded once per frame however many ask.
    cv::Mat newestBgr(Clock::time_point deadline)
    {
        RawFrame raw;
        unsigned long long seq = 0;
        if (!newest(deadline, raw, seq))
            return cv::Mat();
        std::lock_guard<std::mutex> lock(m_decodeMutex);
        if (seq != m_decodedSeq) {
            m_decoded = raw.jpeg ? decodeJpegBgr(*raw.jpeg) : raw.bgr;
            m_decodedSeq = seq;
        }
        return m_decoded;
    }

private:
    bool startLocked(int width, int height)
    {
        if (m_thread.joinable())
            return true;
        if (!m_source->open(width, height))
            return false;
        {
            std::lock_guard<std::mutex> lock(m_slotMutex);
            m_running = true;
            m_seq = 0;
            m_slot = RawFrame();
        }
        m_stop = false;
        m_thread = std::thread([this] { grabLoop(); });
#ifdef __linux__
        // Named, so that a thread listing of the server tells the camera's own work apart.
        pthread_setname_np(m_thread.native_handle(), ("camgrab " + std::to_string(m_number)).c_str());
#endif
        return true;
    }

    void stopLocked()
    {
        if (!m_thread.joinable())
            return;
        m_stop = true;
        m_thread.join();
        m_source->close();
        std::lock_guard<std::mutex> lock(m_slotMutex);
        m_running = false;
        m_slot = RawFrame();
        m_slotChanged.notify_all();
    }

    void grabLoop()
    {
        int failures = 0;
        bool reported = false;
        while (!m_stop) {
            RawFrame frame;
            if (m_source->grab(frame) && !frame.empty()) {
                if (reported)
                    logLine(QStringLiteral("%1: delivers frames again").arg(describe()));
                failures = 0;
                reported = false;
                std::lock_guard<std::mutex> lock(m_slotMutex);
                m_slot = std::move(frame);   // the slot keeps only the newest; nobody queues
                m_seq = ++g_frameCounter;
                m_slotChanged.notify_all();
                continue;
            }
            if (++failures == 20 && !reported) {
                logLine(QStringLiteral("%1: delivers no frames (unplugged or taken by another program)").arg(describe()));
                reported = true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }

    const int m_number;
    std::unique_ptr<CameraSource> m_source;
    std::mutex m_control;   // start, stop, reopen, controls
    std::thread m_thread;
    std::atomic<bool> m_stop{false};

    std::mutex m_slotMutex;
    std::condition_variable m_slotChanged;
    bool m_running = false;
    RawFrame m_slot;
    unsigned long long m_seq = 0;

    std::mutex m_decodeMutex;
    cv::Mat m_decoded;
    unsigned long long m_decodedSeq = 0;
};

// Rotation first, then the flip as the viewer sees the rotated picture.
void orient(const cv::Mat& src, cv::Mat& dst, int rotate, int flip)
{
    if (rotate == 90)
        cv::rotate(src, dst, cv::ROTATE_90_CLOCKWISE);
    else if (rotate == 180)
        cv::rotate(src, dst, cv::ROTATE_180);
    else if (rotate == 270)
        cv::rotate(src, dst, cv::ROTATE_90_COUNTERCLOCKWISE);
    else if (dst.data != src.data)
        src.copyTo(dst);
    if (flip == 1)
        cv::flip(dst, dst, 1);
    else if (flip == 2)
        cv::flip(dst, dst, 0);
    else if (flip == 3)
        cv::flip(dst, dst, -1);
}

cv::Mat wrap(QImage& img)
{
    return cv::Mat(img.height(), img.width(), CV_8UC4, img.bits(), static_cast<size_t>(img.bytesPerLine()));
}

// A fetched frame as 32-bit pixels, at least minWidth wide where the camera's MJPEG lets the
// decoder scale it down (1/4 or 1/2: the scales the SIMD decoder does fast).
QImage toRgb32(const RawFrame& raw, int minWidth)
{
    if (raw.jpeg) {
        int denominator = 1;
        for (int d : {4, 2}) {
            if ((raw.width + d - 1) / d >= minWidth) {
                denominator = d;
                break;
            }
        }
        const int w = (raw.width + denominator - 1) / denominator;
        const int h = (raw.height + denominator - 1) / denominator;
        QImage img(w, h, QImage::Format_RGB32);
        if (img.isNull() || !decodeJpegBgrx(*raw.jpeg, img.bits(), w, img.bytesPerLine(), h))
            return QImage();
        return img;
    }
    if (raw.bgr.empty())
        return QImage();
    QImage img(raw.bgr.cols, raw.bgr.rows, QImage::Format_RGB32);
    if (img.isNull())
        return QImage();
    cv::Mat dst = wrap(img);
    cv::cvtColor(raw.bgr, dst, raw.bgr.channels() == 1 ? cv::COLOR_GRAY2BGRA : cv::COLOR_BGR2BGRA);
    return img;
}

// Two cameras side by side, the second scaled to the first's height.
cv::Mat sideBySide(const cv::Mat& left, const cv::Mat& right)
{
    if (right.empty())
        return left;
    cv::Mat r = right;
    if (r.rows != left.rows) {
        const int w = std::max(1, static_cast<int>(static_cast<double>(right.cols) * left.rows / right.rows));
        cv::resize(right, r, cv::Size(w, left.rows), 0, 0, cv::INTER_AREA);
    }
    cv::Mat out;
    cv::hconcat(left, r, out);
    return out;
}

}  // namespace

// ---------------------------------------------------------------------------------------------

struct Camera::Impl {
    std::mutex mutex;                          // everything below
    std::condition_variable previewChanged;    // a fetcher with no camera waits on it
    std::map<int, std::shared_ptr<Device>> open;
    std::vector<int> preview;                  // the cameras the preview shows (two: side by side)
    bool aux = false;                          // camera 4, beside the preview
    unsigned long long lastReturned = 0;       // the frame getVideoFrame handed over last
    std::map<int, std::pair<int, int>> requestedSize;
    int previewWidth = -1;                     // read from the profile on first use

    int rotate = 0;
    int flip = 0;
    int mode = 0;
    short cameraMode = 0;
    bool imageDisplay = true;
    int book = 0;
    int dpiX = 300, dpiY = 300;
    int quality = 80;
    int area[4] = {0, 0, 0, 0};
    std::map<Control, int> controls;           // applied again to every camera that opens

    CaptureButton button;
    std::vector<std::function<void()>> stopHooks;   // registered once per module, never removed

    void resetSettings()
    {
        rotate = flip = mode = book = 0;
        cameraMode = 0;
        imageDisplay = true;
        dpiX = dpiY = 300;
        quality = 80;
        std::fill(std::begin(area), std::end(area), 0);
        controls.clear();
        requestedSize.clear();
        previewWidth = -1;
    }

    int previewWidthLocked()
    {
        if (previewWidth < 0) {
            const double w = profileNumber(QStringLiteral("camera.previewWidth"), kDefaultPreviewWidth);
            if (w < 16 || w > 16384) {
                logLine(QStringLiteral("device profile %1: key \"camera.previewWidth\" is not a width in pixels; using %2")
                            .arg(profileSource())
                            .arg(kDefaultPreviewWidth));
                previewWidth = kDefaultPreviewWidth;
            } else {
                previewWidth = static_cast<int>(w);
            }
        }
        return previewWidth;
    }

    // The open camera of that number, opened now when it is not.
    std::shared_ptr<Device> acquireLocked(int number)
    {
        auto it = open.find(number);
        if (it != open.end())
            return it->second;
        auto dev = std::make_shared<Device>(number, makeCameraSource(number));
        const auto req = requestedSize.count(number) ? requestedSize[number] : std::pair<int, int>(0, 0);
        if (!dev->start(req.first, req.second))
            return nullptr;
        for (const auto& [control, value] : controls)
            dev->setControl(control, value);
        open[number] = dev;
        return dev;
    }

    // Closes the cameras that neither the preview nor camera 4's own start holds.
    void releaseUnusedLocked()
    {
        for (auto it = open.begin(); it != open.end();) {
            const bool used = std::count(preview.begin(), preview.end(), it->first) > 0 || (aux && it->first == 4);
            if (used) {
                ++it;
                continue;
            }
            it->second->stop();
            it = open.erase(it);
        }
        QStringList nodes;
        for (const auto& [n, dev] : open)
            if (!dev->devicePath().isEmpty())
                nodes << dev->devicePath();
        button.setCameraDevices(nodes);
    }

    std::vector<std::shared_ptr<Device>> previewDevicesLocked()
    {
        std::vector<std::shared_ptr<Device>> out;
        for (int n : preview) {
            auto it = open.find(n);
            if (it != open.end())
                out.push_back(it->second);
        }
        return out;
    }

    // The newest full-size frame of the preview with rotation and flip applied.
    cv::Mat fullFrame()
    {
        std::vector<std::shared_ptr<Device>> devices;
        int rot = 0, fl = 0;
        {
            std::lock_guard<std::mutex> lock(mutex);
            devices = previewDevicesLocked();
            rot = rotate;
            fl = flip;
        }
        if (devices.empty())
            return cv::Mat();
        const auto deadline = Clock::now() + std::chrono::seconds(1);
        cv::Mat frame = devices[0]->newestBgr(deadline);
        if (frame.empty())
            return cv::Mat();
        if (devices.size() > 1)
            frame = sideBySide(frame, devices[1]->newestBgr(deadline));
        cv::Mat out;
        orient(frame, out, rot, fl);   // always a copy: the decoded frame is shared
        return out;
    }

    std::shared_ptr<Device> deviceOrNullLocked(int number)
    {
        auto it = open.find(number);
        return it == open.end() ? nullptr : it->second;
    }
};

Camera::Camera() : d(std::make_unique<Impl>())
{
    addResetHook([this] {
        std::lock_guard<std::mutex> lock(d->mutex);
        d->preview.clear();
        d->aux = false;
        d->releaseUnusedLocked();
        d->resetSettings();
        d->button.setListener(nullptr);
        d->previewChanged.notify_all();
    });
}

Camera::~Camera()
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->preview.clear();
    d->aux = false;
    d->releaseUnusedLocked();
}

// Destroyed with the other statics, after main: the server's workers that fetch frames are
// stopped and joined before that, when its application object goes, so closing
// the sources and joining their grabber threads here races nobody.
Camera& camera()
{
    static Camera c;
    return c;
}

static bool validCamera(int number, const char* what)
{
    if (number >= 1 && number <= kMaxCamera)
        return true;
    logLine(QStringLiteral("%1: there is no camera %2 (cameras are numbered 1 to %3)")
                .arg(QLatin1String(what))
                .arg(number)
                .arg(kMaxCamera));
    return false;
}

// --- preview ------------------------------------------------------------------------------------

bool Camera::startPreview(const std::vector<int>& cameras, int rotate, bool setRotate)
{
    if (setRotate)
        this->setRotate(rotate);
    std::lock_guard<std::mutex> lock(d->mutex);
    std::vector<std::shared_ptr<Device>> devices;
    for (int n : cameras) {
        auto dev = d->acquireLocked(n);
        if (!dev) {
            // The log line naming the device came from the source; close what this start opened.
            d->releaseUnusedLocked();
            return false;
        }
        devices.push_back(dev);
    }
    d->preview = cameras;
    d->releaseUnusedLocked();
    d->previewChanged.notify_all();
    return true;
}

bool Camera::stopPreview()
{
    std::vector<std::function<void()>> hooks;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        d->preview.clear();
        d->releaseUnusedLocked();
        d->previewChanged.notify_all();
        hooks = d->stopHooks;
    }
    for (const auto& hook : hooks)
        hook();
    return true;
}

void Camera::addStopHook(std::function<void()> hook)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->stopHooks.push_back(std::move(hook));
}

bool Camera::previewOpen() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return !d->preview.empty();
}

bool Camera::watchFrame(int width, cv::Mat& grey, unsigned long long* seq)
{
    std::vector<std::shared_ptr<Device>> devices;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        devices = d->previewDevicesLocked();
    }
    if (devices.empty())
        return false;
    RawFrame raw;
    if (!devices[0]->newest(Clock::now() + std::chrono::seconds(1), raw, *seq))
        return false;
    cv::Mat small;
    if (raw.jpeg) {
        // The DCT scaling of the decoder does most of the shrinking for free.
        const QImage img = toRgb32(raw, width);
        if (img.isNull())
            return false;
        const cv::Mat bgrx(img.height(), img.width(), CV_8UC4, const_cast<uchar*>(img.bits()), static_cast<size_t>(img.bytesPerLine()));
        cv::cvtColor(bgrx, small, cv::COLOR_BGRA2GRAY);
    } else if (raw.bgr.channels() == 1) {
        small = raw.bgr;
    } else {
        cv::cvtColor(raw.bgr, small, cv::COLOR_BGR2GRAY);
    }
    const int h = std::max(1, static_cast<int>(static_cast<long long>(small.rows) * width / std::max(1, small.cols)));
    cv::resize(small, grey, cv::Size(width, h), 0, 0, cv::INTER_AREA);
    return true;
}

bool Camera::startAux()
{
    std::lock_guard<std::mutex> lock(d->mutex);
    if (!d->acquireLocked(4))
        return false;
    d->aux = true;
    d->releaseUnusedLocked();
    return true;
}

bool Camera::stopAux()
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->aux = false;
    d->releaseUnusedLocked();
    return true;
}

// bAVPreview(camera, index): selects resolution `index` of `camera` and checks that the camera
// delivers at that size: an open camera is reopened at it, a closed one is opened for the check
// and closed again (the caller restarts its preview after a success).
bool Camera::avPreview(long long first, long long second)
{
    if (first < 1 || first > kMaxCamera) {
        validCamera(static_cast<int>(std::clamp<long long>(first, -1, 1000)), "bAVPreview");
        return false;
    }
    const int number = static_cast<int>(first);
    std::vector<std::pair<double, double>> sizes;
    resolutionList(number, sizes);
    if (second < 0 || second >= static_cast<long long>(sizes.size())) {
        logLine(QStringLiteral("bAVPreview: camera %1 has no resolution %2 (it has %3)").arg(number).arg(second).arg(sizes.size()));
        return false;
    }
    const int w = static_cast<int>(sizes[static_cast<size_t>(second)].first);
    const int h = static_cast<int>(sizes[static_cast<size_t>(second)].second);
    std::lock_guard<std::mutex> lock(d->mutex);
    d->requestedSize[number] = {w, h};
    if (auto dev = d->deviceOrNullLocked(number))
        return dev->reopen(w, h);
    Device probe(number, makeCameraSource(number));
    if (!probe.start(w, h))
        return false;
    unsigned long long seq = 0;
    RawFrame frame;
    const bool ok = probe.newest(Clock::now() + std::chrono::seconds(2), frame, seq);
    if (!ok)
        logLine(QStringLiteral("bAVPreview: %1 delivered no frame at %2x%3").arg(probe.describe()).arg(w).arg(h));
    return ok;
}

void Camera::setImageDispFlag(bool flag)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->imageDisplay = flag;
}

bool Camera::videoFrame(QImage& frame)
{
    const auto deadline = Clock::now() + std::chrono::seconds(1);
    std::vector<std::shared_ptr<Device>> devices;
    unsigned long long last = 0;
    int minWidth = 0, rot = 0, fl = 0;
    {
        std::unique_lock<std::mutex> lock(d->mutex);
        d->previewChanged.wait_until(lock, deadline, [&] { return !d->preview.empty(); });
        devices = d->previewDevicesLocked();
        last = d->lastReturned;
        minWidth = d->previewWidthLocked();
        rot = d->rotate;
        fl = d->flip;
    }
    if (devices.empty())
        return false;
    RawFrame raw;
    unsigned long long seq = 0;
    if (!devices[0]->waitNewer(last, deadline, raw, seq))
        return false;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        d->lastReturned = std::max(d->lastReturned, seq);
    }
    if (devices.size() > 1)
        minWidth = (minWidth + 1) / 2;
    QImage img = toRgb32(raw, minWidth);
    if (img.isNull())
        return false;
    if (devices.size() > 1) {
        RawFrame second;
        unsigned long long seq2 = 0;
        if (devices[1]->newest(deadline, second, seq2)) {
            QImage right = toRgb32(second, minWidth);
            if (!right.isNull()) {
                cv::Mat both = sideBySide(wrap(img), wrap(right));
                QImage joined(both.cols, both.rows, QImage::Format_RGB32);
                cv::Mat dst = wrap(joined);
                both.copyTo(dst);
                img = joined;
            }
        }
    }
    if (rot != 0 || fl != 0) {
        const bool swap = rot == 90 || rot == 270;
        QImage turned(swap ? img.height() : img.width(), swap ? img.width() : img.height(), QImage::Format_RGB32);
        cv::Mat dst = wrap(turned);
        orient(wrap(img), dst, rot, fl);
        img = turned;
    }
    frame = img;
    return true;
}

bool Camera::recordingFrame(int minWidth, cv::Mat& bgrx, unsigned long long* seq, double* fps)
{
    std::shared_ptr<Device> device;
    int rot = 0, fl = 0;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        const auto devices = d->previewDevicesLocked();
        if (devices.empty())
            return false;
        device = devices[0];
        rot = d->rotate;
        fl = d->flip;
    }
    *fps = device->frameRate();
    RawFrame raw;
    if (!device->newest(Clock::now() + std::chrono::seconds(1), raw, *seq))
        return false;
    if (!raw.jpeg && raw.bgr.type() == CV_8UC3) {
        orient(raw.bgr, bgrx, rot, fl);   // a copy: the slot's frame is shared
        return true;
    }
    // Decoded at the smallest DCT scale that keeps the width: the recording only scales down.
    QImage img = toRgb32(raw, minWidth);
    if (img.isNull())
        return false;
    orient(wrap(img), bgrx, rot, fl);
    return true;
}

bool Camera::videoFrameMat(cv::Mat& frame)
{
    cv::Mat f = d->fullFrame();
    if (f.empty())
        return false;
    frame = f;
    return true;
}

bool Camera::capturedFrameMat(cv::Mat& frame)
{
    if (!videoFrameMat(frame))
        return false;
    stampWatermark(frame);   // fullFrame() hands out a copy of its own
    return true;
}

// --- settings -------------------------------------------------------------------------------------

bool Camera::setMode(int mode)
{
    if (mode < 0 || mode > 2) {
        logLine(QStringLiteral("bSetMode: mode %1 is not 0 (colour), 1 (grey) or 2 (black and white)").arg(mode));
        return false;
    }
    std::lock_guard<std::mutex> lock(d->mutex);
    d->mode = mode;
    return true;
}

void Camera::setCameraMode(short mode)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->cameraMode = mode;
}

void Camera::setResolutionIndex(int number, int index)
{
    if (!validCamera(number, "vSetResolutionEx"))
        return;
    std::vector<std::pair<double, double>> sizes;
    resolutionList(number, sizes);
    if (index < 0 || index >= static_cast<int>(sizes.size())) {
        logLine(QStringLiteral("vSetResolutionEx: camera %1 has no resolution %2 (it has %3)").arg(number).arg(index).arg(sizes.size()));
        return;
    }
    setResolution(number, static_cast<int>(sizes[static_cast<size_t>(index)].first),
                  static_cast<int>(sizes[static_cast<size_t>(index)].second));
}

void Camera::setResolution(int number, int width, int height)
{
    if (!validCamera(number, "setResolution"))
        return;
    if (width < 16 || height < 16 || width > 16384 || height > 16384) {
        logLine(QStringLiteral("setResolution: %1 x %2 is not a frame size").arg(width).arg(height));
        return;
    }
    std::lock_guard<std::mutex> lock(d->mutex);
    d->requestedSize[number] = {width, height};
    if (auto dev = d->deviceOrNullLocked(number)) {
        if (!dev->reopen(width, height))
            logLine(QStringLiteral("setResolution: %1 cannot deliver %2 x %3; kept its former size")
                        .arg(dev->describe())
                        .arg(width)
                        .arg(height));
    }
}

static std::pair<int, int> sizeOf(Camera::Impl& d, int number)
{
    {
        std::lock_guard<std::mutex> lock(d.mutex);
        if (auto dev = d.deviceOrNullLocked(number))
            return dev->size();
        auto it = d.requestedSize.find(number);
        if (it != d.requestedSize.end())
            return it->second;
    }
    const auto sizes = makeCameraSource(number)->sizes();
    return sizes.empty() ? std::pair<int, int>(0, 0) : sizes.front();
}

int Camera::resolutionX(int number)
{
    return validCamera(number, "iGetResolutionX") ? sizeOf(*d, number).first : 0;
}

int Camera::resolutionY(int number)
{
    return validCamera(number, "iGetResolutionY") ? sizeOf(*d, number).second : 0;
}

void Camera::resolutionList(int number, std::vector<std::pair<double, double>>& sizes)
{
    sizes.clear();
    if (!validCamera(number, "getResolutionIndex"))
        return;
    std::shared_ptr<Device> dev;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        dev = d->deviceOrNullLocked(number);
    }
    const auto list = dev ? dev->sizes() : makeCameraSource(number)->sizes();
    for (const auto& s : list)
        sizes.emplace_back(s.first, s.second);
}

void Camera::setRotate(int angle)
{
    const int a = ((angle % 360) + 360) % 360;
    if (a % 90 != 0) {
        logLine(QStringLiteral("vSetRotate: %1 is not 0, 90, 180 or 270 degrees; rotation kept").arg(angle));
        return;
    }
    std::lock_guard<std::mutex> lock(d->mutex);
    d->rotate = a;
}

short Camera::rotate() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return static_cast<short>(d->rotate);
}

void Camera::setFlip(int mode)
{
    if (mode < 0 || mode > 3) {
        logLine(QStringLiteral("vSetFlip: %1 is not 0 (none), 1 (horizontal), 2 (vertical) or 3 (both); flip kept").arg(mode));
        return;
    }
    std::lock_guard<std::mutex> lock(d->mutex);
    d->flip = mode;
}

short Camera::flip() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return static_cast<short>(d->flip);
}

static bool applyControl(Camera::Impl& d, Control control, int value, const char* fn)
{
    std::vector<std::shared_ptr<Device>> devices;
    {
        std::lock_guard<std::mutex> lock(d.mutex);
        for (const auto& [n, dev] : d.open)
            devices.push_back(dev);
    }
    if (devices.empty()) {
        logLine(QStringLiteral("%1: no camera is open").arg(QLatin1String(fn)));
        return false;
    }
    bool ok = true;
    for (const auto& dev : devices)
        ok = dev->setControl(control, value) && ok;
    if (ok && control != Control::AutoFocus) {
        std::lock_guard<std::mutex> lock(d.mutex);
        d.controls[control] = value;   // cameras opened later get it too
    }
    return ok;
}

bool Camera::setExposure(int value) { return applyControl(*d, Control::Exposure, value, "vSetExposure"); }
bool Camera::setBrightness(int value) { return applyControl(*d, Control::Brightness, value, "vSetBrightness"); }
bool Camera::setContrast(int value) { return applyControl(*d, Control::Contrast, value, "vSetContrast"); }
bool Camera::autoFocus() { return applyControl(*d, Control::AutoFocus, 1, "AutoFocus"); }

bool Camera::setDpi(long long x, long long y)
{
    if (x < 1 || y < 1 || x > 65535 || y > 65535) {
        logLine(QStringLiteral("vSetDPI: %1 x %2 is not a resolution in dots per inch (1..65535)").arg(x).arg(y));
        return false;
    }
    std::lock_guard<std::mutex> lock(d->mutex);
    d->dpiX = static_cast<int>(x);
    d->dpiY = static_cast<int>(y);
    return true;
}

void Camera::dpi(int* x, int* y) const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    if (x)
        *x = d->dpiX;
    if (y)
        *y = d->dpiY;
}

bool Camera::setImageArea(int x1, int y1, int x2, int y2)
{
    const bool whole = x1 == 0 && y1 == 0 && x2 == 0 && y2 == 0;
    if (!whole && (x1 < 0 || y1 < 0 || x2 <= x1 || y2 <= y1)) {
        logLine(QStringLiteral("bSetImageArea: (%1,%2)-(%3,%4) is not a rectangle (need 0 <= x1 < x2, 0 <= y1 < y2)")
                    .arg(x1)
                    .arg(y1)
                    .arg(x2)
                    .arg(y2));
        return false;
    }
    std::lock_guard<std::mutex> lock(d->mutex);
    d->area[0] = x1;
    d->area[1] = y1;
    d->area[2] = x2;
    d->area[3] = y2;
    return true;
}

long Camera::imageArea(int which) const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->area[std::clamp(which, 0, 3)];
}

bool Camera::setImageQuality(int quality)
{
    if (quality < 1 || quality > 100) {
        logLine(QStringLiteral("vSetImageQuality: %1 is outside 1..100").arg(quality));
        return false;
    }
    std::lock_guard<std::mutex> lock(d->mutex);
    d->quality = quality;
    return true;
}

short Camera::imageQuality() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return static_cast<short>(d->quality);
}

// Book-scanner mode: 0 off, 1 on (a two-page spread; pages split it with SplitPic).
bool Camera::setBookScannerMode(int mode)
{
    if (mode < 0 || mode > 1) {
        logLine(QStringLiteral("bSetBookScannerMode: %1 is not 0 (off) or 1 (on)").arg(mode));
        return false;
    }
    std::lock_guard<std::mutex> lock(d->mutex);
    d->book = mode;
    return true;
}

int Camera::bookScannerMode() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->book;
}

void Camera::setCapturePin(CapturePinListener listener)
{
    d->button.setListener(listener);
}

// --- stills -----------------------------------------------------------------------------------------

// The still as the settings make it: newest full-size frame, oriented, cropped, colour mode.
static cv::Mat stillImage(Camera::Impl& d, const char* fn, StillFormat* format, int forceMode = -1)
{
    cv::Mat frame = d.fullFrame();
    if (frame.empty()) {
        std::lock_guard<std::mutex> lock(d.mutex);
        logLine(d.preview.empty() ? QStringLiteral("%1: no camera is open").arg(QLatin1String(fn))
                                  : QStringLiteral("%1: the camera delivered no frame").arg(QLatin1String(fn)));
        return cv::Mat();
    }
    int area[4];
    int mode = 0;
    {
        std::lock_guard<std::mutex> lock(d.mutex);
        std::copy(std::begin(d.area), std::end(d.area), area);
        mode = d.mode;
        format->dpiX = d.dpiX;
        format->dpiY = d.dpiY;
        format->quality = d.quality;
    }
    if (area[0] || area[1] || area[2] || area[3]) {
        const cv::Rect want(area[0], area[1], area[2] - area[0], area[3] - area[1]);
        const cv::Rect crop = want & cv::Rect(0, 0, frame.cols, frame.rows);
        if (crop.empty()) {
            logLine(QStringLiteral("%1: the image area (%2,%3)-(%4,%5) lies outside the %6 x %7 frame")
                        .arg(QLatin1String(fn))
                        .arg(area[0])
                        .arg(area[1])
                        .arg(area[2])
                        .arg(area[3])
                        .arg(frame.cols)
                        .arg(frame.rows));
            return cv::Mat();
        }
        frame = frame(crop);
    }
    cv::Mat still = applyColourMode(frame, forceMode >= 0 ? forceMode : mode);
    stampWatermark(still);
    return still;
}

static QString stillPath(const char* fn, const char* dir, const char* name, const char* ext)
{
    if (!dir || !name || !*name) {
        logLine(QStringLiteral("%1: no file name given").arg(QLatin1String(fn)));
        return QString();
    }
    const QString folder = QString::fromUtf8(dir);
    const QFileInfo fi(folder);
    if (!fi.isDir()) {
        logLine(QStringLiteral("%1: the folder \"%2\" does not exist").arg(QLatin1String(fn), folder));
        return QString();
    }
    if (!fi.isWritable()) {
        logLine(QStringLiteral("%1: the folder \"%2\" cannot be written").arg(QLatin1String(fn), folder));
        return QString();
    }
    return QDir(folder).filePath(QString::fromUtf8(name) + QLatin1Char('.') + QLatin1String(ext));
}

bool Camera::saveStill(Still kind, const char* dir, const char* name)
{
    static const struct {
        const char* fn;
        const char* ext;
    } names[] = {{"bSaveJPG", "jpg"}, {"bSaveTifJPG", "tif"}, {"bSaveGray", "jpg"},
                 {"bSaveTIF", "tif"}, {"bSaveBMP", "bmp"},    {"bSavePNG", "png"}};
    const auto& n = names[static_cast<int>(kind)];
    const QString path = stillPath(n.fn, dir, name, n.ext);
    if (path.isEmpty())
        return false;
    StillFormat format;
    const cv::Mat img = stillImage(*d, n.fn, &format, kind == Still::Gray ? 1 : -1);
    if (img.empty())
        return false;
    switch (kind) {
    case Still::Jpeg:
    case Still::Gray:
        return writeJpegFile(path, img, format);
    case Still::TiffJpeg:
        return writeTiffFile(path, img, format, true);
    case Still::Tiff:
        return writeTiffFile(path, img, format, false);
    case Still::Bmp:
        return writeQtFile(path, img, format, "BMP");
    case Still::Png:
        return writeQtFile(path, img, format, "PNG");
    }
    return false;
}

// A grey JPEG into the first folder and a TIFF (in the colour mode set) into the second, from
// the same frame.
bool Camera::saveGrayAndTiff(const char* dir1, const char* name1, const char* dir2, const char* name2)
{
    const QString grey = stillPath("bSaveGrayAndTIF", dir1, name1, "jpg");
    const QString tiff = stillPath("bSaveGrayAndTIF", dir2, name2, "tif");
    if (grey.isEmpty() || tiff.isEmpty())
        return false;
    StillFormat format;
    const cv::Mat img = stillImage(*d, "bSaveGrayAndTIF", &format);
    if (img.empty())
        return false;
    return writeJpegFile(grey, applyColourMode(img, 1), format) && writeTiffFile(tiff, img, format, false);
}

bool Camera::splitPicture(const char* source, const char* prefix)
{
    if (!source || !prefix || !*source || !*prefix) {
        logLine(QStringLiteral("SplitPic: the source file and the prefix are both needed"));
        return false;
    }
    StillFormat format;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        format.dpiX = d->dpiX;
        format.dpiY = d->dpiY;
        format.quality = d->quality;
    }
    return splitPages(QString::fromUtf8(source), QString::fromUtf8(prefix), format);
}

cv::Mat Camera::stillFrame(const char* fn, StillFormat* format, int forceMode)
{
    return stillImage(*d, fn, format, forceMode);
}

Text Camera::imageBase64(int quality)
{
    StillFormat format;
    const cv::Mat img = stillImage(*d, "sGetImageBase64_Byte", &format);
    if (img.empty())
        return std::string();
    const std::vector<unsigned char> jpeg =
        encodeJpeg(img, quality >= 1 && quality <= 100 ? quality : format.quality, format.dpiX, format.dpiY);
    const QByteArray b64 = QByteArray::fromRawData(reinterpret_cast<const char*>(jpeg.data()), static_cast<int>(jpeg.size())).toBase64();
    return b64.toStdString();
}

}  // namespace portable
