// The printing entry points: each one line through traced().
#include "devicelib/doccamera.h"
#include "devicelib/portable/core.h"
#include "devicelib/portable/printing/printing.h"

using portable::traced;

extern "C" bool bPrint(int copies) { return traced<bool>("bPrint", {copies}, [&] { return portable::printCameraStill(copies); }); }
extern "C" bool bPrintImage(short copies, const char* path, short fit) { return traced<bool>("bPrintImage", {copies, path, fit}, [&] { return portable::printImageFile("bPrintImage", path, true, copies, fit != 0); }); }
extern "C" bool bPrintImageFile(const char* path, int copies) { return traced<bool>("bPrintImageFile", {path, copies}, [&] { return portable::printImageFile("bPrintImageFile", path, false, copies, true); }); }
