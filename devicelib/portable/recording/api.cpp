// The recording entry points: each one line through traced().
#include "devicelib/doccamera.h"
#include "devicelib/portable/core.h"
#include "devicelib/portable/recording/recorder.h"

using portable::recorder;
using portable::traced;

extern "C" bool bStartRec(const char* path) { return traced<bool>("bStartRec", {path}, [&] { return recorder().start("bStartRec", path, false); }); }
extern "C" bool bStartRecMp3(const char* path) { return traced<bool>("bStartRecMp3", {path}, [&] { return recorder().start("bStartRecMp3", path, true); }); }
extern "C" bool bStopRec(void) { return traced<bool>("bStopRec", {}, [&] { return recorder().stop(); }); }
extern "C" bool bPauseRec(void) { return traced<bool>("bPauseRec", {}, [&] { return recorder().pause(); }); }
extern "C" bool bResumeRec(void) { return traced<bool>("bResumeRec", {}, [&] { return recorder().resume(); }); }
extern "C" bool isRecording(void) { return traced<bool>("isRecording", {}, [&] { return recorder().recording(); }); }
extern "C" void vSetRecSize(long long width, long long height) { traced<void>("vSetRecSize", {width, height}, [&] { recorder().setSize(width, height); }); }
