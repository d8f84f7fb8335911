// The barcode entry points: each one line through traced().
#include "devicelib/doccamera.h"
#include "devicelib/portable/barcodes/barcodes.h"

using portable::heapText;
using portable::Text;
using portable::traced;

extern "C" char* sGetBarCode(const char* path) { return heapText(traced<Text>("sGetBarCode", {path}, [&] { return portable::barcodesInFile("sGetBarCode", path, 0, true); })); }
extern "C" char* sGetBarCodeEx(long kind, const char* path) { return heapText(traced<Text>("sGetBarCodeEx", {kind, path}, [&] { return portable::barcodesInFile("sGetBarCodeEx", path, kind, false); })); }
extern "C" char* sGetBarCodeOnline(void) { return heapText(traced<Text>("sGetBarCodeOnline", {}, [&] { return portable::barcodeOnline(); })); }
