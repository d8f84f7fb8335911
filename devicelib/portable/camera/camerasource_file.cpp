// A camera played from a file: a still image shown again at the frame rate, or a video looped.
// A JPEG image is handed over as its compressed bytes, like an MJPEG camera's frame.
// An image is read again when the file changes (looked at by path once a second, so a file
// renamed over it counts): replacing the file is how a page is "laid under" this camera.
// Also chooses each camera number's source from the device profile.
#include "devicelib/portable/camera/camerasource.h"
#include "devicelib/portable/core.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonObject>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include <chrono>
#include <thread>

#include <sys/stat.h>

namespace portable {

namespace {

class FileSource final : public CameraSource {
public:
    FileSource(int number, const QString& path, double fps) : m_number(number), m_path(path), m_fps(fps) {}

    bool open(int width, int height) override
    {
        close();
        m_next = std::chrono::steady_clock::now();
        QFile f(m_path);
        if (!f.open(QIODevice::ReadOnly)) {
            logLine(QStringLiteral("%1: cannot be read (%2)").arg(describe(), f.errorString()));
            return false;
        }
        f.close();
        m_stamp = stamp();
        m_nextCheck = m_next + std::chrono::seconds(1);
        if (!readImage()) {
            m_video = std::make_unique<cv::VideoCapture>(QFile::encodeName(m_path).toStdString());
            if (!m_video->isOpened()) {
                logLine(QStringLiteral("%1: is neither an image nor a video this system can read").arg(describe()));
                m_video.reset();
                return false;
            }
            if (m_fps <= 0)
                m_fps = m_video->get(cv::CAP_PROP_FPS);
        }
        // Below a frame every 100 s the frame period no longer fits the clock's tick count.
        if (m_fps < 0.01 || m_fps > 120)
            m_fps = 10;
        m_reqW = width;
        m_reqH = height;
        fitSize();
        return true;
    }

    void close() override
    {
        m_video.reset();
        m_still.release();
        m_jpeg.reset();
    }

    bool grab(RawFrame& frame) override
    {
        m_next += std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(1.0 / m_fps));
        const auto now = std::chrono::steady_clock::now();
        if (m_next > now)
            std::this_thread::sleep_until(m_next);
        else
            m_next = now;
        if (!m_video && now >= m_nextCheck) {
            m_nextCheck = now + std::chrono::seconds(1);
            const Stamp st = stamp();
            // A file caught half written stays unread; the next look tries again.
            if (st != m_stamp && readImage()) {
                m_stamp = st;
                fitSize();
            }
        }
        frame.width = m_w;
        frame.height = m_h;
        if (m_jpeg) {
            frame.jpeg = m_jpeg;
            frame.bgr.release();
            return true;
        }
        cv::Mat m;
        if (m_video) {
            if (!m_video->read(m) || m.empty()) {
                m_video->set(cv::CAP_PROP_POS_FRAMES, 0);   // loop
                if (!m_video->read(m) || m.empty())
                    return false;
            }
        } else if (!m_still.empty()) {
            m = m_still;
        } else {
            return false;
        }
        if (m.cols != m_w || m.rows != m_h)
            cv::resize(m, m, cv::Size(m_w, m_h), 0, 0, cv::INTER_AREA);
        else
            m = m.clone();   // the slot owns its frame; the file's image stays ours
        frame.jpeg.reset();
        frame.bgr = m;
        return true;
    }

    std::vector<std::pair<int, int>> sizes() override
    {
        if (m_still.empty() && !m_video) {
            // Not open: look at the file once.
            const cv::Mat probe = cv::imread(QFile::encodeName(m_path).toStdString(), cv::IMREAD_COLOR);
            if (!probe.empty())
                return {{probe.cols, probe.rows}};
            cv::VideoCapture v(QFile::encodeName(m_path).toStdString());
            if (v.isOpened())
                return {{static_cast<int>(v.get(cv::CAP_PROP_FRAME_WIDTH)), static_cast<int>(v.get(cv::CAP_PROP_FRAME_HEIGHT))}};
            return {};
        }
        const auto n = nativeSize();
        return {n};
    }

    std::pair<int, int> currentSize() const override { return {m_w, m_h}; }
    double frameRate() const override { return m_fps; }

    bool setControl(Control control, int) override
    {
        if (control == Control::AutoFocus)
            return true;
        logLine(QStringLiteral("%1: a file has no exposure, brightness or contrast control").arg(describe()));
        return false;
    }

    QString describe() const override { return QStringLiteral("camera %1 (file %2)").arg(m_number).arg(m_path); }

private:
    // What identifies the file's content by its path: a replaced or rewritten file differs.
    struct Stamp {
        long long mtimeNs = -1;
        long long size = -1;
        unsigned long long inode = 0;
        bool operator!=(const Stamp& o) const { return mtimeNs != o.mtimeNs || size != o.size || inode != o.inode; }
    };

    Stamp stamp() const
    {
        struct stat st {};
        if (::stat(QFile::encodeName(m_path).constData(), &st) != 0)
            return Stamp();
        return Stamp{static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec,
                     static_cast<long long>(st.st_size), static_cast<unsigned long long>(st.st_ino)};
    }

    // Reads the file as an image (its bytes too when it is a JPEG); false when it is none.
    bool readImage()
    {
        QFile f(m_path);
        if (!f.open(QIODevice::ReadOnly))
            return false;
        const QByteArray all = f.readAll();
        const cv::Mat buf(1, all.size(), CV_8UC1, const_cast<char*>(all.constData()));
        const cv::Mat img = all.isEmpty() ? cv::Mat() : cv::imdecode(buf, cv::IMREAD_COLOR);
        if (img.empty())
            return false;
        m_still = img;
        m_jpeg.reset();
        if (all.startsWith("\xff\xd8"))
            m_jpeg = std::make_shared<const std::vector<unsigned char>>(all.begin(), all.end());
        return true;
    }

    // A size other than the file's own is given by scaling.
    void fitSize()
    {
        const std::pair<int, int> native = nativeSize();
        m_w = m_reqW > 0 ? m_reqW : native.first;
        m_h = m_reqH > 0 ? m_reqH : native.second;
        if (m_w != native.first || m_h != native.second)
            m_jpeg.reset();
    }

    std::pair<int, int> nativeSize() const
    {
        if (!m_still.empty())
            return {m_still.cols, m_still.rows};
        if (m_video)
            return {static_cast<int>(m_video->get(cv::CAP_PROP_FRAME_WIDTH)),
                    static_cast<int>(m_video->get(cv::CAP_PROP_FRAME_HEIGHT))};
        return {0, 0};
    }

    const int m_number;
    const QString m_path;
    double m_fps;
    cv::Mat m_still;
    std::shared_ptr<const std::vector<unsigned char>> m_jpeg;
    std::unique_ptr<cv::VideoCapture> m_video;
    int m_w = 0, m_h = 0;
    int m_reqW = 0, m_reqH = 0;
    std::chrono::steady_clock::time_point m_next;
    std::chrono::steady_clock::time_point m_nextCheck;
    Stamp m_stamp;
};

// Synthetic defaults: a 5 MP document camera at 15 frames a second.
constexpr int kSyntheticWidth = 2592;
constexpr int kSyntheticHeight = 1944;
constexpr double kSyntheticFps = 15;

std::unique_ptr<CameraSource> defaultSource(int number)
{
    const QStringList devices = v4l2CaptureDevices();
    if (number >= 1 && number <= devices.size())
        return makeV4l2Source(number, devices.at(number - 1));
    // Camera 4 is the face camera: without one, a face, so the face functions have one to see.
    if (number == 4)
        return makeFaceSource(number, 640, 480, kSyntheticFps);
    return makeSyntheticSource(number, kSyntheticWidth, kSyntheticHeight, kSyntheticFps, false);
}

}  // namespace

std::unique_ptr<CameraSource> makeFileSource(int cameraNumber, const QString& path, double fps)
{
    return std::make_unique<FileSource>(cameraNumber, path, fps);
}

std::unique_ptr<CameraSource> makeCameraSource(int number)
{
    const QString key = QStringLiteral("camera.sources.%1").arg(number);
    const QJsonValue v = profileValue(key, QJsonValue());
    if (v.isUndefined() || v.isNull())
        return defaultSource(number);
    auto bad = [&](const QString& subKey, const QString& why) {
        logLine(QStringLiteral("device profile %1: key \"%2\" %3; using the default source")
                    .arg(profileSource(), subKey.isEmpty() ? key : key + "." + subKey, why));
        return defaultSource(number);
    };
    if (!v.isObject())
        return bad(QString(), QStringLiteral("is not an object"));
    const QJsonObject o = v.toObject();
    const QString type = o.value("type").toString();
    // Optional numbers: absent means the default; present but not a positive number is a fault.
    auto number_ = [&](const char* name, double fallback, double* out) {
        const QJsonValue n = o.value(QLatin1String(name));
        if (n.isUndefined()) {
            *out = fallback;
            return true;
        }
        if (!n.isDouble() || n.toDouble() <= 0)
            return false;
        *out = n.toDouble();
        return true;
    };
    if (type == QLatin1String("v4l2")) {
        const QString device = o.value("device").toString();
        if (device.isEmpty())
            return bad(QStringLiteral("device"), QStringLiteral("is missing or not a text"));
        return makeV4l2Source(number, device);
    }
    if (type == QLatin1String("synthetic")) {
        double w = 0, h = 0, fps = 0;
        // At least one whole pixel: a width of 0.5 passed as "positive" and became an empty page.
        if (!number_("width", kSyntheticWidth, &w) || w < 1 || w > 16384)
            return bad(QStringLiteral("width"), QStringLiteral("is not a width in pixels"));
        if (!number_("height", kSyntheticHeight, &h) || h < 1 || h > 16384)
            return bad(QStringLiteral("height"), QStringLiteral("is not a height in pixels"));
        // A frame every 100 s at the slowest: the frame period must fit the clock's tick count.
        if (!number_("fps", kSyntheticFps, &fps) || fps < 0.01 || fps > 120)
            return bad(QStringLiteral("fps"), QStringLiteral("is not a frame rate (0.01 to 120)"));
        const QJsonValue mj = o.value("mjpeg");
        if (!mj.isUndefined() && !mj.isBool())
            return bad(QStringLiteral("mjpeg"), QStringLiteral("is not true or false"));
        return makeSyntheticSource(number, static_cast<int>(w), static_cast<int>(h), fps, mj.toBool(false));
    }
    if (type == QLatin1String("file")) {
        const QString path = o.value("path").toString();
        if (path.isEmpty())
            return bad(QStringLiteral("path"), QStringLiteral("is missing or not a text"));
        double fps = 0;
        if (!number_("fps", 0, &fps) && !o.value("fps").isUndefined())
            return bad(QStringLiteral("fps"), QStringLiteral("is not a frame rate"));
        return makeFileSource(number, path, fps);
    }
    return bad(QStringLiteral("type"), QStringLiteral("is not \"v4l2\", \"synthetic\" or \"file\""));
}

}  // namespace portable
