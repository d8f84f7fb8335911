// Where a camera's frames come from: a V4L2 device, a synthetic document page, or a file.
// A source is used by one grabber thread at a time; controls may be set from other threads.
#pragma once

#include <QString>

#include <opencv2/core.hpp>

#include <memory>
#include <utility>
#include <vector>

namespace portable {

// One grabbed frame: either the camera's compressed MJPEG bytes (decoded only when somebody
// fetches it, at the scale the fetch needs) or an already decoded BGR image.
struct RawFrame {
    std::shared_ptr<const std::vector<unsigned char>> jpeg;
    cv::Mat bgr;
    int width = 0;
    int height = 0;

    bool empty() const { return !jpeg && bgr.empty(); }
};

enum class Control { Exposure, Brightness, Contrast, AutoFocus };

class CameraSource {
public:
    virtual ~CameraSource() = default;

    // Opens at the requested size (0 x 0: the source's own default). False, with a log line
    // naming the device, when it cannot.
    virtual bool open(int width, int height) = 0;
    virtual void close() = 0;
    // Blocks until the next frame is due and returns it; false when the device failed.
    virtual bool grab(RawFrame& frame) = 0;
    // The frame sizes the source offers, largest first.
    virtual std::vector<std::pair<int, int>> sizes() = 0;
    // The size it delivers now (or would deliver when opened with the default).
    virtual std::pair<int, int> currentSize() const = 0;
    virtual bool setControl(Control control, int value) = 0;
    // For log lines: "camera 2 (/dev/v4l/by-id/...)".
    virtual QString describe() const = 0;
    // The V4L2 device node behind the source, empty for others (the capture button needs it).
    virtual QString devicePath() const { return QString(); }
    // Frames a second it delivers; 0 when it cannot tell.
    virtual double frameRate() const { return 0; }
};

// The source the profile chooses for a camera number (with the defaults for absent keys).
std::unique_ptr<CameraSource> makeCameraSource(int cameraNumber);

std::unique_ptr<CameraSource> makeSyntheticSource(int cameraNumber, int width, int height, double fps, bool mjpeg);
std::unique_ptr<CameraSource> makeV4l2Source(int cameraNumber, const QString& device);
std::unique_ptr<CameraSource> makeFileSource(int cameraNumber, const QString& path, double fps);
// The face camera's stand-in: a face photograph that sways and blinks.
std::unique_ptr<CameraSource> makeFaceSource(int cameraNumber, int width, int height, double fps);

// V4L2 capture devices of this machine, in a stable order (by-id names where there are some).
QStringList v4l2CaptureDevices();

// --- JPEG helpers (libturbojpeg) ------------------------------------------------------------
// Size of a JPEG image, false when it is not one.
bool jpegSize(const std::vector<unsigned char>& jpeg, int* width, int* height);
// Decodes to BGR at full size.
cv::Mat decodeJpegBgr(const std::vector<unsigned char>& jpeg);
// Decodes into 4-byte BGRX pixels (QImage::Format_RGB32 order) straight into dst; a destination
// smaller than the image (1/2, 1/4 of it) selects the DCT scale. False when it is not a JPEG.
bool decodeJpegBgrx(const std::vector<unsigned char>& jpeg, unsigned char* dst, int width, int pitch, int height);
// Encodes BGR or grey pixels; the JFIF header carries the given density in dots per inch.
std::vector<unsigned char> encodeJpeg(const cv::Mat& image, int quality, int dpiX = 0, int dpiY = 0);

}  // namespace portable
