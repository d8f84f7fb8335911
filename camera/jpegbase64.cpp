#include "camera/jpegbase64.h"

#include <opencv2/core.hpp>

#include <turbojpeg.h>

namespace {

constexpr int kDefaultQuality = 75;

// A handle is not thread-safe and costs its work tables to make: one per thread, for good.
tjhandle compressor()
{
    struct Handle {
        tjhandle h = tjInitCompress();
        ~Handle()
        {
            if (h)
                tjDestroy(h);
        }
    };
    thread_local Handle handle;
    return handle.h;
}

QByteArray encode(const unsigned char* pixels, int width, int pitch, int height, int pixelFormat, int quality)
{
    tjhandle tj = compressor();
    if (!tj || !pixels || width <= 0 || height <= 0)
        return QByteArray();
    if (quality < 1 || quality > 100)
        quality = kDefaultQuality;
    const bool grey = pixelFormat == TJPF_GRAY;
    unsigned char* jpeg = nullptr;
    unsigned long size = 0;
    const int rc = tjCompress2(tj, pixels, width, pitch, height, pixelFormat, &jpeg, &size,
                               grey ? TJSAMP_GRAY : TJSAMP_420, quality, TJFLAG_FASTDCT);
    QByteArray out;
    if (rc == 0 && jpeg)
        out = QByteArray::fromRawData(reinterpret_cast<const char*>(jpeg), static_cast<int>(size)).toBase64();
    tjFree(jpeg);
    return out;
}

}  // namespace

QByteArray jpegBase64(const QImage& image, int quality)
{
    if (image.isNull())
        return QByteArray();
    switch (image.format()) {
    case QImage::Format_RGB32:
    case QImage::Format_ARGB32:
        // 0xAARRGGBB words: B, G, R, A in memory on a little-endian machine.
        return encode(image.constBits(), image.width(), image.bytesPerLine(), image.height(),
                      Q_BYTE_ORDER == Q_LITTLE_ENDIAN ? TJPF_BGRX : TJPF_XRGB, quality);
    case QImage::Format_RGB888:
        return encode(image.constBits(), image.width(), image.bytesPerLine(), image.height(), TJPF_RGB, quality);
    case QImage::Format_Grayscale8:
        return encode(image.constBits(), image.width(), image.bytesPerLine(), image.height(), TJPF_GRAY, quality);
    default:
        break;
    }
    if (image.isGrayscale() && image.format() == QImage::Format_Indexed8)
        return jpegBase64(image.convertToFormat(QImage::Format_Grayscale8), quality);
    return jpegBase64(image.convertToFormat(QImage::Format_RGB32), quality);
}

QByteArray jpegBase64(const cv::Mat& image, int quality)
{
    if (image.empty() || image.depth() != CV_8U)
        return QByteArray();
    int format = -1;
    switch (image.channels()) {
    case 1: format = TJPF_GRAY; break;
    case 3: format = TJPF_BGR; break;
    case 4: format = TJPF_BGRX; break;
    default: return QByteArray();
    }
    return encode(image.data, image.cols, static_cast<int>(image.step), image.rows, format, quality);
}
