// The document camera's C entry points: each one line through traced() into Camera.
#include "devicelib/doccamera.h"
#include "devicelib/portable/camera/camera.h"
#include "devicelib/portable/camera/watermark.h"
#include "devicelib/portable/core.h"

using portable::camera;
using portable::FnArg;
using portable::Still;
using portable::traced;

// --- preview -----------------------------------------------------------------------------------
extern "C" bool bStartPlay(int rotate) { return traced<bool>("bStartPlay", {rotate}, [&] { return camera().startPreview({1}, rotate, true); }); }
extern "C" bool bStartPlay2(int rotate) { return traced<bool>("bStartPlay2", {rotate}, [&] { return camera().startPreview({2}, rotate, true); }); }
extern "C" bool bStartPlay3(int rotate) { return traced<bool>("bStartPlay3", {rotate}, [&] { return camera().startPreview({3}, rotate, true); }); }
extern "C" bool bStartPlay5(int rotate) { return traced<bool>("bStartPlay5", {rotate}, [&] { return camera().startPreview({5}, rotate, true); }); }
extern "C" bool bStartPlay6(int rotate) { return traced<bool>("bStartPlay6", {rotate}, [&] { return camera().startPreview({6}, rotate, true); }); }
extern "C" bool bStartPlay8(int rotate) { return traced<bool>("bStartPlay8", {rotate}, [&] { return camera().startPreview({8}, rotate, true); }); }
extern "C" bool bStartPlay9(int rotate) { return traced<bool>("bStartPlay9", {rotate}, [&] { return camera().startPreview({9}, rotate, true); }); }
extern "C" bool bStartPlayOpen(void) { return traced<bool>("bStartPlayOpen", {}, [&] { return camera().startPreview({1, 2}, 0, false); }); }
extern "C" bool bStopPlay(void) { return traced<bool>("bStopPlay", {}, [&] { return camera().stopPreview(); }); }
extern "C" bool bStartPlay4(void) { return traced<bool>("bStartPlay4", {}, [&] { return camera().startAux(); }); }
extern "C" bool bStopPlay4(void) { return traced<bool>("bStopPlay4", {}, [&] { return camera().stopAux(); }); }
extern "C" bool bAVPreview(long long first, long long second) { return traced<bool>("bAVPreview", {first, second}, [&] { return camera().avPreview(first, second); }); }
extern "C" void vSetImageDispFlag(bool flag) { traced<void>("vSetImageDispFlag", {flag}, [&] { camera().setImageDispFlag(flag); }); }
extern "C" bool getVideoFrame(QImage& frame) { portable::OutImage out(&frame); return traced<bool>("getVideoFrame", {out}, [&] { return camera().videoFrame(frame); }); }
extern "C" bool getVideoFrameMat(cv::Mat& frame) { portable::OutMat out(&frame); return traced<bool>("getVideoFrameMat", {out}, [&] { return camera().videoFrameMat(frame); }); }
extern "C" bool getVideoFrameMatEx(cv::Mat& frame) { portable::OutMat out(&frame); return traced<bool>("getVideoFrameMatEx", {out}, [&] { return camera().capturedFrameMat(frame); }); }

// --- camera settings ---------------------------------------------------------------------------
extern "C" bool bSetMode(int mode) { return traced<bool>("bSetMode", {mode}, [&] { return camera().setMode(mode); }); }
extern "C" void vSetCamaraMode(short mode) { traced<void>("vSetCamaraMode", {mode}, [&] { camera().setCameraMode(mode); }); }
extern "C" void vSetResolutionEx(int cam, int index) { traced<void>("vSetResolutionEx", {cam, index}, [&] { camera().setResolutionIndex(cam, index); }); }
extern "C" void setResolution(int cam, int width, int height) { traced<void>("setResolution", {cam, width, height}, [&] { camera().setResolution(cam, width, height); }); }
extern "C" int iGetResolutionX(int cam) { return traced<int>("iGetResolutionX", {cam}, [&] { return camera().resolutionX(cam); }); }
extern "C" int iGetResolutionY(int cam) { return traced<int>("iGetResolutionY", {cam}, [&] { return camera().resolutionY(cam); }); }
extern "C" void getResolutionIndex(int cam, std::vector<std::pair<double, double>>& sizes) { portable::OutSizes out(&sizes); traced<void>("getResolutionIndex", {cam, out}, [&] { camera().resolutionList(cam, sizes); }); }
extern "C" void vSetRotate(short angle) { traced<void>("vSetRotate", {angle}, [&] { camera().setRotate(angle); }); }
extern "C" short iGetRotate(void) { return traced<short>("iGetRotate", {}, [&] { return camera().rotate(); }); }
extern "C" void vSetFlip(short mode) { traced<void>("vSetFlip", {mode}, [&] { camera().setFlip(mode); }); }
extern "C" short iGetFlip(void) { return traced<short>("iGetFlip", {}, [&] { return camera().flip(); }); }
extern "C" bool vSetExposure(int value) { return traced<bool>("vSetExposure", {value}, [&] { return camera().setExposure(value); }); }
extern "C" bool vSetBrightness(int value) { return traced<bool>("vSetBrightness", {value}, [&] { return camera().setBrightness(value); }); }
extern "C" bool vSetContrast(int value) { return traced<bool>("vSetContrast", {value}, [&] { return camera().setContrast(value); }); }
extern "C" bool AutoFocus(void) { return traced<bool>("AutoFocus", {}, [&] { return camera().autoFocus(); }); }
extern "C" bool vSetDPI(long long x, long long y) { return traced<bool>("vSetDPI", {x, y}, [&] { return camera().setDpi(x, y); }); }
extern "C" void vGetDPI(int* x, int* y) { portable::OutNumber<int> ox(x), oy(y); traced<void>("vGetDPI", {ox, oy}, [&] { camera().dpi(x, y); }); }
extern "C" bool bSetImageArea(int x1, int y1, int x2, int y2) { return traced<bool>("bSetImageArea", {x1, y1, x2, y2}, [&] { return camera().setImageArea(x1, y1, x2, y2); }); }
extern "C" long lGetImageAreaX1(void) { return traced<long>("lGetImageAreaX1", {}, [&] { return camera().imageArea(0); }); }
extern "C" long lGetImageAreaY1(void) { return traced<long>("lGetImageAreaY1", {}, [&] { return camera().imageArea(1); }); }
extern "C" long lGetImageAreaX2(void) { return traced<long>("lGetImageAreaX2", {}, [&] { return camera().imageArea(2); }); }
extern "C" long lGetImageAreaY2(void) { return traced<long>("lGetImageAreaY2", {}, [&] { return camera().imageArea(3); }); }
extern "C" bool vSetImageQuality(int quality) { return traced<bool>("vSetImageQuality", {quality}, [&] { return camera().setImageQuality(quality); }); }
extern "C" short sGetImageQuality(void) { return traced<short>("sGetImageQuality", {}, [&] { return camera().imageQuality(); }); }
extern "C" bool bSetBookScannerMode(int mode) { return traced<bool>("bSetBookScannerMode", {mode}, [&] { return camera().setBookScannerMode(mode); }); }
extern "C" int igetBookScannerMode(void) { return traced<int>("igetBookScannerMode", {}, [&] { return camera().bookScannerMode(); }); }
extern "C" void vSetCapturePin(CapturePinListener listener) { traced<void>("vSetCapturePin", {FnArg{reinterpret_cast<const void*>(listener)}}, [&] { camera().setCapturePin(listener); }); }

// --- still capture ------------------------------------------------------------------------------
extern "C" bool bSaveJPG(const char* dir, const char* name) { return traced<bool>("bSaveJPG", {dir, name}, [&] { return camera().saveStill(Still::Jpeg, dir, name); }); }
extern "C" bool bSaveTifJPG(const char* dir, const char* name) { return traced<bool>("bSaveTifJPG", {dir, name}, [&] { return camera().saveStill(Still::TiffJpeg, dir, name); }); }
extern "C" bool bSaveGray(const char* dir, const char* name) { return traced<bool>("bSaveGray", {dir, name}, [&] { return camera().saveStill(Still::Gray, dir, name); }); }
extern "C" bool bSaveTIF(const char* dir, const char* name) { return traced<bool>("bSaveTIF", {dir, name}, [&] { return camera().saveStill(Still::Tiff, dir, name); }); }
extern "C" bool bSaveBMP(const char* dir, const char* name) { return traced<bool>("bSaveBMP", {dir, name}, [&] { return camera().saveStill(Still::Bmp, dir, name); }); }
extern "C" bool bSavePNG(const char* dir, const char* name) { return traced<bool>("bSavePNG", {dir, name}, [&] { return camera().saveStill(Still::Png, dir, name); }); }
extern "C" bool bSaveGrayAndTIF(const char* dir1, const char* name1, const char* dir2, const char* name2) { return traced<bool>("bSaveGrayAndTIF", {dir1, name1, dir2, name2}, [&] { return camera().saveGrayAndTiff(dir1, name1, dir2, name2); }); }
extern "C" bool SplitPic(const char* source, const char* prefix) { return traced<bool>("SplitPic", {source, prefix}, [&] { return camera().splitPicture(source, prefix); }); }
extern "C" const char* sGetImageBase64_Byte(int quality)
{
    thread_local std::string slot;
    return portable::keptText(slot, traced<portable::Text>("sGetImageBase64_Byte", {quality}, [&] { return camera().imageBase64(quality); }));
}

// --- watermark ----------------------------------------------------------------------------------
extern "C" void vSetWaterPrint(short enable, const char* text, short opacity) { traced<void>("vSetWaterPrint", {enable, text, opacity}, [&] { portable::setWatermark(enable, text, opacity); }); }
extern "C" void vSetWaterPrintFont(const char* family) { traced<void>("vSetWaterPrintFont", {family}, [&] { portable::setWatermarkFont(family); }); }
extern "C" void vSetWaterPrintFontSize(short pixels) { traced<void>("vSetWaterPrintFontSize", {pixels}, [&] { portable::setWatermarkSize(pixels); }); }
extern "C" void vSetWaterPrintFontColor(long rgb) { traced<void>("vSetWaterPrintFontColor", {rgb}, [&] { portable::setWatermarkColour(rgb); }); }
extern "C" void vSetWaterPrintPos(short x, short y) { traced<void>("vSetWaterPrintPos", {x, y}, [&] { portable::setWatermarkPos(x, y); }); }
