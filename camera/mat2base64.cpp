#include "camera/mat2base64.h"

#include "dispatch/base64.h"

#include <QDebug>

#include <opencv2/imgcodecs.hpp>

#include <vector>

std::string Mat2Base64(const cv::Mat& image, const std::string& extension)
{
    if (image.empty())
        return std::string();
    try {
        std::vector<uchar> bytes;
        cv::imencode("." + extension, image, bytes, {cv::IMWRITE_JPEG_QUALITY, 70});
        return base64_encode(bytes.data(), static_cast<unsigned long>(bytes.size()), false);
    } catch (const cv::Exception& e) {
        qDebug() << e.what();
        return std::string();
    }
}
