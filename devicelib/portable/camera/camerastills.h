// Still images: colour modes, file writers with the page's DPI and quality, and the
// two-page split.
#pragma once

#include <QString>

#include <opencv2/core.hpp>

namespace portable {

struct StillFormat {
    int dpiX = 300;
    int dpiY = 300;
    int quality = 80;
};

// 0 colour (unchanged), 1 grey, 2 black and white (Otsu threshold).
cv::Mat applyColourMode(const cv::Mat& bgr, int mode);

// Each writer takes BGR or grey pixels; false with a log line saying why.
bool writeJpegFile(const QString& path, const cv::Mat& image, const StillFormat& format);
bool writeTiffFile(const QString& path, const cv::Mat& image, const StillFormat& format, bool jpegCompressed);
bool writeQtFile(const QString& path, const cv::Mat& image, const StillFormat& format, const char* qtFormat);

// The column of a two-page spread's spine.
int findSpine(const cv::Mat& image);
bool splitPages(const QString& source, const QString& prefix, const StillFormat& format);

}  // namespace portable
