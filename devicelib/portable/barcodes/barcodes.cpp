#define ZX_USE_UTF8 1
#include "devicelib/portable/barcodes/barcodes.h"
#include "devicelib/portable/camera/camera.h"

#include <QFile>
#include <QString>

#include <ZXing/ReadBarcode.h>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cmath>

namespace portable {

namespace {

ZXing::BarcodeFormats formatsOf(long kind)
{
    using F = ZXing::BarcodeFormat;
    switch (kind) {
    case 0: return F::Any;
    case 1: return F::QRCode;
    case 2: return F::Code128;
    case 3: return F::EAN13;
    case 4: return F::PDF417;
    case 5: return F::DataMatrix;
    case 6: return F::Code39;
    case 7: return F::ITF;
    default: return F::None;
    }
}

}  // namespace

bool barcodeKindKnown(long kind)
{
    return kind >= 0 && kind <= 7;
}

namespace {

// ZXing alone, on a grey picture (so the child process below needs nothing else).
std::vector<std::string> decode(const cv::Mat& grey, long kind)
{
    ZXing::DecodeHints hints;
    hints.setFormats(formatsOf(kind));
    hints.setTryHarder(true);
    hints.setTryRotate(true);
    // Debian's libzxing 1.4 is built with assertions on, and its downscaled pass trips one on
    // ordinary pictures (a lone Code 128 in a 700 x 520 image, Code 128 beside a QR code),
    // aborting the whole server: read at full size only.
    hints.setTryDownscale(false);
    const ZXing::ImageView view(grey.data, grey.cols, grey.rows, ZXing::ImageFormat::Lum, static_cast<int>(grey.step[0]));
    struct Found {
        double y, x;
        std::string text;
    };
    std::vector<Found> found;
    const auto collect = [&](const ZXing::Results& results, int dx, int dy) {
        for (const ZXing::Result& r : results) {
            if (!r.isValid())
                continue;
            double x = dx, y = dy;
            for (const auto& p : r.position()) {
                x += p.x / 4.0;
                y += p.y / 4.0;
            }
            // A symbol seen again from an overlapping tile is the same symbol.
            const bool seen = std::any_of(found.begin(), found.end(), [&](const Found& f) {
                return f.text == r.text() && std::abs(f.x - x) < 16 && std::abs(f.y - y) < 16;
            });
            if (!seen)
                found.push_back({y, x, r.text()});
        }
    };
    collect(ZXing::ReadBarcodes(view, hints), 0, 0);
    // libzxing 1.4 finds a Data Matrix only near the middle of the picture: when one is asked
    // for, look again in overlapping tiles, a half and a quarter of the picture wide, so one in
    // a corner is found too (for kind 0 that would cost too much on every read).
    if (kind == 5 && grey.cols >= 64 && grey.rows >= 64) {
        ZXing::DecodeHints tileHints = hints;
        tileHints.setFormats(ZXing::BarcodeFormat::DataMatrix);
        for (int parts : {2, 4}) {
            const int tw = grey.cols / parts, th = grey.rows / parts;
            for (int ty = 0; ty + th <= grey.rows; ty += th / 2)
                for (int tx = 0; tx + tw <= grey.cols; tx += tw / 2) {
                    const ZXing::ImageView tile(grey.ptr(ty, tx), tw, th, ZXing::ImageFormat::Lum, static_cast<int>(grey.step[0]));
                    collect(ZXing::ReadBarcodes(tile, tileHints), tx, ty);
                }
        }
    }
    std::stable_sort(found.begin(), found.end(), [](const Found& a, const Found& b) { return a.y != b.y ? a.y < b.y : a.x < b.x; });
    std::vector<std::string> texts;
    for (auto& f : found)
        texts.push_back(std::move(f.text));
    return texts;
}

// A child that never finishes (stuck on a lock another thread held at the fork) is given up
// on after this long, so a command never hangs on it.
constexpr auto kReaderLimit = std::chrono::seconds(10);

bool readAll(int fd, void* data, size_t size, std::chrono::steady_clock::time_point deadline)
{
    auto* p = static_cast<char*>(data);
    while (size > 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd pfd{fd, POLLIN, 0};
        const int ready = left.count() > 0 ? ::poll(&pfd, 1, static_cast<int>(left.count())) : 0;
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return false;
        const ssize_t n = ::read(fd, p, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

void writeAll(int fd, const void* data, size_t size)
{
    const auto* p = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = ::write(fd, p, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        p += n;
        size -= static_cast<size_t>(n);
    }
}

}  // namespace

// The decode runs in a child process: a reader that trips an assertion on some picture
// (Debian's libzxing aborts) takes only the child down, never the server.
std::vector<std::string> readBarcodes(const cv::Mat& image, long kind)
{
    if (image.empty() || !barcodeKindKnown(kind))
        return {};
    cv::Mat grey;
    if (image.channels() == 1)
        grey = image;
    else
        cv::cvtColor(image, grey, image.channels() == 4 ? cv::COLOR_BGRA2GRAY : cv::COLOR_BGR2GRAY);
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return decode(grey, kind);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::close(fds[0]);
        for (const std::string& t : decode(grey, kind)) {
            const uint32_t n = static_cast<uint32_t>(t.size());
            writeAll(fds[1], &n, sizeof n);
            writeAll(fds[1], t.data(), t.size());
        }
        ::_exit(0);
    }
    ::close(fds[1]);
    std::vector<std::string> texts;
    uint32_t n = 0;
    const auto deadline = std::chrono::steady_clock::now() + kReaderLimit;
    while (pid > 0 && readAll(fds[0], &n, sizeof n, deadline)) {
        std::string t(n, '\0');
        if (!readAll(fds[0], t.data(), n, deadline))
            break;
        texts.push_back(std::move(t));
    }
    ::close(fds[0]);
    if (pid > 0 && std::chrono::steady_clock::now() >= deadline)
        ::kill(pid, SIGKILL);
    int status = 0;
    pid_t reaped = -1;
    while (pid > 0 && (reaped = ::waitpid(pid, &status, 0)) < 0 && errno == EINTR) {
    }
    if (pid < 0 || reaped != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        logLine(pid < 0 ? QStringLiteral("barcodes: cannot start the reader (%1)").arg(QString::fromLocal8Bit(std::strerror(errno)))
                        : QStringLiteral("barcodes: the reader failed on a %1 x %2 picture (%3); nothing read")
                              .arg(image.cols).arg(image.rows)
                              .arg(WIFSIGNALED(status) ? QStringLiteral("signal %1").arg(WTERMSIG(status)) : QStringLiteral("status %1").arg(WEXITSTATUS(status))));
        return {};
    }
    return texts;
}

Text barcodesInFile(const char* fn, const char* path, long kind, bool firstOnly)
{
    const QString file = QString::fromLocal8Bit(path ? path : "");
    if (!barcodeKindKnown(kind)) {
        logLine(QStringLiteral("%1: barcode kind %2 is not one of 0 to 7").arg(QLatin1String(fn)).arg(kind));
        return std::string();
    }
    QFile f(file);
    if (!f.open(QIODevice::ReadOnly)) {
        logLine(QStringLiteral("%1: cannot read \"%2\"").arg(QLatin1String(fn), file));
        return std::string();
    }
    const QByteArray bytes = f.readAll();
    const cv::Mat image = bytes.isEmpty() ? cv::Mat()
                                          : cv::imdecode(cv::Mat(1, bytes.size(), CV_8UC1, const_cast<char*>(bytes.constData())),
                                                         cv::IMREAD_GRAYSCALE);
    if (image.empty()) {
        logLine(QStringLiteral("%1: \"%2\" is not an image").arg(QLatin1String(fn), file));
        return std::string();
    }
    const std::vector<std::string> texts = readBarcodes(image, kind);
    if (texts.empty())
        return std::string();
    if (firstOnly)
        return texts.front();
    std::string joined;
    for (const std::string& t : texts)
        joined += (joined.empty() ? "" : "|") + t;
    return joined;
}

Text barcodeOnline()
{
    cv::Mat frame;
    if (!camera().videoFrameMat(frame)) {
        logLine(QStringLiteral("sGetBarCodeOnline: no camera is open"));
        return std::nullopt;
    }
    const std::vector<std::string> texts = readBarcodes(frame, 0);
    return texts.empty() ? std::string() : texts.front();
}

}  // namespace portable
