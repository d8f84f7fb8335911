#include "camera/mat2base64.h"
#include "camera/jpegbase64.h"

#include "dispatch/base64.h"

#include <QDebug>

#include <opencv2/imgcodecs.hpp>

#include <vector>

std::string Mat2Base64(const cv::Mat& image, const std::string& extension)
{
    if (image.empty())
        return std::string();
    // A JPEG goes through the one encoder of the pages; any other format (no caller asks for
    // one) through OpenCV.
    const QByteArray ext = QByteArray::fromStdString(extension).toLower();
    if (ext == "jpg" || ext == "jpeg") {
        const QByteArray b64 = jpegBase64(image, 70);
        if (!b64.isEmpty())
            return b64.toStdString();
    }
    try {
        std::vector<uchar> bytes;
        cv::imencode("." + extension, image, bytes, {cv::IMWRITE_JPEG_QUALITY, 70});
        return base64_encode(bytes.data(), static_cast<unsigned long>(bytes.size()), false);
    } catch (const cv::Exception& e) {
        qDebug() << e.what();
        return std::string();
    }
}
