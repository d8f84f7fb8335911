// The face and fingerprint functions of the device library: face comparison, face features,
// liveness and the fingerprint sensor.
//
// Texts are NUL-terminated UTF-8 paths. Callbacks run on a thread of the library, except the
// feature function of bFaceFeatureGet, which is called before that function returns. The
// Online functions call their function with a NULL context.
#pragma once

class QByteArray;

typedef void (*FaceFeatureFn)(const char* featureBase64, void* context);
typedef void (*FaceResultFn)(int result, void* context);
typedef void (*LivingBodyDataFn)(const char* data, int length, int kind);
typedef void (*LivingBodyDoneFn)(void);
typedef void (*DemoUIResultFn)(int result);
// image: base64 PNG text; feature: the template as hex text; score: quality 0..100 or a
// negative failure; msg: what happened, for the log.
typedef void (*FingerCaptureFn)(const QByteArray& image, const QByteArray& feature, int score, const char* msg,
                                void* context);

extern "C" {

// --- face comparison: scores 0..100; -1 no face, -2 missing or undecodable file, -3 image over
// 100 megapixels, -4 face camera unavailable ------------------------------------------------------
int lImageMatch(const char* path1, const char* path2);
long long lFaceMatch(const char* path);                                   // against camera 4
long long lImageIdMatch(const char* photoPath, const char* idPortraitPath);
bool bImageMatch(const char* path1, const char* path2);                   // score >= face.threshold

// --- face features: fixed-size, zero-free bytes (base64 on the wire) ------------------------------
long long lFaceFeatureMatch(const char* feature1, const char* feature2);
bool bFaceFeatureGet(bool fromCamera, const char* path, const char* cropPath, FaceFeatureFn fn, void* context);

// --- online: false means no event; true means exactly one event later -----------------------------
bool bImageMatchOnline(const char* photoPath, int seconds, int threshold, int camera, FaceResultFn fn);
bool bFaceFeatureGetOnline(int seconds, int camera, FaceFeatureFn fn);
bool bLivingBodyDetectOnline(int seconds, int camera, FaceResultFn fn);

// --- liveness -------------------------------------------------------------------------------------
bool bLivingBodyDetect(void);
// kind 0: a preview JPEG; kind 1: the result {"live":bool,"score":0..100,"face":"<base64 JPEG>"}.
bool AutoLivingBody(LivingBodyDataFn fn);
void CloseLivingBody(LivingBodyDoneFn fn);
// 1 passed, 0 failed or timed out, 2 closed by the customer.
void DemoUIShow(int seconds, DemoUIResultFn fn);

// --- fingerprint ----------------------------------------------------------------------------------
void fingerCaptureRawData(int timeoutMs, FingerCaptureFn fn, void* context);
// mode 0: 1-based index of the best stored template at or above the threshold (0 none);
// mode 1: the best score; -1 for another mode, a count below 1 or a length that does not fit.
int lFingerMatch(int mode, const char* probe, int count, const char* stored);

}  // extern "C"
