// The documents' and scans' C entry points: each one line through traced().
#include "devicelib/doccamera.h"
#include "devicelib/portable/core.h"
#include "devicelib/portable/documents/documents.h"

using portable::documents;
using portable::ObjectArg;
using portable::traced;

// --- PDF ---------------------------------------------------------------------------------------
extern "C" bool bSavePDFStart(const char* folder, const char* name) { return traced<bool>("bSavePDFStart", {folder, name}, [&] { return documents().pdf.start("bSavePDFStart", folder, name); }); }
extern "C" bool bSavePDFColorPage(void) { return traced<bool>("bSavePDFColorPage", {}, [&] { return documents().pdf.addCamera("bSavePDFColorPage", false); }); }
extern "C" bool bSavePDFBWPage(void) { return traced<bool>("bSavePDFBWPage", {}, [&] { return documents().pdf.addCamera("bSavePDFBWPage", true); }); }
extern "C" bool bSavePDFEnd(void) { return traced<bool>("bSavePDFEnd", {}, [&] { return documents().pdf.end("bSavePDFEnd"); }); }
extern "C" bool bAddPDFColorPage(const char* path, float scale) { return traced<bool>("bAddPDFColorPage", {path, double(scale)}, [&] { return documents().pdf.addFile("bAddPDFColorPage", path, scale, false); }); }
extern "C" bool bAddPDFBWPage(const char* path, float scale) { return traced<bool>("bAddPDFBWPage", {path, double(scale)}, [&] { return documents().pdf.addFile("bAddPDFBWPage", path, scale, true); }); }
extern "C" bool bAddPDFBase64ColorPage(const char* base64) { return traced<bool>("bAddPDFBase64ColorPage", {base64}, [&] { return documents().pdf.addBase64("bAddPDFBase64ColorPage", base64); }); }

// --- OFD ---------------------------------------------------------------------------------------
extern "C" bool bSaveOFDStart(const char* folder, const char* name) { return traced<bool>("bSaveOFDStart", {folder, name}, [&] { return documents().ofd.start("bSaveOFDStart", folder, name); }); }
extern "C" bool bSaveOFDColorPage(void) { return traced<bool>("bSaveOFDColorPage", {}, [&] { return documents().ofd.addCamera("bSaveOFDColorPage", false); }); }
extern "C" bool bSaveOFDBWPage(void) { return traced<bool>("bSaveOFDBWPage", {}, [&] { return documents().ofd.addCamera("bSaveOFDBWPage", true); }); }
extern "C" bool bSaveOFDEnd(void) { return traced<bool>("bSaveOFDEnd", {}, [&] { return documents().ofd.end("bSaveOFDEnd"); }); }
extern "C" bool bAddOFDPage(const char* path, float scale) { return traced<bool>("bAddOFDPage", {path, double(scale)}, [&] { return documents().ofd.addFile("bAddOFDPage", path, scale, false); }); }
extern "C" bool bAddOFDBase64ColorPage(const char* base64) { return traced<bool>("bAddOFDBase64ColorPage", {base64}, [&] { return documents().ofd.addBase64("bAddOFDBase64ColorPage", base64); }); }

// --- merged images -----------------------------------------------------------------------------
extern "C" bool bSaveMergeStart(const char* folder, const char* name, short columns, short rows, long long cellWidth, long long cellHeight) { return traced<bool>("bSaveMergeStart", {folder, name, columns, rows, cellWidth, cellHeight}, [&] { return documents().merge.start(folder, name, columns, rows, cellWidth, cellHeight); }); }
extern "C" bool bSaveMergePage(void) { return traced<bool>("bSaveMergePage", {}, [&] { return documents().merge.addCamera(); }); }
extern "C" bool bSaveMergeEnd(void) { return traced<bool>("bSaveMergeEnd", {}, [&] { return documents().merge.end(); }); }

// --- scanning ----------------------------------------------------------------------------------
extern "C" void iAutoScan_observr(QObject* observer, const char* slot) { traced<void>("iAutoScan_observr", {ObjectArg{observer}, slot}, [&] { documents().scanner.setObserver(observer, slot); }); }
extern "C" int iAutoScan(int mode, const char* folder, const char* prefix) { return traced<int>("iAutoScan", {mode, folder, prefix}, [&] { return documents().scanner.autoScan(mode, folder, prefix); }); }
extern "C" int iTimerScan(int mode, const char* folder, const char* prefix, int seconds) { return traced<int>("iTimerScan", {mode, folder, prefix, seconds}, [&] { return documents().scanner.timerScan(mode, folder, prefix, seconds); }); }
extern "C" bool bBookScanner(const char* folder, const char* name, const char* name2) { return traced<bool>("bBookScanner", {folder, name, name2}, [&] { return documents().scanner.bookScan(folder, name, name2); }); }
