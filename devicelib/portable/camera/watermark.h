// The watermark stamped on every picture the library makes from the camera for keeping (saves,
// base64 captures, scans, document pages, merge cells, prints); never on preview frames.
#pragma once

#include <opencv2/core.hpp>

namespace portable {

// enable 1 on, 0 off; opacity in percent (0: 40). text in the local 8-bit encoding.
void setWatermark(short enable, const char* text, short opacity);
void setWatermarkFont(const char* family);   // empty: the default, WenQuanYi Micro Hei
void setWatermarkSize(short pixels);         // 0 or less: a twentieth of the picture's height
void setWatermarkColour(long rgb);           // 0xRRGGBB
void setWatermarkPos(short x, short y);      // the text's top-left; negative: centred

// Draws the watermark, when it is on, into a BGR or grey picture.
void stampWatermark(cv::Mat& image);

}  // namespace portable
