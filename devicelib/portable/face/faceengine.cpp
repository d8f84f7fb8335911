#include "devicelib/portable/face/faceengine.h"
#include "devicelib/portable/core.h"

#include <QFileInfo>
#include <QImageReader>

#include <dlib/image_processing/shape_predictor.h>
#include <dlib/opencv/cv_image.h>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/objdetect.hpp>

#include <array>
#include <cmath>
#include <future>
#include <mutex>

namespace portable {

namespace {

const char kTag[4] = {'F', 'C', 'E', '1'};
constexpr double kMaxPixels = 100e6;

// Where a uniform 8-bit pattern goes among the 59 bins; 58 collects the rest.
std::array<unsigned char, 256> uniformBins()
{
    std::array<unsigned char, 256> bins{};
    int next = 0;
    for (int v = 0; v < 256; ++v) {
        int transitions = 0;
        for (int b = 0; b < 8; ++b)
            transitions += ((v >> b) & 1) != ((v >> ((b + 1) % 8)) & 1);
        bins[v] = static_cast<unsigned char>(transitions <= 2 ? next++ : 58);
    }
    return bins;
}

cv::Point2f centre(const std::vector<cv::Point2f>& marks, int from, int to)
{
    cv::Point2f c(0, 0);
    for (int i = from; i <= to; ++i)
        c += marks[i];
    return c * (1.0f / static_cast<float>(to - from + 1));
}

}  // namespace

struct FaceEngine::Models {
    std::mutex cascadeMutex;   // detectMultiScale keeps scratch state in the classifier
    cv::CascadeClassifier cascade;
    dlib::shape_predictor predictor;
    bool hasPredictor = false;
};

FaceEngine::FaceEngine() = default;

FaceEngine& FaceEngine::instance()
{
    // Never destroyed: camera threads may still look for faces while statics go at exit.
    static FaceEngine* const engine = new FaceEngine;
    return *engine;
}

namespace {

std::once_flag g_loadOnce;
std::shared_future<FaceEngine::Models*> g_models;
// The models stay for the life of the process (camera threads may look for faces while statics
// go); held here too, so they are still reachable once the future above is gone.
FaceEngine::Models* g_loadedModels = nullptr;

FaceEngine::Models* loadModels()
{
    auto* m = new FaceEngine::Models;
    g_loadedModels = m;
    const QString cascade = profileText(QStringLiteral("face.cascade"),
                                        QStringLiteral("/usr/share/opencv4/haarcascades/haarcascade_frontalface_alt2.xml"));
    if (!m->cascade.load(cascade.toStdString()))
        logLine(QStringLiteral("face: the face cascade %1 (profile key \"face.cascade\") cannot be loaded; no face will be found")
                    .arg(cascade));
    const QString model = profileText(QStringLiteral("face.landmarks"),
                                      QStringLiteral("/usr/share/dlib/shape_predictor_68_face_landmarks.dat"));
    try {
        dlib::deserialize(model.toStdString()) >> m->predictor;
        m->hasPredictor = m->predictor.num_parts() == 68;
        if (!m->hasPredictor)
            logLine(QStringLiteral("face: %1 (profile key \"face.landmarks\") is not a 68-point model").arg(model));
    } catch (const std::exception& e) {
        logLine(QStringLiteral("face: the landmark model %1 (profile key \"face.landmarks\") cannot be loaded (%2); "
                               "faces are aligned on their box and liveness cannot see blinks")
                    .arg(model, QString::fromLocal8Bit(e.what())));
    }
    return m;
}

}  // namespace

void FaceEngine::preload()
{
    std::call_once(g_loadOnce, [] { g_models = std::async(std::launch::async, loadModels).share(); });
}

FaceEngine::Models& FaceEngine::models()
{
    preload();
    return *g_models.get();
}

bool FaceEngine::hasLandmarks()
{
    return models().hasPredictor;
}

std::optional<FaceShape> FaceEngine::find(const cv::Mat& grey, bool tryRotations)
{
    if (grey.empty())
        return std::nullopt;
    Models& m = models();
    // Detection on a picture at most 640 pixels across (400 for camera frames, where the
    // customer's face fills a good part of the view): the cascade's time grows with the area.
    const double scale = std::min(1.0, (tryRotations ? 640.0 : 400.0) / std::max(grey.cols, grey.rows));
    cv::Mat small;
    cv::resize(grey, small, cv::Size(), scale, scale, cv::INTER_AREA);
    cv::equalizeHist(small, small);

    std::vector<double> angles{0};
    if (tryRotations)
        angles = {0, 20, -20};
    for (double angle : angles) {
        cv::Mat view = small;
        cv::Mat back;   // from the turned view to the small picture
        if (angle != 0) {
            const cv::Point2f c(small.cols / 2.0f, small.rows / 2.0f);
            const cv::Mat rot = cv::getRotationMatrix2D(c, angle, 1.0);
            cv::warpAffine(small, view, rot, small.size(), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
            cv::invertAffineTransform(rot, back);
        }
        std::vector<cv::Rect> faces;
        {
            std::lock_guard<std::mutex> lock(m.cascadeMutex);
            if (m.cascade.empty())
                return std::nullopt;
            m.cascade.detectMultiScale(view, faces, 1.1, 4, 0, cv::Size(40, 40));
        }
        if (faces.empty())
            continue;
        const cv::Rect best = *std::max_element(faces.begin(), faces.end(),
                                                [](const cv::Rect& a, const cv::Rect& b) { return a.area() < b.area(); });
        // The box's centre back in the full picture; its size scaled (turning keeps it).
        cv::Point2f c(best.x + best.width / 2.0f, best.y + best.height / 2.0f);
        if (!back.empty()) {
            const double* b = back.ptr<double>(0);
            const double* b1 = back.ptr<double>(1);
            c = cv::Point2f(static_cast<float>(b[0] * c.x + b[1] * c.y + b[2]), static_cast<float>(b1[0] * c.x + b1[1] * c.y + b1[2]));
        }
        const float side = static_cast<float>(best.width / scale);
        FaceShape shape;
        shape.box = cv::Rect(cvRound(c.x / scale - side / 2), cvRound(c.y / scale - side / 2), cvRound(side), cvRound(side));
        if (m.hasPredictor) {
            dlib::cv_image<unsigned char> img(grey);
            const dlib::rectangle r(shape.box.x, shape.box.y, shape.box.x + shape.box.width - 1,
                                    shape.box.y + shape.box.height - 1);
            const dlib::full_object_detection det = m.predictor(img, r);
            for (unsigned long i = 0; i < det.num_parts(); ++i)
                shape.marks.emplace_back(static_cast<float>(det.part(i).x()), static_cast<float>(det.part(i).y()));
        }
        return shape;
    }
    return std::nullopt;
}

cv::Mat FaceEngine::align(const cv::Mat& grey, const FaceShape& face) const
{
    cv::Point2f left, right;
    if (face.marks.size() == 68) {
        left = centre(face.marks, 36, 41);
        right = centre(face.marks, 42, 47);
    } else {
        // Where a frontal face's eyes sit in the cascade's box.
        const cv::Rect& b = face.box;
        left = cv::Point2f(b.x + 0.3f * b.width, b.y + 0.38f * b.height);
        right = cv::Point2f(b.x + 0.7f * b.width, b.y + 0.38f * b.height);
    }
    // Eyes at (36, 52) and (92, 52) of the 128 x 128 picture.
    const cv::Point2f d = right - left;
    const double dist = std::max(1.0, static_cast<double>(std::hypot(d.x, d.y)));
    const double s = 56.0 / dist;
    const double angle = std::atan2(d.y, d.x) * 180.0 / CV_PI;
    const cv::Point2f mid = (left + right) * 0.5f;
    cv::Mat m = cv::getRotationMatrix2D(mid, angle, s);
    m.at<double>(0, 2) += kAligned / 2.0 - mid.x;
    m.at<double>(1, 2) += 52.0 - mid.y;
    cv::Mat out;
    cv::warpAffine(grey, out, m, cv::Size(kAligned, kAligned), cv::INTER_LINEAR, cv::BORDER_REPLICATE);
    cv::equalizeHist(out, out);
    return out;
}

std::string FaceEngine::feature(const cv::Mat& aligned) const
{
    static const std::array<unsigned char, 256> bins = uniformBins();
    cv::Mat img;
    cv::GaussianBlur(aligned, img, cv::Size(3, 3), 0);
    std::vector<int> hist(kCells * kCells * kBins, 0);
    const int cell = kAligned / kCells;
    for (int y = 1; y < kAligned - 1; ++y) {
        for (int x = 1; x < kAligned - 1; ++x) {
            const unsigned char c = img.at<unsigned char>(y, x);
            static const int dy[8] = {-1, -1, -1, 0, 1, 1, 1, 0};
            static const int dx[8] = {-1, 0, 1, 1, 1, 0, -1, -1};
            int code = 0;
            for (int k = 0; k < 8; ++k)
                code |= (img.at<unsigned char>(y + dy[k], x + dx[k]) >= c) << k;
            hist[((y / cell) * kCells + x / cell) * kBins + bins[code]]++;
        }
    }
    std::string out(kTag, 4);
    out.reserve(kFeatureSize);
    for (int v : hist)
        out += static_cast<char>(static_cast<unsigned char>(1 + std::min(v, 254)));
    return out;
}

int FaceEngine::compare(const std::string& a, const std::string& b)
{
    if (a.size() != static_cast<size_t>(kFeatureSize) || b.size() != static_cast<size_t>(kFeatureSize)
        || a.compare(0, 4, kTag, 4) != 0 || b.compare(0, 4, kTag, 4) != 0)
        return -1;
    double chi = 0;
    for (int c = 0; c < kCells * kCells; ++c) {
        double sa = 0, sb = 0;
        for (int k = 0; k < kBins; ++k) {
            sa += static_cast<unsigned char>(a[4 + c * kBins + k]) - 1;
            sb += static_cast<unsigned char>(b[4 + c * kBins + k]) - 1;
        }
        if (sa <= 0 || sb <= 0)
            continue;
        for (int k = 0; k < kBins; ++k) {
            const double pa = (static_cast<unsigned char>(a[4 + c * kBins + k]) - 1) / sa;
            const double pb = (static_cast<unsigned char>(b[4 + c * kBins + k]) - 1) / sb;
            if (pa + pb > 0)
                chi += (pa - pb) * (pa - pb) / (pa + pb);
        }
    }
    const double d = chi / (kCells * kCells);   // 0 (same) .. 2 (disjoint)
    return static_cast<int>(std::lround(100.0 * std::exp(-d / kScale)));
}

int FaceEngine::loadGrey(const char* path, cv::Mat* grey)
{
    const QString file = QString::fromUtf8(path ? path : "");
    if (file.isEmpty() || !QFileInfo(file).isFile())
        return BadFile;
    // The header alone tells the size, so a huge picture is refused before it takes the memory.
    QImageReader reader(file);
    const QSize size = reader.size();
    if (size.isValid() && static_cast<double>(size.width()) * size.height() > kMaxPixels) {
        logLine(QStringLiteral("face: %1 is %2 x %3, over 100 megapixels").arg(file).arg(size.width()).arg(size.height()));
        return TooLarge;
    }
    *grey = cv::imread(file.toStdString(), cv::IMREAD_GRAYSCALE);
    if (grey->empty()) {
        logLine(QStringLiteral("face: %1 cannot be decoded").arg(file));
        return BadFile;
    }
    return 0;
}

int FaceEngine::featureOf(const cv::Mat& grey, std::string* out, cv::Mat* aligned, bool tryRotations)
{
    const std::optional<FaceShape> face = find(grey, tryRotations);
    if (!face)
        return NoFace;
    const cv::Mat a = align(grey, *face);
    *out = feature(a);
    if (aligned)
        *aligned = a;
    return 0;
}

double eyeAspectRatio(const std::vector<cv::Point2f>& m)
{
    if (m.size() != 68)
        return 0;
    auto ear = [&](int p) {
        const double v = cv::norm(m[p + 1] - m[p + 5]) + cv::norm(m[p + 2] - m[p + 4]);
        const double h = cv::norm(m[p] - m[p + 3]);
        return h > 0 ? v / (2 * h) : 0.0;
    };
    return (ear(36) + ear(42)) / 2;
}

}  // namespace portable
