// The face functions behind the C entry points: comparisons of files, the face camera, the
// online sessions and the liveness checks, each session on a thread the module owns.
#pragma once

#include "devicelib/biometrics.h"

#include <opencv2/core.hpp>

#include <string>

namespace portable {

// The face camera: camera 4 unless told otherwise.
constexpr int kFaceCamera = 4;

int imageMatch(const char* a, const char* b);
int imageIdMatch(const char* photo, const char* idPortrait);
int faceMatch(const char* path);
int faceThreshold();
long long featureMatch(const char* f1, const char* f2);
// The base64 feature, or "" when none.
std::string featureGet(bool fromCamera, const char* path, const char* cropPath);

bool imageMatchOnline(const char* photo, int seconds, int threshold, int camera, FaceResultFn fn);
bool featureGetOnline(int seconds, int camera, FaceFeatureFn fn);
bool livingBodyOnline(int seconds, int camera, FaceResultFn fn);
bool livingBodyDetect();
bool autoLivingBody(LivingBodyDataFn fn);
void closeLivingBody(LivingBodyDoneFn fn);
void demoUIShow(int seconds, DemoUIResultFn fn);

}  // namespace portable
