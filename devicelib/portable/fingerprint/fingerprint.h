// Fingerprints: a simulated sensor's ridge images, minutiae with their angles, fixed-size
// templates and matching.
//
// Template (kTemplateSize = 245 bytes, no zero byte, so a bare pointer's length is found at
// its terminating zero): "FPT1", then 1 + the number of minutiae, then 48 slots of 5 bytes:
// x and y each as 1 + (v >> 7), 1 + (v & 127); the angle as 1 + round(angle / pi * 253), the
// ridge direction in 0..pi. Unused slots are 0xFF bytes.
#pragma once

#include <opencv2/core.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace portable {

struct Minutia {
    float x = 0, y = 0;
    float angle = 0;   // ridge direction, radians in [0, pi)
};

constexpr int kMaxMinutiae = 48;
constexpr int kTemplateSize = 4 + 1 + kMaxMinutiae * 5;

// A finger's ridge pattern (256 x 320, dark ridges on white), drawn from its seed: a loop
// around a core and about 30 ridge endings and forks where the ridge phase turns once
// around a point. The capture turns it by rotateDeg, moves it by shift and adds noise.
cv::Mat renderFinger(std::uint32_t seed, double rotateDeg = 0, cv::Point2f shift = {}, double noise = 0,
                     std::uint32_t noiseSeed = 1);
// Ridge direction at each point from the grey-level gradients (structure tensor).
std::vector<Minutia> withAngles(const cv::Mat& grey, const std::vector<cv::Point2f>& positions);
// Endings and forks of the thinned ridges, with their angles.
std::vector<Minutia> extractMinutiae(const cv::Mat& grey);
// How clear the ridges are: the mean coherence of their direction, 0..100.
int fingerQuality(const cv::Mat& grey);

std::string encodeTemplate(const std::vector<Minutia>& minutiae);
bool decodeTemplate(const char* bytes, std::vector<Minutia>* out);
// 0..100: the share of minutiae that pair up after the best rotation and shift.
int matchMinutiae(const std::vector<Minutia>& a, const std::vector<Minutia>& b);

}  // namespace portable
