#include "devicelib/portable/fingerprint/fingerprint.h"

#include <opencv2/imgproc.hpp>
#include <opencv2/ximgproc.hpp>

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <tuple>

namespace portable {

namespace {

constexpr int kWidth = 256, kHeight = 320;
constexpr double kRidgePeriod = 9.0;

double wrapPi(double a)   // into [0, pi)
{
    a = std::fmod(a, CV_PI);
    return a < 0 ? a + CV_PI : a;
}

double angleDiff(double a, double b)   // between two directions, 0..pi/2
{
    const double d = std::fabs(wrapPi(a) - wrapPi(b));
    return std::min(d, CV_PI - d);
}

}  // namespace

cv::Mat renderFinger(std::uint32_t seed, double rotateDeg, cv::Point2f shift, double noise, std::uint32_t noiseSeed)
{
    std::mt19937 rng(seed * 2654435761u + 12345u);
    std::uniform_real_distribution<double> u(0, 1);
    const double cx = kWidth * (0.4 + 0.2 * u(rng)), cy = kHeight * (0.35 + 0.2 * u(rng));
    const double stretch = 0.7 + 0.5 * u(rng);    // loops are taller than wide
    const double swirl = (u(rng) - 0.5) * 0.02;   // a twist that grows with the distance
    struct Point {
        double x, y, sign;
    };
    std::vector<Point> points;
    for (int i = 0; i < 30; ++i)
        points.push_back({kWidth * (0.12 + 0.76 * u(rng)), kHeight * (0.1 + 0.8 * u(rng)), u(rng) < 0.5 ? -1.0 : 1.0});

    const double a = -rotateDeg * CV_PI / 180.0;
    const double ca = std::cos(a), sa = std::sin(a);
    const double mx = kWidth / 2.0, my = kHeight / 2.0;
    cv::Mat img(kHeight, kWidth, CV_8U);
    for (int y = 0; y < kHeight; ++y) {
        auto* row = img.ptr<unsigned char>(y);
        for (int x = 0; x < kWidth; ++x) {
            // Back from the sensor to the finger's own coordinates.
            const double px = x - shift.x - mx, py = y - shift.y - my;
            const double fx = ca * px - sa * py + mx, fy = sa * px + ca * py + my;
            const double ex = (fx - mx) / (kWidth * 0.46), ey = (fy - my) / (kHeight * 0.47);
            if (ex * ex + ey * ey > 1) {
                row[x] = 255;   // outside the finger
                continue;
            }
            const double dx = fx - cx, dy = (fy - cy) * stretch;
            const double r = std::sqrt(dx * dx + dy * dy);
            double phase = r / kRidgePeriod + swirl * r * std::atan2(dy, dx) / (2 * CV_PI);
            for (const Point& p : points)
                phase += p.sign * std::atan2(fy - p.y, fx - p.x) / (2 * CV_PI);
            const double v = std::cos(2 * CV_PI * phase);
            row[x] = static_cast<unsigned char>(std::clamp(128.0 + 110.0 * v, 0.0, 255.0));
        }
    }
    if (noise > 0) {
        cv::Mat n(img.size(), CV_32F);
        cv::RNG r(noiseSeed);
        r.fill(n, cv::RNG::NORMAL, 0, noise);
        cv::Mat f;
        img.convertTo(f, CV_32F);
        f += n;
        f.convertTo(img, CV_8U);
        cv::GaussianBlur(img, img, cv::Size(3, 3), 0);
    }
    return img;
}

namespace {

// Ridge direction field (radians in [0, pi)) and its coherence, from the smoothed structure
// tensor of the gradients.
void orientationField(const cv::Mat& grey, cv::Mat* angle, cv::Mat* coherence)
{
    cv::Mat f, gx, gy;
    grey.convertTo(f, CV_32F);
    cv::Sobel(f, gx, CV_32F, 1, 0, 3);
    cv::Sobel(f, gy, CV_32F, 0, 1, 3);
    cv::Mat gxx = gx.mul(gx), gyy = gy.mul(gy), gxy = gx.mul(gy);
    const cv::Size k(17, 17);
    cv::GaussianBlur(gxx, gxx, k, 0);
    cv::GaussianBlur(gyy, gyy, k, 0);
    cv::GaussianBlur(gxy, gxy, k, 0);
    angle->create(grey.size(), CV_32F);
    if (coherence)
        coherence->create(grey.size(), CV_32F);
    for (int y = 0; y < grey.rows; ++y) {
        for (int x = 0; x < grey.cols; ++x) {
            const float a = gxx.at<float>(y, x), b = gyy.at<float>(y, x), c = gxy.at<float>(y, x);
            // The gradient's direction, turned a quarter: the ridges run across it.
            angle->at<float>(y, x) = static_cast<float>(wrapPi(0.5 * std::atan2(2 * c, a - b) + CV_PI / 2));
            if (coherence) {
                const double sum = a + b;
                coherence->at<float>(y, x) = sum > 1e-3 ? static_cast<float>(std::sqrt((a - b) * (a - b) + 4 * c * c) / sum) : 0.f;
            }
        }
    }
}

}  // namespace

std::vector<Minutia> withAngles(const cv::Mat& grey, const std::vector<cv::Point2f>& positions)
{
    cv::Mat angle;
    orientationField(grey, &angle, nullptr);
    std::vector<Minutia> out;
    for (const cv::Point2f& p : positions) {
        const int x = std::clamp(cvRound(p.x), 0, grey.cols - 1), y = std::clamp(cvRound(p.y), 0, grey.rows - 1);
        out.push_back({p.x, p.y, angle.at<float>(y, x)});
    }
    return out;
}

std::vector<Minutia> extractMinutiae(const cv::Mat& grey)
{
    if (grey.empty())
        return {};
    cv::Mat g;
    cv::GaussianBlur(grey, g, cv::Size(5, 5), 0);
    // Ridges (dark) become white for thinning.
    cv::Mat bin;
    cv::adaptiveThreshold(g, bin, 255, cv::ADAPTIVE_THRESH_MEAN_C, cv::THRESH_BINARY_INV, 15, 0);
    // Where the finger is: enough contrast around, away from its edge.
    cv::Mat mean, sq, f;
    g.convertTo(f, CV_32F);
    cv::blur(f, mean, cv::Size(15, 15));
    cv::blur(f.mul(f), sq, cv::Size(15, 15));
    cv::Mat var = sq - mean.mul(mean);
    cv::Mat mask = var > 400;
    cv::erode(mask, mask, cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(25, 25)));
    bin &= mask;
    cv::Mat skel;
    cv::ximgproc::thinning(bin, skel, cv::ximgproc::THINNING_ZHANGSUEN);

    std::vector<cv::Point2f> found;
    static const int dx[8] = {-1, 0, 1, 1, 1, 0, -1, -1};
    static const int dy[8] = {-1, -1, -1, 0, 1, 1, 1, 0};
    for (int y = 1; y < skel.rows - 1; ++y) {
        for (int x = 1; x < skel.cols - 1; ++x) {
            if (!skel.at<unsigned char>(y, x) || !mask.at<unsigned char>(y, x))
                continue;
            int cn = 0;
            for (int k = 0; k < 8; ++k) {
                const bool a = skel.at<unsigned char>(y + dy[k], x + dx[k]) != 0;
                const bool b = skel.at<unsigned char>(y + dy[(k + 1) % 8], x + dx[(k + 1) % 8]) != 0;
                cn += a != b;
            }
            cn /= 2;
            if (cn == 1 || cn == 3)
                found.emplace_back(static_cast<float>(x), static_cast<float>(y));
        }
    }
    // Two minutiae closer than a ridge apart are a break or a spur of the thinning: drop both.
    std::vector<bool> drop(found.size(), false);
    for (size_t i = 0; i < found.size(); ++i)
        for (size_t j = i + 1; j < found.size(); ++j)
            if (cv::norm(found[i] - found[j]) < 8)
                drop[i] = drop[j] = true;
    std::vector<cv::Point2f> kept;
    for (size_t i = 0; i < found.size(); ++i)
        if (!drop[i])
            kept.push_back(found[i]);
    // The ones nearest the centre when there are too many.
    const cv::Point2f c(grey.cols / 2.0f, grey.rows / 2.0f);
    std::sort(kept.begin(), kept.end(), [&](const cv::Point2f& a, const cv::Point2f& b) { return cv::norm(a - c) < cv::norm(b - c); });
    if (kept.size() > static_cast<size_t>(kMaxMinutiae))
        kept.resize(kMaxMinutiae);
    return withAngles(grey, kept);
}

int fingerQuality(const cv::Mat& grey)
{
    if (grey.empty())
        return 0;
    cv::Mat angle, coherence;
    orientationField(grey, &angle, &coherence);
    cv::Mat inside = grey < 250;
    cv::erode(inside, inside, cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(15, 15)));
    if (cv::countNonZero(inside) == 0)
        return 0;
    return std::clamp(static_cast<int>(std::lround(100 * cv::mean(coherence, inside)[0])), 0, 100);
}

std::string encodeTemplate(const std::vector<Minutia>& minutiae)
{
    std::string t = "FPT1";
    const size_t n = std::min(minutiae.size(), static_cast<size_t>(kMaxMinutiae));
    t += static_cast<char>(1 + n);
    for (size_t i = 0; i < static_cast<size_t>(kMaxMinutiae); ++i) {
        if (i >= n) {
            t.append(5, static_cast<char>(0xFF));
            continue;
        }
        const int x = std::clamp(cvRound(minutiae[i].x), 0, 16000), y = std::clamp(cvRound(minutiae[i].y), 0, 16000);
        t += static_cast<char>(1 + (x >> 7));
        t += static_cast<char>(1 + (x & 127));
        t += static_cast<char>(1 + (y >> 7));
        t += static_cast<char>(1 + (y & 127));
        t += static_cast<char>(1 + std::lround(wrapPi(minutiae[i].angle) / CV_PI * 253) % 254);
    }
    return t;
}

bool decodeTemplate(const char* bytes, std::vector<Minutia>* out)
{
    const auto* p = reinterpret_cast<const unsigned char*>(bytes);
    if (std::string(bytes, 4) != "FPT1" || p[4] < 1 || p[4] > 1 + kMaxMinutiae)
        return false;
    out->clear();
    for (int i = 0; i < p[4] - 1; ++i) {
        const unsigned char* s = p + 5 + i * 5;
        Minutia m;
        m.x = static_cast<float>(((s[0] - 1) << 7) | (s[1] - 1));
        m.y = static_cast<float>(((s[2] - 1) << 7) | (s[3] - 1));
        m.angle = static_cast<float>((s[4] - 1) * CV_PI / 253);
        out->push_back(m);
    }
    return true;
}

int matchMinutiae(const std::vector<Minutia>& a, const std::vector<Minutia>& b)
{
    if (a.size() < 3 || b.size() < 3)
        return 0;
    // Every pairing of a minutia of a with one of b proposes a rotation (their directions'
    // difference, within 60 degrees) and the shift that follows; the proposals vote.
    std::map<std::tuple<int, int, int>, int> votes;
    for (const Minutia& p : a) {
        for (const Minutia& q : b) {
            double rot = wrapPi(q.angle - p.angle);
            if (rot > CV_PI / 2)
                rot -= CV_PI;
            if (std::fabs(rot) > CV_PI / 3)
                continue;
            const double c = std::cos(rot), s = std::sin(rot);
            const double tx = q.x - (c * p.x - s * p.y), ty = q.y - (s * p.x + c * p.y);
            votes[{static_cast<int>(std::lround(rot / (CV_PI / 36))), static_cast<int>(std::lround(tx / 10)),
                   static_cast<int>(std::lround(ty / 10))}]++;
        }
    }
    std::vector<std::pair<int, std::tuple<int, int, int>>> ranked;
    for (const auto& [key, n] : votes)
        ranked.emplace_back(n, key);
    std::partial_sort(ranked.begin(), ranked.begin() + std::min<size_t>(8, ranked.size()), ranked.end(),
                      [](const auto& x, const auto& y) { return x.first > y.first; });
    int best = 0;
    for (size_t r = 0; r < std::min<size_t>(8, ranked.size()); ++r) {
        const auto [ri, txi, tyi] = ranked[r].second;
        const double rot = ri * CV_PI / 36, c = std::cos(rot), s = std::sin(rot);
        const double tx = txi * 10.0, ty = tyi * 10.0;
        std::vector<bool> used(b.size(), false);
        int pairs = 0;
        for (const Minutia& p : a) {
            const double x = c * p.x - s * p.y + tx, y = s * p.x + c * p.y + ty;
            int hit = -1;
            double nearest = 14;
            for (size_t j = 0; j < b.size(); ++j) {
                const double d = std::hypot(b[j].x - x, b[j].y - y);
                if (!used[j] && d < nearest && angleDiff(p.angle + rot, b[j].angle) < CV_PI / 10) {
                    nearest = d;
                    hit = static_cast<int>(j);
                }
            }
            if (hit >= 0) {
                used[hit] = true;
                ++pairs;
            }
        }
        best = std::max(best, pairs);
    }
    return static_cast<int>(std::lround(100.0 * best * best / (static_cast<double>(a.size()) * b.size())));
}

}  // namespace portable
