// The one JPEG encoder for everything bound for a page: preview frames, the timer push and the
// base64 image commands. The result is the bare base64 text of a JPEG file (standard alphabet,
// "=" padding, no line breaks, no prefix). TurboJPEG, 4:2:0 like the image library's own writer,
// with a compressor kept per thread.
#pragma once

#include <QByteArray>
#include <QImage>

namespace cv { class Mat; }

// quality 1..100; -1 (or anything outside) means 75, the image library's default.
// Empty for a null image.
QByteArray jpegBase64(const QImage& image, int quality = -1);
// A BGR, BGRA or grey 8-bit matrix. Empty for an empty matrix or another type.
QByteArray jpegBase64(const cv::Mat& image, int quality);
