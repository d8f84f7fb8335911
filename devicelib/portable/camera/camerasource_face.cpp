// The face camera without hardware: a real face photograph (Grace Hopper, shipped in the
// library) that sways a little and blinks, so face detection, matching and liveness work end
// to end. Every 45th frame (3 s at 15 frames a second) the eyelids close over the eyes for two
// frames, with a half-closed frame on each side: the blink counts frames, not time, so a slow
// reader still sees every blink.
#include "devicelib/portable/camera/camerasource.h"
#include "devicelib/portable/core.h"

#include <QFile>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <chrono>
#include <cmath>
#include <thread>

static void initFaceResources()
{
    Q_INIT_RESOURCE(face);
}

namespace portable {

namespace {

// The eye outlines of the shipped photograph (512 x 600), six points each, from dlib's
// 68-point model (points 36-41 and 42-47), as bench_biometrics --landmarks prints them.
const cv::Point2f kEyes[2][6] = {
    {{208, 194}, {217, 187}, {227, 186}, {237, 194}, {228, 196}, {217, 197}},
    {{291, 192}, {301, 182}, {311, 182}, {320, 189}, {312, 193}, {302, 193}},
};

constexpr int kBlinkPeriod = 45;
constexpr int kBlinkStart = 8;   // the first blink about half a second after opening

cv::Mat loadPhoto()
{
    initFaceResources();
    QFile f(QStringLiteral(":/portable/face/grace_hopper.jpg"));
    if (!f.open(QIODevice::ReadOnly))
        return cv::Mat();
    const QByteArray bytes = f.readAll();
    return cv::imdecode(cv::Mat(1, bytes.size(), CV_8U, const_cast<char*>(bytes.data())), cv::IMREAD_COLOR);
}

class FaceSource final : public CameraSource {
public:
    FaceSource(int number, int width, int height, double fps) : m_number(number), m_w(width), m_h(height), m_fps(fps) {}

    bool open(int width, int height) override
    {
        if (width > 0 && height > 0) {
            m_w = width;
            m_h = height;
        }
        m_photo = loadPhoto();
        if (m_photo.empty()) {
            logLine(QStringLiteral("%1: the face photograph is missing from the library").arg(describe()));
            return false;
        }
        // Skin colour for the eyelids: the cheek just below each eye.
        for (int e = 0; e < 2; ++e) {
            const cv::Rect eye = cv::boundingRect(std::vector<cv::Point2f>(kEyes[e], kEyes[e] + 6));
            const cv::Rect cheek(eye.x, eye.y + eye.height * 2, std::max(1, eye.width), std::max(1, eye.height));
            m_skin[e] = cv::mean(m_photo(cheek & cv::Rect(0, 0, m_photo.cols, m_photo.rows)));
        }
        m_count = 0;
        m_next = std::chrono::steady_clock::now();
        return true;
    }

    void close() override { m_photo.release(); }

    bool grab(RawFrame& frame) override
    {
        if (m_photo.empty())
            return false;
        const auto period = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(1.0 / m_fps));
        m_next += period;
        const auto now = std::chrono::steady_clock::now();
        if (m_next > now)
            std::this_thread::sleep_until(m_next);
        else if (now - m_next > period)
            m_next = now;
        frame.bgr = render(m_count++);
        frame.jpeg.reset();
        frame.width = frame.bgr.cols;
        frame.height = frame.bgr.rows;
        return true;
    }

    std::vector<std::pair<int, int>> sizes() override { return {{m_w, m_h}}; }
    std::pair<int, int> currentSize() const override { return {m_w, m_h}; }
    bool setControl(Control, int) override { return true; }
    QString describe() const override { return QStringLiteral("camera %1 (synthetic face %2x%3)").arg(m_number).arg(m_w).arg(m_h); }

private:
    // 0 open, 1 half closed, 2 closed.
    static int lid(unsigned long long n)
    {
        if (n < static_cast<unsigned long long>(kBlinkStart))
            return 0;
        const int k = static_cast<int>((n - kBlinkStart) % kBlinkPeriod);
        return k == 0 || k == 3 ? 1 : k == 1 || k == 2 ? 2 : 0;
    }

    cv::Mat render(unsigned long long n) const
    {
        cv::Mat face = m_photo.clone();
        const int state = lid(n);
        for (int e = 0; state && e < 2; ++e)
            drawLid(face, kEyes[e], m_skin[e], state == 2);
        // The photograph fills 90 % of the height and sways by a few pixels.
        const double s = 0.9 * m_h / face.rows;
        const double t = static_cast<double>(n) / m_fps;
        const double dx = 6 * std::sin(2 * CV_PI * t / 5.0);
        const double dy = 3 * std::sin(2 * CV_PI * t / 3.7);
        cv::Mat m = (cv::Mat_<double>(2, 3) << s, 0, (m_w - face.cols * s) / 2 + dx, 0, s, (m_h - face.rows * s) / 2 + dy);
        cv::Mat out(m_h, m_w, CV_8UC3, cv::Scalar(110, 110, 110));
        cv::warpAffine(face, out, m, out.size(), cv::INTER_LINEAR, cv::BORDER_TRANSPARENT);
        return out;
    }

    // Closed: skin over the whole eye and a line of lashes along its lower edge. Half closed:
    // skin over its upper half.
    static void drawLid(cv::Mat& img, const cv::Point2f* eye, const cv::Scalar& skin, bool closed)
    {
        const cv::Point2f c = (eye[0] + eye[3]) * 0.5f;
        const float lower = std::max(eye[4].y, eye[5].y);
        std::vector<cv::Point> lidShape;
        for (int i = 0; i < 6; ++i) {
            cv::Point2f p = c + (eye[i] - c) * 1.5f;
            if (!closed && i >= 4)
                p.y = c.y;
            if (closed && i >= 4)
                p.y = lower + 2;
            lidShape.emplace_back(cvRound(p.x), cvRound(p.y));
        }
        // The upper edge a little higher, where the brow's skin begins.
        lidShape[1].y -= 3;
        lidShape[2].y -= 3;
        cv::fillConvexPoly(img, lidShape, skin, cv::LINE_AA);
        if (closed) {
            const cv::Point a(cvRound(eye[0].x), cvRound(eye[0].y)), b(cvRound(eye[3].x), cvRound(eye[3].y));
            const cv::Point m(cvRound(c.x), cvRound(lower));
            cv::line(img, a, m, cv::Scalar(40, 40, 50), 2, cv::LINE_AA);
            cv::line(img, m, b, cv::Scalar(40, 40, 50), 2, cv::LINE_AA);
        }
    }

    const int m_number;
    int m_w, m_h;
    const double m_fps;
    cv::Mat m_photo;
    cv::Scalar m_skin[2];
    unsigned long long m_count = 0;
    std::chrono::steady_clock::time_point m_next;
};

}  // namespace

std::unique_ptr<CameraSource> makeFaceSource(int cameraNumber, int width, int height, double fps)
{
    return std::make_unique<FaceSource>(cameraNumber, width, height, fps);
}

}  // namespace portable
