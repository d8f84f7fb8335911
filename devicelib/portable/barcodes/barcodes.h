// Barcode reading with ZXing-cpp: every symbol of an image, in reading order.
#pragma once

#include "devicelib/portable/core.h"

#include <opencv2/core.hpp>

namespace portable {

// The kinds a page may ask for (sGetBarCodeEx): 0 any, 1 QR, 2 Code 128, 3 EAN-13, 4 PDF417,
// 5 Data Matrix, 6 Code 39, 7 ITF. False for any other number.
bool barcodeKindKnown(long kind);
// The texts of every symbol of that kind in the picture (BGR or grey), ordered by the symbol's
// centre top to bottom, then left to right.
std::vector<std::string> readBarcodes(const cv::Mat& image, long kind);

// The entry points' work: "" when nothing is found or the file cannot be read (a log line says
// which); the online read is NULL with no camera open.
Text barcodesInFile(const char* fn, const char* path, long kind, bool firstOnly);
Text barcodeOnline();

}  // namespace portable
