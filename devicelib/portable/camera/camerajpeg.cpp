// JPEG through libturbojpeg: decoding camera MJPEG at a DCT scale, encoding stills with the
// density the page asked for.
#include "devicelib/portable/camera/camerasource.h"

#include <turbojpeg.h>

#include <algorithm>
#include <cstring>

namespace portable {

namespace {

struct TjHandle {
    tjhandle h = nullptr;
    explicit TjHandle(bool compress) : h(compress ? tjInitCompress() : tjInitDecompress()) {}
    ~TjHandle()
    {
        if (h)
            tjDestroy(h);
    }
    TjHandle(const TjHandle&) = delete;
    TjHandle& operator=(const TjHandle&) = delete;
};

// One handle per thread and direction: a handle is not thread-safe, and making one per frame
// would cost an allocation of its work tables each time.
tjhandle decompressor()
{
    thread_local TjHandle handle(false);
    return handle.h;
}

tjhandle compressor()
{
    thread_local TjHandle handle(true);
    return handle.h;
}

void put16(std::vector<unsigned char>& v, size_t at, int value)
{
    v[at] = static_cast<unsigned char>((value >> 8) & 0xff);
    v[at + 1] = static_cast<unsigned char>(value & 0xff);
}

// Writes the density into the JFIF APP0 segment; adds one when the encoder wrote none.
void setJfifDensity(std::vector<unsigned char>& jpeg, int dpiX, int dpiY)
{
    if (jpeg.size() < 4 || dpiX <= 0 || dpiY <= 0)
        return;
    dpiX = std::min(dpiX, 65535);
    dpiY = std::min(dpiY, 65535);
    if (jpeg.size() >= 20 && jpeg[2] == 0xff && jpeg[3] == 0xe0 && std::memcmp(&jpeg[6], "JFIF", 5) == 0) {
        jpeg[13] = 1;   // units: dots per inch
        put16(jpeg, 14, dpiX);
        put16(jpeg, 16, dpiY);
        return;
    }
    std::vector<unsigned char> app0 = {0xff, 0xe0, 0, 16, 'J', 'F', 'I', 'F', 0, 1, 1, 1, 0, 0, 0, 0, 0, 0};
    put16(app0, 12, dpiX);
    put16(app0, 14, dpiY);
    jpeg.insert(jpeg.begin() + 2, app0.begin(), app0.end());
}

}  // namespace

bool jpegSize(const std::vector<unsigned char>& jpeg, int* width, int* height)
{
    int w = 0, h = 0, sub = 0, cs = 0;
    if (jpeg.empty()
        || tjDecompressHeader3(decompressor(), jpeg.data(), static_cast<unsigned long>(jpeg.size()), &w, &h, &sub, &cs)
            != 0)
        return false;
    *width = w;
    *height = h;
    return true;
}

cv::Mat decodeJpegBgr(const std::vector<unsigned char>& jpeg)
{
    int w = 0, h = 0;
    if (!jpegSize(jpeg, &w, &h))
        return cv::Mat();
    cv::Mat out(h, w, CV_8UC3);
    if (tjDecompress2(decompressor(), jpeg.data(), static_cast<unsigned long>(jpeg.size()), out.data, w,
                      static_cast<int>(out.step), h, TJPF_BGR, TJFLAG_FASTDCT)
        != 0)
        return cv::Mat();
    return out;
}

bool decodeJpegBgrx(const std::vector<unsigned char>& jpeg, unsigned char* dst, int width, int pitch, int height)
{
    return tjDecompress2(decompressor(), jpeg.data(), static_cast<unsigned long>(jpeg.size()), dst, width, pitch,
                         height, TJPF_BGRX, TJFLAG_FASTDCT)
        == 0;
}

std::vector<unsigned char> encodeJpeg(const cv::Mat& image, int quality, int dpiX, int dpiY)
{
    if (image.empty() || (image.type() != CV_8UC3 && image.type() != CV_8UC1))
        return {};
    const bool grey = image.type() == CV_8UC1;
    unsigned char* buf = nullptr;
    unsigned long size = 0;
    const int rc = tjCompress2(compressor(), image.data, image.cols, static_cast<int>(image.step), image.rows,
                               grey ? TJPF_GRAY : TJPF_BGR, &buf, &size, grey ? TJSAMP_GRAY : TJSAMP_420,
                               std::clamp(quality, 1, 100), TJFLAG_FASTDCT);
    std::vector<unsigned char> out;
    if (rc == 0 && buf)
        out.assign(buf, buf + size);
    tjFree(buf);
    setJfifDensity(out, dpiX, dpiY);
    return out;
}

}  // namespace portable
