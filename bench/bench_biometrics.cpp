// Face and fingerprint scores on known pairs, and the false match and false non-match rates
// at the default thresholds (face 60, finger 40). Not a test: the figures go in the README.
//   bench_biometrics                   the table
//   bench_biometrics --landmarks FILE  the eye outlines of the face in FILE (dlib points 36-47)
#include "devicelib/biometrics.h"
#include "devicelib/portable/core.h"
#include "devicelib/portable/face/faceengine.h"
#include "devicelib/portable/fingerprint/fingerprint.h"

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <chrono>
#include <cstdio>
#include <random>

using namespace portable;

namespace {

cv::Mat resourceImage(const QString& name)
{
    QFile f(":/portable/face/" + name);
    if (!f.open(QIODevice::ReadOnly))
        return cv::Mat();
    const QByteArray b = f.readAll();
    return cv::imdecode(cv::Mat(1, b.size(), CV_8U, const_cast<char*>(b.data())), cv::IMREAD_COLOR);
}

cv::Mat rotated(const cv::Mat& m, double deg)
{
    cv::Mat out;
    cv::warpAffine(m, out, cv::getRotationMatrix2D(cv::Point2f(m.cols / 2.f, m.rows / 2.f), deg, 1.0), m.size(),
                   cv::INTER_LINEAR, cv::BORDER_REPLICATE);
    return out;
}

cv::Mat scaled(const cv::Mat& m, double s)
{
    cv::Mat out;
    cv::resize(m, out, cv::Size(), s, s, s < 1 ? cv::INTER_AREA : cv::INTER_CUBIC);
    return out;
}

cv::Mat relit(const cv::Mat& m, double gain, double offset)
{
    cv::Mat out;
    m.convertTo(out, -1, gain, offset);
    return out;
}

struct Rates {
    int genuine = 0, impostor = 0, falseNonMatch = 0, falseMatch = 0;
    int minGenuine = 1000, maxImpostor = -1000;
    void add(bool same, int score, int threshold)
    {
        if (same) {
            ++genuine;
            falseNonMatch += score < threshold;
            minGenuine = std::min(minGenuine, score);
        } else {
            ++impostor;
            falseMatch += score >= threshold;
            maxImpostor = std::max(maxImpostor, score);
        }
    }
    void print(const char* what, int threshold) const
    {
        std::printf("%-7s threshold %3d: %3d genuine pairs (lowest %3d), FNMR %5.1f %%; %3d impostor pairs (highest %3d), FMR %5.1f %%\n",
                    what, threshold, genuine, minGenuine, genuine ? 100.0 * falseNonMatch / genuine : 0.0, impostor,
                    maxImpostor, impostor ? 100.0 * falseMatch / impostor : 0.0);
    }
};

int landmarks(const char* path)
{
    cv::Mat g = cv::imread(path, cv::IMREAD_GRAYSCALE);
    const auto face = FaceEngine::instance().find(g);
    if (!face || face->marks.size() != 68) {
        std::printf("no face with landmarks in %s\n", path);
        return 1;
    }
    for (int i = 36; i < 48; ++i)
        std::printf("%d: %.1f %.1f\n", i, face->marks[i].x, face->marks[i].y);
    std::printf("box %d %d %d %d, eye aspect ratio %.3f\n", face->box.x, face->box.y, face->box.width, face->box.height,
                eyeAspectRatio(face->marks));
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    Q_INIT_RESOURCE(face);
    if (argc == 3 && QByteArray(argv[1]) == "--landmarks")
        return landmarks(argv[2]);
    QTemporaryDir dir;

    // Faces: every variant of each person against every other picture.
    struct Picture {
        int person;
        std::string name, path;
    };
    std::vector<Picture> pictures;
    const char* people[] = {"grace_hopper.jpg", "astronaut.jpg"};
    for (int p = 0; p < 2; ++p) {
        const cv::Mat m = resourceImage(people[p]);
        const std::vector<std::pair<std::string, cv::Mat>> variants = {
            {"original", m},           {"rotated +10", rotated(m, 10)}, {"rotated -10", rotated(m, -10)},
            {"scaled 0.5", scaled(m, 0.5)}, {"scaled 1.6", scaled(m, 1.6)}, {"darker", relit(m, 0.6, -10)},
            {"brighter", relit(m, 1.2, 40)},  {"flat", relit(m, 0.6, 60)}};
        for (const auto& [name, img] : variants) {
            const std::string path = (dir.path() + QStringLiteral("/%1-%2.jpg").arg(p).arg(pictures.size())).toStdString();
            cv::imwrite(path, img);
            pictures.push_back({p, std::string(people[p]) + " " + name, path});
        }
    }
    const int faceThreshold = 60;
    Rates faces;
    const auto t0 = std::chrono::steady_clock::now();
    int comparisons = 0;
    for (size_t i = 0; i < pictures.size(); ++i) {
        for (size_t j = i + 1; j < pictures.size(); ++j) {
            const int s = lImageMatch(pictures[i].path.c_str(), pictures[j].path.c_str());
            ++comparisons;
            const bool same = pictures[i].person == pictures[j].person;
            faces.add(same, s, faceThreshold);
            if (j == i + 1 || !same)
                std::printf("  face %-26s vs %-26s %3d\n", pictures[i].name.c_str(), pictures[j].name.c_str(), s);
        }
    }
    const double faceMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count() / comparisons;

    // The ID portrait: the face cut from the photograph at 102 x 126, against the photograph.
    {
        const cv::Mat m = resourceImage(people[0]);
        const auto face = FaceEngine::instance().find([&] { cv::Mat g; cv::cvtColor(m, g, cv::COLOR_BGR2GRAY); return g; }());
        if (face) {
            const cv::Rect r = cv::Rect(face->box.x - face->box.width / 4, face->box.y - face->box.height / 3,
                                        face->box.width * 3 / 2, face->box.height * 3 / 2 * 126 / 102)
                & cv::Rect(0, 0, m.cols, m.rows);
            cv::Mat portrait;
            cv::resize(m(r), portrait, cv::Size(102, 126), 0, 0, cv::INTER_AREA);
            const std::string path = (dir.path() + "/portrait.jpg").toStdString();
            cv::imwrite(path, portrait);
            const long long same = lImageIdMatch(pictures[1].path.c_str(), path.c_str());
            const long long other = lImageIdMatch(pictures[8].path.c_str(), path.c_str());
            std::printf("  ID portrait 102 x 126: same person %lld, other person %lld\n", same, other);
            faces.add(true, static_cast<int>(same), faceThreshold);
            faces.add(false, static_cast<int>(other), faceThreshold);
        }
    }

    // Fingers: each finger placed twice (turned up to 8 degrees, moved up to 10 pixels, noisy)
    // against itself and against the others' placements.
    const int fingerThreshold = 40;
    Rates fingers;
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> u(-1, 1);
    std::vector<std::vector<Minutia>> first, second;
    const int nFingers = 20;
    for (int f = 1; f <= nFingers; ++f) {
        for (auto* set : {&first, &second}) {
            const cv::Mat img = renderFinger(static_cast<std::uint32_t>(f), 8 * u(rng),
                                             cv::Point2f(static_cast<float>(10 * u(rng)), static_cast<float>(10 * u(rng))), 12, rng());
            set->push_back(extractMinutiae(img));
        }
    }
    const auto t1 = std::chrono::steady_clock::now();
    int fingerComparisons = 0;
    for (int i = 0; i < nFingers; ++i) {
        for (int j = 0; j < nFingers; ++j) {
            const int s = matchMinutiae(first[i], second[j]);
            ++fingerComparisons;
            fingers.add(i == j, s, fingerThreshold);
            if (i == j)
                std::printf("  finger %2d: %2zu / %2zu minutiae, score %3d\n", i + 1, first[i].size(), second[j].size(), s);
        }
    }
    const double fingerMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t1).count() / fingerComparisons;

    faces.print("faces", faceThreshold);
    fingers.print("fingers", fingerThreshold);
    std::printf("time per comparison: face %.1f ms (both files decoded and searched), finger %.2f ms\n", faceMs, fingerMs);
    return 0;
}
