// The preview while a recording runs: frames a second through the server's own preview step
// (getVideoFrame, then scale, JPEG and base64 as previewFrameBase64 does) from a synthetic 5 MP
// MJPEG camera at 15 fps, first alone, then beside a 1280-wide recording of each container.
// Prints "key value" lines: preview fps alone, with each recording, the share kept, and the
// length ffprobe finds in each file against the time it recorded (real time kept).
//   bench_recording [seconds per run, default 6]
#include "camera/previewframe.h"
#include "devicelib/doccamera.h"
#include "devicelib/portable/core.h"

#include <QGuiApplication>
#include <QImage>
#include <QProcess>
#include <QTemporaryDir>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

// Preview frames delivered in `seconds` of wall time, per second.
double previewFps(double seconds)
{
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    int frames = 0;
    QImage frame;
    while (Clock::now() < end)
        if (getVideoFrame(frame) && !previewFrameBase64(frame, 800, 600).isEmpty())
            ++frames;
    return frames / seconds;
}

double fileSeconds(const QString& path)
{
    QProcess p;
    p.start("ffprobe", {"-v", "error", "-show_entries", "format=duration", "-of", "default=nw=1:nk=1", path});
    return p.waitForFinished(10000) ? p.readAllStandardOutput().trimmed().toDouble() : 0;
}

}  // namespace

int main(int argc, char** argv)
{
    QGuiApplication app(argc, argv);
    const double seconds = argc > 1 ? std::atof(argv[1]) : 6;
    portable::loadProfileText(R"({"camera":{"sources":{"1":{"type":"synthetic","width":2592,"height":1944,"fps":15,"mjpeg":true}}},
                                  "audio":{"source":"synthetic"}})");
    if (!bStartPlay(0)) {
        std::fprintf(stderr, "the synthetic camera did not start\n");
        return 1;
    }
    QTemporaryDir dir;
    vSetRecSize(1280, 0);
    previewFps(1);   // warm-up
    const double alone = previewFps(seconds);
    std::printf("preview.alone.fps %.2f\n", alone);
    for (const char* file : {"rec.avi", "rec.mp4", "recmp3.mkv"}) {
        const QByteArray path = dir.filePath(QString::fromLatin1(file)).toUtf8();
        const bool sound = QByteArray(file).startsWith("recmp3");
        if (!(sound ? bStartRecMp3 : bStartRec)(path.constData())) {
            std::fprintf(stderr, "the recording %s did not start\n", file);
            return 1;
        }
        const auto t0 = std::chrono::steady_clock::now();
        const double with = previewFps(seconds);
        bStopRec();
        const double recorded = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        while (isRecording())
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        std::printf("preview.recording.%s.fps %.2f\npreview.recording.%s.kept %.3f\n", file, with, file, with / alone);
        std::printf("recording.%s.seconds %.2f of %.2f\n", file, fileSeconds(QString::fromUtf8(path)), recorded);
    }
    bStopPlay();
    return 0;
}
