// The document-camera library: preview, frames, camera settings, still capture, documents
// (PDF, OFD, merged images), scanning, codecs, USB identification, file operations, image upload
// and version.
//
// These are the library's C entry points as the server calls them. The portable device
// library (devicelib/portable) implements every one; a vendor library whose declarations
// differ is linked through a thin shim that provides exactly these (see README).
//
// Texts: paths and names are NUL-terminated UTF-8. A "heap text" result is allocated with
// malloc and released by the caller with free(); an "owned text" stays the library's and
// is valid until the same function is called again on the same thread.
#pragma once

#include <utility>
#include <vector>

class QImage;
class QString;
class QObject;
namespace cv { class Mat; }

// A listener for the camera's capture button: (state, unused...). state 1 means pressed.
typedef void (*CapturePinListener)(int state, int reserved1, int reserved2, unsigned int reserved3,
                                   int reserved4, void* context);

extern "C" {

// --- version ---------------------------------------------------------------------------
void doccameraVeriosn(char* buffer, int capacity);

// --- codecs ------------------------------------------------------------------------------
char* Base64Encode(const char* path);                       // heap text, NULL when unreadable
bool Base64Decode(const char* base64, const char* path);   // writes the decoded bytes to path

// --- identification -------------------------------------------------------------------------
char* sGetDevicesId(void);    // heap text: "usb#vid_xxxx&pid_xxxx" entries joined by ";"
char* sEnumUSBDevice(void);   // heap text: "vid:pid name" entries joined by ";"
char* sGetSerialNum(void);    // heap text

// --- files -----------------------------------------------------------------------------------
bool bDeleteFile(const char* path);          // to the desktop trash
bool bDeleteFileForever(const char* path);
bool bCopyFile(const char* source, const char* destination);
bool bMoveFile(const char* source, const char* destination);
bool bReNameFile(const char* oldPath, const char* newPath);
bool bFileIsExist(const char* path);
bool bDirIsExist(const char* path);
bool bCreateDir(const char* path);
bool OpenFile(const char* path);
bool bDispPath(const char* path);
bool IsExeExist(void);
const char* sGetAllFormatFiles(const char* dir, const char* format);   // owned text

// --- preview -------------------------------------------------------------------------------
bool bStartPlay(int rotate);
bool bStartPlay2(int rotate);
bool bStartPlay3(int rotate);
bool bStartPlay5(int rotate);
bool bStartPlay6(int rotate);
bool bStartPlay8(int rotate);
bool bStartPlay9(int rotate);
bool bStartPlayOpen(void);
bool bStopPlay(void);
bool bStartPlay4(void);
bool bStopPlay4(void);
bool bAVPreview(long long first, long long second);
void vSetImageDispFlag(bool flag);
bool bStopRec(void);
bool getVideoFrame(QImage& frame);        // waits up to 1 s for a frame newer than the last one
bool getVideoFrameMat(cv::Mat& frame);    // newest frame at once, BGR
bool getVideoFrameMatEx(cv::Mat& frame);  // newest frame at once, BGR, full size

// --- camera settings ---------------------------------------------------------------------------
bool bSetMode(int mode);                  // 0 colour, 1 grey, 2 black and white
void vSetCamaraMode(short mode);
void vSetResolutionEx(int camera, int index);
void setResolution(int camera, int width, int height);
int iGetResolutionX(int camera);
int iGetResolutionY(int camera);
void getResolutionIndex(int camera, std::vector<std::pair<double, double>>& sizes);
void vSetRotate(short angle);
short iGetRotate(void);
void vSetFlip(short mode);
short iGetFlip(void);
bool vSetExposure(int value);
bool vSetBrightness(int value);
bool vSetContrast(int value);
bool AutoFocus(void);
bool vSetDPI(long long x, long long y);
void vGetDPI(int* x, int* y);
bool bSetImageArea(int x1, int y1, int x2, int y2);
long lGetImageAreaX1(void);
long lGetImageAreaY1(void);
long lGetImageAreaX2(void);
long lGetImageAreaY2(void);
bool vSetImageQuality(int quality);
short sGetImageQuality(void);
bool bSetBookScannerMode(int mode);
int igetBookScannerMode(void);
void vSetCapturePin(CapturePinListener listener);

// --- still capture ------------------------------------------------------------------------------
bool bSaveJPG(const char* dir, const char* name);
bool bSaveTifJPG(const char* dir, const char* name);
bool bSaveGray(const char* dir, const char* name);
bool bSaveTIF(const char* dir, const char* name);
bool bSaveBMP(const char* dir, const char* name);
bool bSavePNG(const char* dir, const char* name);
bool bSaveGrayAndTIF(const char* dir1, const char* name1, const char* dir2, const char* name2);
bool SplitPic(const char* source, const char* prefix);
const char* sGetImageBase64_Byte(int quality);   // owned text

// --- documents: multi-page PDF and OFD, merged images ------------------------------------------
// The library keeps one open PDF, one open OFD and one open merge; the page and end functions
// act on it. File pages take an image path and a scale (see README).
bool bSavePDFStart(const char* folder, const char* name);
bool bSavePDFColorPage(void);
bool bSavePDFBWPage(void);
bool bSavePDFEnd(void);
bool bAddPDFColorPage(const char* path, float scale);   // path in the local 8-bit encoding
bool bAddPDFBWPage(const char* path, float scale);      // path in the local 8-bit encoding
bool bAddPDFBase64ColorPage(const char* base64);
bool bSaveOFDStart(const char* folder, const char* name);
bool bSaveOFDColorPage(void);
bool bSaveOFDBWPage(void);
bool bSaveOFDEnd(void);
bool bAddOFDPage(const char* path, float scale);
bool bAddOFDBase64ColorPage(const char* base64);
bool bSaveMergeStart(const char* folder, const char* name, short columns, short rows, long long cellWidth,
                     long long cellHeight);
bool bSaveMergePage(void);
bool bSaveMergeEnd(void);

// --- scanning ----------------------------------------------------------------------------------
// The automatic scan reports each shot by invoking `slot` (a Qt slot signature such as
// "1slot_iAutoshot(int)") on `observer`, queued to the observer's thread.
void iAutoScan_observr(QObject* observer, const char* slot);
int iAutoScan(int mode, const char* folder, const char* prefix);
int iTimerScan(int mode, const char* folder, const char* prefix, int seconds);
bool bBookScanner(const char* folder, const char* name, const char* name2);   // name2 may be NULL

// --- recording -------------------------------------------------------------------------------------
// One recording at a time, of the open preview camera; bStopRec (above) ends it, and the file is
// finished on the recording's own thread: isRecording() stays true until it is complete.
bool bStartRec(const char* path);      // video only; the container follows the extension
bool bStartRecMp3(const char* path);   // video with an MP3 sound track, or sound alone for .mp3
bool bPauseRec(void);
bool bResumeRec(void);
bool isRecording(void);
void vSetRecSize(long long width, long long height);   // for the next recording; 0: see README

// --- printing, watermark, barcodes -------------------------------------------------------------------
bool bPrint(int copies);                                        // the camera's picture as it would be saved
bool bPrintImage(short copies, const char* path, short fit);   // path in the local 8-bit encoding
bool bPrintImageFile(const char* path, int copies);
void vSetWaterPrint(short enable, const char* text, short opacity);   // text in the local 8-bit encoding
void vSetWaterPrintFont(const char* family);                          // local 8-bit encoding
void vSetWaterPrintFontSize(short pixels);
void vSetWaterPrintFontColor(long rgb);                               // 0xRRGGBB
void vSetWaterPrintPos(short x, short y);
char* sGetBarCode(const char* path);               // heap text; path in the local 8-bit encoding
char* sGetBarCodeEx(long kind, const char* path);  // heap text; codes joined by "|"
char* sGetBarCodeOnline(void);                     // heap text, NULL with no camera open

// --- upload: a multipart/form-data POST of one local file to an http or https URL -----------------
// fields is "k=v&k2=v2" (extra form fields); fieldName is the file's field ("" means "file").
// Text results are the server's answer body (any status), NULL when no answer came; the bool
// results are true on a 2xx answer only. seconds is the whole time-out (0 or less: 30).
char* sUpLoadImage(const char* url, const char* file, const char* fields, bool deleteAfter,
                   const char* fieldName);                                      // heap text
char* sUpLoadImageEx2(const char* url, const char* file, long seconds, const char* fields);   // heap text
bool bUpLoadImage(const char* url, const char* file, long seconds, const char* fields);
// A non-empty token goes out as "Authorization: Bearer <token>"; out receives the answer body.
bool sUpLoadImageEx5(const char* url, const char* file, long seconds, const char* fields, const char* token,
                     const char* fieldName, QString* out);

}  // extern "C"
