// Finding, aligning and comparing faces.
//
// A face is found with OpenCV's Haar cascade (Debian's opencv-data), its 68 landmarks placed
// with dlib's shape predictor (Debian's libdlib-data), and it is aligned on the eye centres
// into a 128 x 128 grey picture. Its feature is the local-binary-pattern histogram of that
// picture: 8 x 8 cells, 59 uniform patterns each, one byte per bin (count + 1, so never 0),
// behind a 4-byte tag. Two features score 100 * exp(-d / 0.9) where d is the chi-square
// distance of the cell histograms, normalised per cell.
#pragma once

#include <opencv2/core.hpp>

#include <optional>
#include <string>
#include <vector>

namespace portable {

// What the face functions answer beside a score.
enum FaceError { NoFace = -1, BadFile = -2, TooLarge = -3, NoCamera = -4 };

struct FaceShape {
    cv::Rect box;
    std::vector<cv::Point2f> marks;   // 68 landmarks in image coordinates; empty without the model
};

class FaceEngine {
public:
    static constexpr int kAligned = 128;
    static constexpr int kCells = 8;
    static constexpr int kBins = 59;
    static constexpr int kFeatureSize = 4 + kCells * kCells * kBins;   // 3780 bytes

    static FaceEngine& instance();

    // Starts loading the cascade and the landmark model on a thread of their own (once).
    void preload();
    // The largest face of a grey picture. tryRotations also looks at the picture turned by
    // +-20 degrees (for stills; too slow for every camera frame).
    std::optional<FaceShape> find(const cv::Mat& grey, bool tryRotations = false);
    // The face turned and scaled so that the eyes sit level at fixed places.
    cv::Mat align(const cv::Mat& grey, const FaceShape& face) const;
    std::string feature(const cv::Mat& aligned) const;
    // 0..100; -1 when either is not a feature of kFeatureSize bytes.
    static int compare(const std::string& a, const std::string& b);
    // The distance at which the score has fallen to 1/e of 100.
    static constexpr double kScale = 0.9;
    bool hasLandmarks();

    // Loads an image file for comparison: BadFile (missing, undecodable), TooLarge (over
    // 100 megapixels, refused before decoding) or 0 with *grey filled.
    static int loadGrey(const char* path, cv::Mat* grey);
    // grey -> feature, or NoFace.
    int featureOf(const cv::Mat& grey, std::string* out, cv::Mat* aligned = nullptr, bool tryRotations = true);

    struct Models;

private:
    FaceEngine();
    Models& models();
};

// Eye aspect ratio of the two eyes (mean), from 68 landmarks; 0 without landmarks.
double eyeAspectRatio(const std::vector<cv::Point2f>& marks);

}  // namespace portable
