#pragma once

#include <string>

namespace cv { class Mat; }

// The JPEG (quality 70) of a matrix as standard base64 text; empty for an empty matrix or
// when the encoder refuses it (the reason goes to the log).
std::string Mat2Base64(const cv::Mat& image, const std::string& extension);
