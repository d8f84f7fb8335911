// The portable document camera: camera sources, the preview's newest-frame slot, settings
// and still capture. The C entry points in camera.cpp are one line each into Camera.
#pragma once

#include <QImage>
#include <QString>

#include "devicelib/portable/core.h"

#include <opencv2/core.hpp>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

typedef void (*CapturePinListener)(int, int, int, unsigned int, int, void*);

namespace portable {

struct StillFormat;

enum class Still { Jpeg, TiffJpeg, Gray, Tiff, Bmp, Png };

class Camera {
public:
    Camera();
    ~Camera();
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    // Preview: which cameras show in the preview (camera numbers as the start commands use).
    bool startPreview(const std::vector<int>& cameras, int rotate, bool setRotate);
    bool stopPreview();
    bool startAux();    // camera 4, beside the preview
    bool stopAux();
    bool avPreview(long long camera, long long resolutionIndex);
    void setImageDispFlag(bool flag);

    bool videoFrame(QImage& frame);
    bool videoFrameMat(cv::Mat& frame);
    // The same frame for keeping (the server's base64 captures): with the watermark.
    bool capturedFrameMat(cv::Mat& frame);
    // For a recording: the preview camera's newest frame, at least minWidth wide where the camera
    // is, oriented, as BGR or BGRX; its number in *seq and the camera's frame rate (0: unknown) in *fps.
    // False with no camera open or no frame within a second.
    bool recordingFrame(int minWidth, cv::Mat& bgrx, unsigned long long* seq, double* fps);

    // Settings.
    bool setMode(int mode);
    void setCameraMode(short mode);
    void setResolutionIndex(int camera, int index);
    void setResolution(int camera, int width, int height);
    int resolutionX(int camera);
    int resolutionY(int camera);
    void resolutionList(int camera, std::vector<std::pair<double, double>>& sizes);
    void setRotate(int angle);
    short rotate() const;
    void setFlip(int mode);
    short flip() const;
    bool setExposure(int value);
    bool setBrightness(int value);
    bool setContrast(int value);
    bool autoFocus();
    bool setDpi(long long x, long long y);
    void dpi(int* x, int* y) const;
    bool setImageArea(int x1, int y1, int x2, int y2);
    long imageArea(int which) const;
    bool setImageQuality(int quality);
    short imageQuality() const;
    bool setBookScannerMode(int mode);
    int bookScannerMode() const;
    void setCapturePin(CapturePinListener listener);

    // Stills.
    bool saveStill(Still kind, const char* dir, const char* name);
    bool saveGrayAndTiff(const char* dir1, const char* name1, const char* dir2, const char* name2);
    bool splitPicture(const char* source, const char* prefix);
    Text imageBase64(int quality);

    // For the documents and scanning: the still as bSaveJPG would save it (oriented, cropped,
    // colour mode; forceMode >= 0 overrides the mode), with its DPI and quality in *format.
    // Empty, with a log line naming fn, when no camera is open or it gives no frame.
    cv::Mat stillFrame(const char* fn, StillFormat* format, int forceMode = -1);
    // The preview camera's newest frame as a small grey picture about `width` pixels wide,
    // cheap enough to watch every frame; *seq tells frames apart. False with no camera open.
    bool watchFrame(int width, cv::Mat& grey, unsigned long long* seq);
    bool previewOpen() const;
    // Runs after every stop of the preview (bStopPlay), outside the camera's lock.
    void addStopHook(std::function<void()> hook);

    struct Impl;   // the open cameras and the settings (cameradevice.cpp)

private:
    std::unique_ptr<Impl> d;
};

Camera& camera();

}  // namespace portable
