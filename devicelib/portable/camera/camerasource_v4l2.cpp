// A real camera through OpenCV's V4L2 back end. The camera's MJPEG mode is preferred and its
// frames are taken as the raw compressed bytes, so the preview can decode them at a reduced
// scale; a camera without MJPEG delivers decoded BGR. Frame sizes and controls go straight
// to the device with the V4L2 ioctls.
#include "devicelib/portable/camera/camerasource.h"
#include "devicelib/portable/core.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <opencv2/videoio.hpp>

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <set>

namespace portable {

namespace {

int xioctl(int fd, unsigned long request, void* arg)
{
    int r;
    do
        r = ioctl(fd, request, arg);
    while (r == -1 && errno == EINTR);
    return r;
}

class Fd {
public:
    explicit Fd(const QString& path) : m_fd(::open(QFile::encodeName(path).constData(), O_RDWR | O_NONBLOCK)) {}
    ~Fd()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

bool isCaptureDevice(const QString& path)
{
    Fd fd(path);
    if (fd.get() < 0)
        return false;
    v4l2_capability cap{};
    if (xioctl(fd.get(), VIDIOC_QUERYCAP, &cap) != 0)
        return false;
    const unsigned caps = (cap.capabilities & V4L2_CAP_DEVICE_CAPS) ? cap.device_caps : cap.capabilities;
    return (caps & V4L2_CAP_VIDEO_CAPTURE) != 0;
}

class V4l2Source final : public CameraSource {
public:
    V4l2Source(int number, const QString& device) : m_number(number), m_device(device) {}
    ~V4l2Source() override { close(); }

    bool open(int width, int height) override
    {
        close();
        if (!QFileInfo::exists(m_device)) {
            logLine(QStringLiteral("%1: the device is not present").arg(describe()));
            return false;
        }
        const bool hasMjpeg = formats().count(V4L2_PIX_FMT_MJPEG) > 0;
        if (width <= 0 || height <= 0) {
            const auto all = sizes();
            if (!all.empty()) {
                width = all.front().first;
                height = all.front().second;
            }
        }
        m_cap = std::make_unique<cv::VideoCapture>();
        if (!m_cap->open(QFile::encodeName(m_device).toStdString(), cv::CAP_V4L2)) {
            logLine(QStringLiteral("%1: cannot be opened (busy or gone)").arg(describe()));
            m_cap.reset();
            return false;
        }
        if (hasMjpeg)
            m_cap->set(cv::CAP_PROP_FOURCC, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'));
        if (width > 0 && height > 0) {
            m_cap->set(cv::CAP_PROP_FRAME_WIDTH, width);
            m_cap->set(cv::CAP_PROP_FRAME_HEIGHT, height);
        }
        const int fourcc = static_cast<int>(m_cap->get(cv::CAP_PROP_FOURCC));
        m_raw = hasMjpeg && fourcc == cv::VideoWriter::fourcc('M', 'J', 'P', 'G');
        if (m_raw) {
            // Hand over the compressed bytes: the fetcher decodes them at the scale it needs.
            m_cap->set(cv::CAP_PROP_CONVERT_RGB, 0);
            m_cap->set(cv::CAP_PROP_FORMAT, -1);
        }
        setSize(static_cast<int>(m_cap->get(cv::CAP_PROP_FRAME_WIDTH)), static_cast<int>(m_cap->get(cv::CAP_PROP_FRAME_HEIGHT)));
        // The first frame tells whether the device really streams (another program may hold it).
        RawFrame probe;
        if (!grab(probe)) {
            logLine(QStringLiteral("%1: opened but delivers no frames (busy?)").arg(describe()));
            close();
            return false;
        }
        return true;
    }

    void close() override { m_cap.reset(); }

    bool grab(RawFrame& frame) override
    {
        if (!m_cap)
            return false;
        cv::Mat m;
        if (!m_cap->read(m) || m.empty())
            return false;
        if (m_raw && (m.rows == 1 || m.cols == 1) && m.depth() == CV_8U) {
            auto bytes = std::make_shared<std::vector<unsigned char>>(m.datastart, m.dataend);
            int w = 0, h = 0;
            if (!jpegSize(*bytes, &w, &h))
                return false;   // a torn MJPEG frame: skip it
            frame.jpeg = std::move(bytes);
            frame.bgr.release();
            frame.width = w;
            frame.height = h;
        } else {
            frame.jpeg.reset();
            frame.bgr = m;
            frame.width = m.cols;
            frame.height = m.rows;
        }
        setSize(frame.width, frame.height);
        return true;
    }

    std::vector<std::pair<int, int>> sizes() override
    {
        std::vector<std::pair<int, int>> out;
        Fd fd(m_device);
        if (fd.get() < 0)
            return out;
        // The sizes of the MJPEG mode when there is one, else of the first format.
        const std::set<unsigned> fmts = formats(fd.get());
        if (fmts.empty())
            return out;
        const unsigned fmt = fmts.count(V4L2_PIX_FMT_MJPEG) ? V4L2_PIX_FMT_MJPEG : *fmts.begin();
        v4l2_frmsizeenum fs{};
        fs.pixel_format = fmt;
        for (fs.index = 0; xioctl(fd.get(), VIDIOC_ENUM_FRAMESIZES, &fs) == 0; ++fs.index) {
            if (fs.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
                out.emplace_back(static_cast<int>(fs.discrete.width), static_cast<int>(fs.discrete.height));
            } else {
                // Stepwise or continuous: offer the largest and the smallest.
                out.emplace_back(static_cast<int>(fs.stepwise.max_width), static_cast<int>(fs.stepwise.max_height));
                out.emplace_back(static_cast<int>(fs.stepwise.min_width), static_cast<int>(fs.stepwise.min_height));
                break;
            }
        }
        std::stable_sort(out.begin(), out.end(), [](const auto& a, const auto& b) {
            return static_cast<long>(a.first) * a.second > static_cast<long>(b.first) * b.second;
        });
        out.erase(std::unique(out.begin(), out.end()), out.end());
        return out;
    }

    // The grabber thread writes the size with every frame; the camera's controls read it.
    std::pair<int, int> currentSize() const override
    {
        std::lock_guard<std::mutex> lock(m_sizeMutex);
        return {m_w, m_h};
    }

    bool setControl(Control control, int value) override
    {
        Fd fd(m_device);
        if (fd.get() < 0) {
            logLine(QStringLiteral("%1: cannot be opened to set a control: %2").arg(describe(), QString::fromLocal8Bit(std::strerror(errno))));
            return false;
        }
        switch (control) {
        case Control::Exposure:
            // Manual exposure first, or the camera ignores the absolute value.
            setCtrl(fd.get(), V4L2_CID_EXPOSURE_AUTO, V4L2_EXPOSURE_MANUAL, "exposure mode");
            return setCtrl(fd.get(), V4L2_CID_EXPOSURE_ABSOLUTE, value, "exposure");
        case Control::Brightness:
            return setCtrl(fd.get(), V4L2_CID_BRIGHTNESS, value, "brightness");
        case Control::Contrast:
            return setCtrl(fd.get(), V4L2_CID_CONTRAST, value, "contrast");
        case Control::AutoFocus:
            return setCtrl(fd.get(), V4L2_CID_FOCUS_AUTO, 1, "auto focus");
        }
        return false;
    }

    QString describe() const override { return QStringLiteral("camera %1 (%2)").arg(m_number).arg(m_device); }
    QString devicePath() const override { return m_device; }

private:
    void setSize(int w, int h)
    {
        std::lock_guard<std::mutex> lock(m_sizeMutex);
        m_w = w;
        m_h = h;
    }

    std::set<unsigned> formats() const
    {
        Fd fd(m_device);
        return fd.get() < 0 ? std::set<unsigned>() : formats(fd.get());
    }

    static std::set<unsigned> formats(int fd)
    {
        std::set<unsigned> out;
        v4l2_fmtdesc d{};
        d.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        for (d.index = 0; xioctl(fd, VIDIOC_ENUM_FMT, &d) == 0; ++d.index)
            out.insert(d.pixelformat);
        return out;
    }

    bool setCtrl(int fd, unsigned id, int value, const char* what) const
    {
        v4l2_queryctrl q{};
        q.id = id;
        if (xioctl(fd, VIDIOC_QUERYCTRL, &q) != 0 || (q.flags & V4L2_CTRL_FLAG_DISABLED)) {
            logLine(QStringLiteral("%1: has no %2 control").arg(describe(), QLatin1String(what)));
            return false;
        }
        if (value < q.minimum || value > q.maximum) {
            logLine(QStringLiteral("%1: %2 %3 is outside %4..%5")
                        .arg(describe(), QLatin1String(what))
                        .arg(value)
                        .arg(q.minimum)
                        .arg(q.maximum));
            return false;
        }
        v4l2_control c{};
        c.id = id;
        c.value = value;
        if (xioctl(fd, VIDIOC_S_CTRL, &c) != 0) {
            logLine(QStringLiteral("%1: setting %2 to %3 failed: %4")
                        .arg(describe(), QLatin1String(what))
                        .arg(value)
                        .arg(QString::fromLocal8Bit(std::strerror(errno))));
            return false;
        }
        return true;
    }

    const int m_number;
    const QString m_device;
    std::unique_ptr<cv::VideoCapture> m_cap;
    bool m_raw = false;
    mutable std::mutex m_sizeMutex;
    int m_w = 0, m_h = 0;   // guarded by m_sizeMutex
};

}  // namespace

QStringList v4l2CaptureDevices()
{
    QStringList out;
    QSet<QString> seen;   // real nodes already listed, so a by-id name and its node count once
    const QDir byId(QStringLiteral("/dev/v4l/by-id"));
    for (const QFileInfo& fi : byId.entryInfoList(QDir::System | QDir::Files, QDir::Name)) {
        const QString node = fi.canonicalFilePath();
        if (!node.isEmpty() && !seen.contains(node) && isCaptureDevice(fi.absoluteFilePath())) {
            seen.insert(node);
            out << fi.absoluteFilePath();
        }
    }
    QDir dev(QStringLiteral("/dev"));
    QStringList nodes = dev.entryList({QStringLiteral("video*")}, QDir::System);
    std::sort(nodes.begin(), nodes.end(), [](const QString& a, const QString& b) {
        return a.mid(5).toInt() < b.mid(5).toInt();
    });
    for (const QString& n : nodes) {
        const QString path = QStringLiteral("/dev/") + n;
        if (!seen.contains(path) && isCaptureDevice(path)) {
            seen.insert(path);
            out << path;
        }
    }
    return out;
}

std::unique_ptr<CameraSource> makeV4l2Source(int cameraNumber, const QString& device)
{
    return std::make_unique<V4l2Source>(cameraNumber, device);
}

}  // namespace portable
