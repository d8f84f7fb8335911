// A camera without hardware: a document page with text lines, a Code 128 barcode above a QR code
// (both decodable), a moving marker and a frame counter, paced at the chosen frame rate. In MJPEG
// mode each frame is encoded once when it is produced, like a real camera's, so the preview's
// decode path can be measured.
#include "devicelib/portable/camera/camerasource.h"
#include "devicelib/portable/core.h"

#include <ZXing/BitMatrix.h>
#include <ZXing/MultiFormatWriter.h>

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>

namespace portable {

namespace {

// The sizes a typical 5 MP document camera offers; a source lists those up to its own size.
const std::pair<int, int> kCommonSizes[] = {{2592, 1944}, {2048, 1536}, {1920, 1080}, {1600, 1200}, {1280, 960},
                                            {1280, 720},  {1024, 768},  {800, 600},   {640, 480}};

class SyntheticSource final : public CameraSource {
public:
    SyntheticSource(int number, int width, int height, double fps, bool mjpeg)
        : m_number(number), m_nativeW(width), m_nativeH(height), m_fps(fps), m_mjpeg(mjpeg), m_w(width), m_h(height)
    {
    }

    bool open(int width, int height) override
    {
        m_w = width > 0 ? width : m_nativeW;
        m_h = height > 0 ? height : m_nativeH;
        renderPage();
        m_next = std::chrono::steady_clock::now();
        return true;
    }

    void close() override { m_page.release(); }

    bool grab(RawFrame& frame) override
    {
        // Pace like a camera: one frame per period, without drifting.
        const auto period = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(1.0 / m_fps));
        m_next += period;
        const auto now = std::chrono::steady_clock::now();
        if (m_next > now)
            std::this_thread::sleep_until(m_next);
        else if (now - m_next > period)
            m_next = now;   // fell behind (a slow machine): do not burst to catch up

        cv::Mat img = m_page.clone();
        drawMoving(img, ++m_count);
        adjust(img);
        frame.width = img.cols;
        frame.height = img.rows;
        if (m_mjpeg) {
            frame.jpeg = std::make_shared<const std::vector<unsigned char>>(encodeJpeg(img, 85));
            frame.bgr.release();
        } else {
            frame.jpeg.reset();
            frame.bgr = img;
        }
        return true;
    }

    std::vector<std::pair<int, int>> sizes() override
    {
        std::vector<std::pair<int, int>> out{{m_nativeW, m_nativeH}};
        for (const auto& s : kCommonSizes)
            if (s.first <= m_nativeW && s.second <= m_nativeH && s != out.front())
                out.push_back(s);
        return out;
    }

    std::pair<int, int> currentSize() const override { return {m_w, m_h}; }
    double frameRate() const override { return m_fps; }

    // The synthetic camera answers the controls with image adjustments, in the ranges a UVC
    // camera typically reports: exposure 1..5000 (156 neutral), brightness -64..64 (0
    // neutral), contrast 0..95 (32 neutral).
    bool setControl(Control control, int value) override
    {
        switch (control) {
        case Control::Exposure:
            if (value < 1 || value > 5000)
                return outOfRange("exposure", value, "1..5000");
            m_exposure = value;
            return true;
        case Control::Brightness:
            if (value < -64 || value > 64)
                return outOfRange("brightness", value, "-64..64");
            m_brightness = value;
            return true;
        case Control::Contrast:
            if (value < 0 || value > 95)
                return outOfRange("contrast", value, "0..95");
            m_contrast = value;
            return true;
        case Control::AutoFocus:
            return true;   // always in focus
        }
        return false;
    }

    QString describe() const override
    {
        return QStringLiteral("camera %1 (synthetic %2x%3%4)")
            .arg(m_number)
            .arg(m_nativeW)
            .arg(m_nativeH)
            .arg(m_mjpeg ? QStringLiteral(" MJPEG") : QString());
    }

private:
    bool outOfRange(const char* what, int value, const char* range) const
    {
        logLine(QStringLiteral("%1: %2 %3 is outside %4").arg(describe(), QLatin1String(what)).arg(value).arg(
            QLatin1String(range)));
        return false;
    }

    void renderPage()
    {
        const double u = m_h / 1000.0;   // drawing unit, so every size shows the same page
        m_page = cv::Mat(m_h, m_w, CV_8UC3, cv::Scalar(60, 64, 70));
        const int margin = static_cast<int>(40 * u);
        const cv::Rect paper(margin * 2, margin, std::max(1, m_w - margin * 4), std::max(1, m_h - margin * 2));
        // A faint tint per camera number, so side-by-side previews are told apart.
        const cv::Scalar paperColour(245 - 6 * (m_number % 3), 245 - 6 * ((m_number + 1) % 3), 240);
        cv::rectangle(m_page, paper, paperColour, cv::FILLED);

        const int font = cv::FONT_HERSHEY_SIMPLEX;
        const int x0 = paper.x + static_cast<int>(40 * u);
        int y = paper.y + static_cast<int>(80 * u);
        cv::putText(m_page, "CAMERA " + std::to_string(m_number) + "  -  SAMPLE DOCUMENT", {x0, y}, font, 1.6 * u,
                    cv::Scalar(20, 20, 20), std::max(1, static_cast<int>(3 * u)), cv::LINE_AA);
        static const char* const lines[] = {
            "Application for account opening",
            "Name: ____________________   Date of birth: __________",
            "Address: _______________________________________________",
            "Identity document no.: __________________________",
            "I confirm that the information above is correct.",
            "Signature: ______________________   Date: __________",
        };
        for (const char* line : lines) {
            y += static_cast<int>(70 * u);
            cv::putText(m_page, line, {x0, y}, font, 0.9 * u, cv::Scalar(40, 40, 40), std::max(1, static_cast<int>(2 * u)),
                        cv::LINE_AA);
        }
        // Real codes a reader decodes: a Code 128 "RVO-CAMERA-<n>" above a QR code "rvo:camera:<n>".
        const int by = y + static_cast<int>(60 * u);
        const int bh = static_cast<int>(100 * u);
        const int module = std::max(1, static_cast<int>(3 * u));
        const ZXing::BitMatrix bars =
            ZXing::MultiFormatWriter(ZXing::BarcodeFormat::Code128).setMargin(0).encode("RVO-CAMERA-" + std::to_string(m_number), 0, 1);
        for (int i = 0; i < bars.width(); ++i)
            if (bars.get(i, 0))
                cv::rectangle(m_page, cv::Rect(x0 + i * module, by, module, bh), cv::Scalar(0, 0, 0), cv::FILLED);
        const ZXing::BitMatrix qr =
            ZXing::MultiFormatWriter(ZXing::BarcodeFormat::QRCode).setMargin(0).encode("rvo:camera:" + std::to_string(m_number), 0, 0);
        const int cell = std::max(2, static_cast<int>(140 * u) / std::max(1, qr.width()));
        const int qy = by + bh + static_cast<int>(30 * u);
        for (int r = 0; r < qr.height(); ++r)
            for (int c = 0; c < qr.width(); ++c)
                if (qr.get(c, r))
                    cv::rectangle(m_page, cv::Rect(x0 + c * cell, qy + r * cell, cell, cell), cv::Scalar(0, 0, 0), cv::FILLED);
        m_counterOrigin = cv::Point(x0 + qr.width() * cell + static_cast<int>(60 * u), qy + qr.height() * cell / 2);
    }

    void drawMoving(cv::Mat& img, unsigned long long n) const
    {
        const double u = m_h / 1000.0;
        const double phase = std::fmod(n / (m_fps * 4.0), 1.0);   // across the page in 4 s
        const int x = static_cast<int>(img.cols * (0.1 + 0.8 * phase));
        cv::circle(img, {x, img.rows - static_cast<int>(90 * u)}, std::max(2, static_cast<int>(30 * u)),
                   cv::Scalar(30, 30, 200), cv::FILLED);
        cv::putText(img, "frame " + std::to_string(n), m_counterOrigin, cv::FONT_HERSHEY_SIMPLEX, 1.2 * u,
                    cv::Scalar(160, 40, 0), std::max(1, static_cast<int>(2 * u)), cv::LINE_AA);
    }

    void adjust(cv::Mat& img) const
    {
        const int e = m_exposure, b = m_brightness, c = m_contrast;
        if (e == 156 && b == 0 && c == 32)
            return;
        const double alpha = (c / 32.0) * std::min(4.0, e / 156.0);
        img.convertTo(img, -1, alpha, b * 2.0 + 128.0 * (1.0 - c / 32.0));
    }

    const int m_number;
    const int m_nativeW, m_nativeH;
    const double m_fps;
    const bool m_mjpeg;
    int m_w, m_h;
    cv::Mat m_page;
    cv::Point m_counterOrigin;
    unsigned long long m_count = 0;
    std::chrono::steady_clock::time_point m_next;
    std::atomic<int> m_exposure{156};
    std::atomic<int> m_brightness{0};
    std::atomic<int> m_contrast{32};
};

}  // namespace

std::unique_ptr<CameraSource> makeSyntheticSource(int cameraNumber, int width, int height, double fps, bool mjpeg)
{
    return std::make_unique<SyntheticSource>(cameraNumber, width, height, fps, mjpeg);
}

}  // namespace portable
