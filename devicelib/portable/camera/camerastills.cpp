// Still files with the page's DPI and quality, colour modes and the two-page split.
#include "devicelib/portable/camera/camerastills.h"
#include "devicelib/portable/camera/camerasource.h"
#include "devicelib/portable/core.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QSaveFile>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <tiffio.h>

#include <algorithm>
#include <vector>

namespace portable {

cv::Mat applyColourMode(const cv::Mat& bgr, int mode)
{
    if (mode == 0 || bgr.empty())
        return bgr;
    cv::Mat grey;
    if (bgr.channels() == 1)
        grey = bgr;
    else
        cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
    if (mode == 1)
        return grey;
    cv::Mat bw;
    cv::threshold(grey, bw, 0, 255, cv::THRESH_BINARY | cv::THRESH_OTSU);
    return bw;
}

bool writeJpegFile(const QString& path, const cv::Mat& image, const StillFormat& format)
{
    const std::vector<unsigned char> jpeg = encodeJpeg(image, format.quality, format.dpiX, format.dpiY);
    if (jpeg.empty()) {
        logLine(QStringLiteral("cannot encode a JPEG for \"%1\"").arg(path));
        return false;
    }
    QSaveFile f(path);
    if (!f.open(QIODevice::WriteOnly) || f.write(reinterpret_cast<const char*>(jpeg.data()), static_cast<qint64>(jpeg.size())) != static_cast<qint64>(jpeg.size())
        || !f.commit()) {
        logLine(QStringLiteral("cannot write \"%1\": %2").arg(path, f.errorString()));
        return false;
    }
    return true;
}

bool writeTiffFile(const QString& path, const cv::Mat& image, const StillFormat& format, bool jpegCompressed)
{
    if (image.empty() || (image.type() != CV_8UC3 && image.type() != CV_8UC1))
        return false;
    const bool grey = image.channels() == 1;
    // libtiff reports through its own handlers; silence them and say why ourselves.
    TIFFSetWarningHandler(nullptr);
    TIFFSetErrorHandler(nullptr);
    TIFF* tif = TIFFOpen(QFile::encodeName(path).constData(), "w");
    if (!tif) {
        logLine(QStringLiteral("cannot write \"%1\"").arg(path));
        return false;
    }
    cv::Mat rgb;
    if (grey)
        rgb = image;
    else
        cv::cvtColor(image, rgb, cv::COLOR_BGR2RGB);
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, static_cast<uint32_t>(rgb.cols));
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, static_cast<uint32_t>(rgb.rows));
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, grey ? 1 : 3);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tif, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
    TIFFSetField(tif, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
    TIFFSetField(tif, TIFFTAG_XRESOLUTION, static_cast<float>(format.dpiX));
    TIFFSetField(tif, TIFFTAG_YRESOLUTION, static_cast<float>(format.dpiY));
    if (jpegCompressed) {
        TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_JPEG);
        TIFFSetField(tif, TIFFTAG_JPEGQUALITY, std::clamp(format.quality, 1, 100));
        if (grey) {
            TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
        } else {
            // YCbCr is what JPEG compresses well; libtiff converts from RGB as it writes.
            TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_YCBCR);
            TIFFSetField(tif, TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
        }
        TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, 16);   // a multiple of the JPEG block height
    } else {
        TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_LZW);
        TIFFSetField(tif, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
        TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, grey ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB);
        TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tif, 0));
    }
    bool ok = true;
    for (int y = 0; y < rgb.rows && ok; ++y)
        ok = TIFFWriteScanline(tif, const_cast<unsigned char*>(rgb.ptr<unsigned char>(y)), static_cast<uint32_t>(y), 0) >= 0;
    TIFFClose(tif);
    if (!ok) {
        logLine(QStringLiteral("cannot write \"%1\" (disk full?)").arg(path));
        QFile::remove(path);
    }
    return ok;
}

bool writeQtFile(const QString& path, const cv::Mat& image, const StillFormat& format, const char* qtFormat)
{
    QImage img;
    if (image.channels() == 1) {
        img = QImage(image.data, image.cols, image.rows, static_cast<int>(image.step), QImage::Format_Grayscale8);
    } else {
        img = QImage(image.data, image.cols, image.rows, static_cast<int>(image.step), QImage::Format_BGR888);
        // The BMP writer wants 24 or 32 bit RGB; convert once instead of per pixel in the writer.
        img = img.convertToFormat(QImage::Format_RGB888);
    }
    img.setDotsPerMeterX(qRound(format.dpiX / 0.0254));
    img.setDotsPerMeterY(qRound(format.dpiY / 0.0254));
    if (!img.save(path, qtFormat)) {
        logLine(QStringLiteral("cannot write \"%1\"").arg(path));
        return false;
    }
    return true;
}

// The spine of a spread lies in the middle third: the column band that stands out most from
// its surroundings there, dark (a shadowed gutter) or bright (a gap between pages). When no
// band stands out by at least 20 grey levels against the median column, the middle is taken.
int findSpine(const cv::Mat& image)
{
    if (image.cols < 3)
        return image.cols / 2;
    cv::Mat grey;
    if (image.channels() == 1)
        grey = image;
    else
        cv::cvtColor(image, grey, cv::COLOR_BGR2GRAY);
    cv::Mat columns;
    cv::reduce(grey, columns, 0, cv::REDUCE_AVG, CV_32F);
    // Smooth over a narrow band, so one stray line is not a spine.
    const int band = std::max(1, image.cols / 100) | 1;
    cv::blur(columns, columns, cv::Size(band, 1));
    const int from = image.cols / 3;
    const int to = image.cols - image.cols / 3;
    std::vector<float> values(columns.ptr<float>(0) + from, columns.ptr<float>(0) + to);
    std::vector<float> sorted = values;
    std::nth_element(sorted.begin(), sorted.begin() + sorted.size() / 2, sorted.end());
    const float median = sorted[sorted.size() / 2];
    int best = image.cols / 2;
    float bestScore = 20.0f;
    for (size_t i = 0; i < values.size(); ++i) {
        const float score = std::abs(values[i] - median);
        if (score > bestScore) {
            best = from + static_cast<int>(i);
            bestScore = score;
        }
    }
    return best;
}

// SplitPic(source, prefix): writes <prefix>_1.jpg (left page) and <prefix>_2.jpg (right page).
// A prefix without a folder is put beside the source.
bool splitPages(const QString& source, const QString& prefix, const StillFormat& format)
{
    if (!QFileInfo(source).isFile()) {
        logLine(QStringLiteral("SplitPic: \"%1\" does not exist").arg(source));
        return false;
    }
    const cv::Mat img = cv::imread(QFile::encodeName(source).toStdString(), cv::IMREAD_COLOR);
    if (img.empty()) {
        logLine(QStringLiteral("SplitPic: \"%1\" is not an image that can be read").arg(source));
        return false;
    }
    if (img.cols < 2) {
        logLine(QStringLiteral("SplitPic: \"%1\" is too narrow to split").arg(source));
        return false;
    }
    QString base = prefix;
    if (QFileInfo(prefix).isRelative() && !prefix.contains(QLatin1Char('/')))
        base = QFileInfo(source).absoluteDir().filePath(prefix);
    const QFileInfo dir(QFileInfo(base).absolutePath());
    if (!dir.isDir() || !dir.isWritable()) {
        logLine(QStringLiteral("SplitPic: the folder \"%1\" does not exist or cannot be written").arg(dir.filePath()));
        return false;
    }
    const int spine = std::clamp(findSpine(img), 1, img.cols - 1);
    return writeJpegFile(base + QStringLiteral("_1.jpg"), img(cv::Rect(0, 0, spine, img.rows)), format)
        && writeJpegFile(base + QStringLiteral("_2.jpg"), img(cv::Rect(spine, 0, img.cols - spine, img.rows)), format);
}

}  // namespace portable
