// Preview path, in process: frames from the portable library's getVideoFrame through the
// server's own preview step (scale, JPEG, base64), beside the TurboJPEG floor of the same work.
// Prints "key value" lines; run.sh turns them into the table. CPU time of this thread only, so
// the synthetic camera's own encoding on its grabber thread is not counted.
#include "camera/jpegbase64.h"
#include "camera/previewframe.h"
#include "devicelib/doccamera.h"
#include "devicelib/portable/camera/camerasource.h"
#include "devicelib/portable/core.h"

#include <QGuiApplication>
#include <QImage>

#include <turbojpeg.h>

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

double cpuMs()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

// Median of the samples of each measure.
class Samples {
public:
    double time(const char* key, const std::function<void()>& work)
    {
        const double t0 = cpuMs();
        work();
        const double ms = cpuMs() - t0;
        m_samples[key].push_back(ms);
        return ms;
    }
    double median(const std::string& key) const
    {
        auto it = m_samples.find(key);
        if (it == m_samples.end() || it->second.empty())
            return 0;
        std::vector<double> v = it->second;
        std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
        return v[v.size() / 2];
    }
    void print(const std::string& key) const { std::printf("%s %.3f\n", key.c_str(), median(key)); }
    void printAll() const
    {
        for (const auto& kv : m_samples)
            print(kv.first);
    }

private:
    std::map<std::string, std::vector<double>> m_samples;
};

QByteArray profile(bool mjpeg)
{
    // Slow enough that the camera's own encoding leaves this thread a core of its own.
    return QStringLiteral(R"({"camera":{"previewWidth":1280,"sources":{"1":{"type":"synthetic","width":2592,)"
                          R"("height":1944,"fps":8,"mjpeg":%1}}}})")
        .arg(mjpeg ? "true" : "false")
        .toUtf8();
}

// The server's step split into its parts, to see where the time goes: the scaling, the page
// encoder (JPEG and base64 together), and the base64 alone of the same bytes.
void splitSteps(Samples& s, const std::string& prefix, const QImage& frame)
{
    QImage scaled;
    QByteArray b64;
    s.time((prefix + ".scale").c_str(), [&] { scaled = frame.scaled(800, 600, Qt::IgnoreAspectRatio, Qt::FastTransformation); });
    s.time((prefix + ".jpeg").c_str(), [&] { b64 = jpegBase64(scaled); });
    const QByteArray jpeg = QByteArray::fromBase64(b64);
    s.time((prefix + ".base64").c_str(), [&] { (void)jpeg.toBase64(); });
}

// tjCompress2 on the scaled frame: 4:2:0 at quality 75, what the image library's default means.
void compressFloor(Samples& s, tjhandle tj, const QImage& frame)
{
    const QImage scaled = frame.scaled(800, 600, Qt::IgnoreAspectRatio, Qt::FastTransformation);
    const int pf = scaled.format() == QImage::Format_RGB888 ? TJPF_RGB : TJPF_BGRX;
    s.time("ref.tjCompress2", [&] {
        unsigned char* buf = nullptr;
        unsigned long size = 0;
        tjCompress2(tj, scaled.constBits(), scaled.width(), scaled.bytesPerLine(), scaled.height(), pf, &buf, &size,
                    TJSAMP_420, 75, 0);
        tjFree(buf);
    });
}

bool rawPath(Samples& s, int frames, tjhandle tjc)
{
    portable::loadProfileText(profile(false), QStringLiteral("bench"));
    if (!bStartPlay(0))
        return false;
    for (int i = 0; i < 3; ++i) {
        QImage warm;
        getVideoFrame(warm);
    }
    for (int i = 0; i < frames; ++i) {
        // A fresh image per fetch, as the capture thread holds its frame for one pass only.
        QImage frame;
        bool ok = false;
        // getVideoFrame converts on the calling thread; the wait for the frame is not CPU.
        s.time("raw.getVideoFrame", [&] { ok = getVideoFrame(frame); });
        if (!ok || frame.isNull())
            return false;
        if (i == 0)
            std::printf("raw.frame_format %s %dx%d\n", frame.format() == QImage::Format_RGB32 ? "RGB32" : "other",
                        frame.width(), frame.height());
        for (int r = 0; r < 3; ++r) {
            s.time("raw.steps", [&] { (void)previewFrameBase64(frame, 800, 600); });
            splitSteps(s, "raw.split", frame);
            compressFloor(s, tjc, frame);
        }
        // The plain path: the same frame handed over as 24-bit RGB.
        const QImage rgb888 = frame.convertToFormat(QImage::Format_RGB888);
        s.time("raw.plain888", [&] { (void)previewFrameBase64(rgb888, 800, 600); });
        splitSteps(s, "raw.plain888.split", rgb888);
    }
    bStopPlay();
    return true;
}

bool mjpegPath(Samples& s, int frames, tjhandle tjd)
{
    // The same camera frames the library decodes, for the reference decodes.
    auto source = portable::makeSyntheticSource(1, 2592, 1944, 1000, true);
    std::vector<std::vector<unsigned char>> jpegs;
    if (!source->open(0, 0))
        return false;
    for (int i = 0; i < 4; ++i) {
        portable::RawFrame raw;
        if (source->grab(raw) && raw.jpeg)
            jpegs.push_back(*raw.jpeg);
    }
    source->close();
    if (jpegs.empty())
        return false;
    QImage half(1296, 972, QImage::Format_RGB32);
    QImage full(2592, 1944, QImage::Format_RGB32);
    portable::loadProfileText(profile(true), QStringLiteral("bench"));
    if (!bStartPlay(0))
        return false;
    for (int i = 0; i < 3; ++i) {
        QImage warm;
        getVideoFrame(warm);
    }
    for (int i = 0; i < frames; ++i) {
        QImage frame;
        bool ok = false;
        // getVideoFrame decodes the newest frame on the calling thread; the wait is not CPU.
        s.time("mjpeg.getVideoFrame", [&] { ok = getVideoFrame(frame); });
        if (!ok || frame.isNull())
            return false;
        if (i == 0)
            std::printf("mjpeg.frame_format %s %dx%d\n", frame.format() == QImage::Format_RGB32 ? "RGB32" : "other",
                        frame.width(), frame.height());
        s.time("mjpeg.steps", [&] { (void)previewFrameBase64(frame, 800, 600); });
        splitSteps(s, "mjpeg.split", frame);
        // The references, interleaved with the path so that both see the same machine.
        const auto& j = jpegs[static_cast<size_t>(i) % jpegs.size()];
        s.time("ref.tjDecompress2_half", [&] {
            tjDecompress2(tjd, j.data(), j.size(), half.bits(), 1296, half.bytesPerLine(), 972, TJPF_BGRX, 0);
        });
        s.time("ref.tjDecompress2_half_fastdct", [&] {
            tjDecompress2(tjd, j.data(), j.size(), half.bits(), 1296, half.bytesPerLine(), 972, TJPF_BGRX, TJFLAG_FASTDCT);
        });
        // With the library's preview flags, for the split of the library's fetch.
        s.time("ref.tjDecompress2_half_previewflags", [&] {
            tjDecompress2(tjd, j.data(), j.size(), half.bits(), 1296, half.bytesPerLine(), 972, TJPF_BGRX,
                          TJFLAG_FASTDCT | TJFLAG_FASTUPSAMPLE);
        });
        // At 1/8 the IDCT is next to nothing: what is left is reading the Huffman-coded data,
        // the part of the decode that no scale or flag makes cheaper.
        s.time("ref.tjDecompress2_eighth", [&] {
            tjDecompress2(tjd, j.data(), j.size(), half.bits(), 324, half.bytesPerLine(), 243, TJPF_BGRX, 0);
        });
        s.time("ref.tjDecompress2_full", [&] {
            tjDecompress2(tjd, j.data(), j.size(), full.bits(), 2592, full.bytesPerLine(), 1944, TJPF_BGRX, 0);
        });
        // The plain path: full-size decode, then the server's step.
        s.time("mjpeg.plainfull", [&] {
            tjDecompress2(tjd, j.data(), j.size(), full.bits(), 2592, full.bytesPerLine(), 1944, TJPF_BGRX, 0);
            (void)previewFrameBase64(full, 800, 600);
        });
    }
    bStopPlay();
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    int frames = 40;
    for (int i = 1; i + 1 < argc; ++i)
        if (std::strcmp(argv[i], "--frames") == 0)
            frames = std::max(5, std::atoi(argv[i + 1]));

    tjhandle tjc = tjInitCompress();
    tjhandle tjd = tjInitDecompress();
    Samples s;
    // On a thread of its own, as the capture thread is: the allocator behaves differently there.
    bool rawOk = false, mjpegOk = false;
    std::thread worker([&] {
        rawOk = rawPath(s, frames, tjc);
        mjpegOk = mjpegPath(s, frames, tjd);
    });
    worker.join();
    tjDestroy(tjc);
    tjDestroy(tjd);
    if (!rawOk || !mjpegOk) {
        std::fprintf(stderr, "bench_preview: the synthetic camera delivered no frames\n");
        return 1;
    }
    s.printAll();
    // Whole preview path from the MJPEG source: the fetch (decode) plus the server's step.
    std::printf("mjpeg.path %.3f\n", s.median("mjpeg.getVideoFrame") + s.median("mjpeg.steps"));
    std::printf("raw.ratio %.3f\n", s.median("raw.steps") / s.median("ref.tjCompress2"));
    std::printf("raw.plain888.ratio %.3f\n", s.median("raw.plain888") / s.median("ref.tjCompress2"));
    std::printf("mjpeg.ratio %.3f\n",
                (s.median("mjpeg.getVideoFrame") + s.median("mjpeg.steps")) / s.median("ref.tjDecompress2_half"));
    std::printf("mjpeg.plainfull.ratio %.3f\n", s.median("mjpeg.plainfull") / s.median("ref.tjDecompress2_half"));
    return 0;
}
