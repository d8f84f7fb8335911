// Recording: the preview camera's newest frame taken at the camera's frame rate against the
// clock, so that a frame is repeated when the camera is late and dropped when the encoder is,
// and ten seconds recorded play for ten seconds; paused time is left out. Sound, when asked for,
// follows the same clock. Everything is encoded and written on the recording's own thread.
#include "devicelib/portable/recording/recorder.h"
#include "devicelib/portable/camera/camera.h"
#include "devicelib/portable/core.h"
#include "devicelib/portable/recording/audiosource.h"

#include <QFile>
#include <QFileInfo>
#include <QString>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include <opencv2/core.hpp>

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace portable {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kDefaultWidth = 1280;

QString avError(int err)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(err, text, sizeof text);
    return QString::fromUtf8(text);
}

// One open output file with its encoders.
class Output {
public:
    ~Output()
    {
        sws_freeContext(m_sws);
        av_frame_free(&m_vframe);
        av_frame_free(&m_aframe);
        av_packet_free(&m_pkt);
        avcodec_free_context(&m_video);
        avcodec_free_context(&m_audio);
        if (m_fmt) {
            if (m_fmt->pb)
                avio_closep(&m_fmt->pb);
            avformat_free_context(m_fmt);
        }
    }

    // container: "avi", "mp4", "matroska" or "mp3". width 0: no picture.
    bool open(const QString& path, const char* container, int width, int height, AVRational fps, bool sound, QString* why)
    {
        m_path = path;
        const QByteArray file = path.toUtf8();
        if (avformat_alloc_output_context2(&m_fmt, nullptr, container, file.constData()) < 0 || !m_fmt)
            return fail(why, QStringLiteral("no %1 muxer").arg(QLatin1String(container)));
        m_pkt = av_packet_alloc();
        if (width > 0 && !openVideo(container, width, height, fps, why))
            return false;
        if (sound && !openAudio(why))
            return false;
        const int err = avio_open(&m_fmt->pb, file.constData(), AVIO_FLAG_WRITE);
        if (err < 0)
            return fail(why, QStringLiteral("the file cannot be created (%1)").arg(avError(err)));
        AVDictionary* options = nullptr;
        // An MP4 normally keeps its index in a trailer: a recording cut off by a full disk or a
        // power cut would not play at all. Written in fragments of at most 2 s (one per group
        // of pictures, and sooner when frames were dropped), it plays up to the last whole one.
        if (qstrcmp(m_fmt->oformat->name, "mp4") == 0) {
            av_dict_set(&options, "movflags", "frag_keyframe+empty_moov+default_base_moof", 0);
            av_dict_set(&options, "frag_duration", "2000000", 0);
        }
        // What is written reaches the file at once, not when an output buffer fills.
        m_fmt->flush_packets = 1;
        const int head = avformat_write_header(m_fmt, &options);
        av_dict_free(&options);
        if (head < 0)
            return fail(why, QStringLiteral("the file's header cannot be written (%1)").arg(avError(head)));
        m_headerWritten = true;
        return true;
    }

    bool hasVideo() const { return m_video; }
    bool hasAudio() const { return m_audio; }
    int audioFrameSize() const { return m_aframe ? m_aframe->nb_samples : 0; }
    QString describe() const
    {
        QString s;
        if (m_video)
            s += QStringLiteral("%1 %2x%3 at %4/%5 fps").arg(QLatin1String(avcodec_get_name(m_video->codec_id))).arg(m_video->width)
                     .arg(m_video->height).arg(m_video->framerate.num).arg(m_video->framerate.den);
        if (m_audio)
            s += QStringLiteral("%1MP3 %2 Hz mono %3 kb/s").arg(s.isEmpty() ? QString() : QStringLiteral(", ")).arg(m_audio->sample_rate)
                     .arg(m_audio->bit_rate / 1000);
        return s;
    }

    // A BGR or BGRX picture as frame number pts.
    bool writeVideo(const cv::Mat& picture, long long pts)
    {
        const AVPixelFormat src = picture.channels() == 4 ? AV_PIX_FMT_BGR0 : AV_PIX_FMT_BGR24;
        m_sws = sws_getCachedContext(m_sws, picture.cols, picture.rows, src, m_video->width, m_video->height, m_video->pix_fmt,
                                     SWS_BILINEAR, nullptr, nullptr, nullptr);
        if (!m_sws || av_frame_make_writable(m_vframe) < 0)
            return writeFailed(AVERROR(ENOMEM));
        const uint8_t* data[1] = {picture.data};
        const int stride[1] = {static_cast<int>(picture.step[0])};
        sws_scale(m_sws, data, stride, 0, picture.rows, m_vframe->data, m_vframe->linesize);
        m_vframe->pts = pts;
        return encode(m_video, m_fmt->streams[m_videoIndex], m_vframe);
    }

    // audioFrameSize() mono samples starting at sample number pts.
    bool writeAudio(const int16_t* samples, long long pts)
    {
        if (av_frame_make_writable(m_aframe) < 0)
            return writeFailed(AVERROR(ENOMEM));
        const int n = m_aframe->nb_samples;
        switch (m_audio->sample_fmt) {
        case AV_SAMPLE_FMT_FLTP:
            for (int i = 0; i < n; ++i)
                reinterpret_cast<float*>(m_aframe->data[0])[i] = samples[i] / 32768.0f;
            break;
        case AV_SAMPLE_FMT_S32P:
            for (int i = 0; i < n; ++i)
                reinterpret_cast<int32_t*>(m_aframe->data[0])[i] = static_cast<int32_t>(samples[i]) * 65536;
            break;
        default:   // S16P and S16 are the same for one channel
            std::copy(samples, samples + n, reinterpret_cast<int16_t*>(m_aframe->data[0]));
        }
        m_aframe->pts = pts;
        return encode(m_audio, m_fmt->streams[m_audioIndex], m_aframe);
    }

    // Flushes the encoders and writes the index; false when the file could not be completed.
    bool finish(bool flush)
    {
        bool ok = true;
        if (flush) {
            if (m_video)
                ok = encode(m_video, m_fmt->streams[m_videoIndex], nullptr) && ok;
            if (m_audio)
                ok = encode(m_audio, m_fmt->streams[m_audioIndex], nullptr) && ok;
        }
        if (m_headerWritten) {
            const int err = av_write_trailer(m_fmt);
            if (err < 0 || (m_fmt->pb && m_fmt->pb->error < 0)) {
                logLine(QStringLiteral("recording: %1: the end of the file cannot be written (%2)").arg(m_path, avError(err < 0 ? err : m_fmt->pb->error)));
                ok = false;
            }
        }
        if (m_fmt && m_fmt->pb && avio_closep(&m_fmt->pb) < 0)
            ok = false;
        return ok;
    }

    const QString& lastError() const { return m_error; }

private:
    bool fail(QString* why, const QString& text)
    {
        *why = text;
        return false;
    }

    bool writeFailed(int err)
    {
        m_error = avError(err);
        return false;
    }

    bool openVideo(const char* container, int width, int height, AVRational fps, QString* why)
    {
        const bool mjpeg = qstrcmp(container, "avi") == 0;
        const AVCodec* codec = mjpeg ? avcodec_find_encoder(AV_CODEC_ID_MJPEG) : avcodec_find_encoder_by_name("libx264");
        if (!codec)
            return fail(why, mjpeg ? QStringLiteral("no MJPEG encoder") : QStringLiteral("no H.264 encoder (libx264)"));
        m_video = avcodec_alloc_context3(codec);
        m_video->width = width;
        m_video->height = height;
        m_video->framerate = fps;
        m_video->time_base = av_inv_q(fps);
        m_video->gop_size = std::max(1, fps.num / std::max(1, fps.den)) * 2;
        if (mjpeg) {
            m_video->pix_fmt = AV_PIX_FMT_YUVJ420P;
            m_video->flags |= AV_CODEC_FLAG_QSCALE;
            m_video->global_quality = FF_QP2LAMBDA * 4;
        } else {
            m_video->pix_fmt = AV_PIX_FMT_YUV420P;
            // One thread and a fast preset: the preview shares the machine with the encoder.
            m_video->thread_count = 1;
            av_opt_set(m_video->priv_data, "preset", "superfast", 0);
            av_opt_set(m_video->priv_data, "crf", "23", 0);
        }
        if (m_fmt->oformat->flags & AVFMT_GLOBALHEADER)
            m_video->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        int err = avcodec_open2(m_video, codec, nullptr);
        if (err < 0)
            return fail(why, QStringLiteral("the video encoder does not open (%1)").arg(avError(err)));
        AVStream* st = avformat_new_stream(m_fmt, nullptr);
        m_videoIndex = st->index;
        st->time_base = m_video->time_base;
        st->avg_frame_rate = fps;
        avcodec_parameters_from_context(st->codecpar, m_video);
        m_vframe = av_frame_alloc();
        m_vframe->format = m_video->pix_fmt;
        m_vframe->width = width;
        m_vframe->height = height;
        err = av_frame_get_buffer(m_vframe, 0);
        return err < 0 ? fail(why, avError(err)) : true;
    }

    bool openAudio(QString* why)
    {
        const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_MP3);
        if (!codec)
            return fail(why, QStringLiteral("no MP3 encoder (libmp3lame)"));
        m_audio = avcodec_alloc_context3(codec);
        m_audio->sample_fmt = codec->sample_fmts ? codec->sample_fmts[0] : AV_SAMPLE_FMT_S16P;
        for (const AVSampleFormat* f = codec->sample_fmts; f && *f != AV_SAMPLE_FMT_NONE; ++f)
            if (*f == AV_SAMPLE_FMT_S16P)
                m_audio->sample_fmt = *f;
        m_audio->sample_rate = kAudioRate;
        av_channel_layout_default(&m_audio->ch_layout, 1);
        m_audio->bit_rate = 64000;
        m_audio->time_base = AVRational{1, kAudioRate};
        if (m_fmt->oformat->flags & AVFMT_GLOBALHEADER)
            m_audio->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        int err = avcodec_open2(m_audio, codec, nullptr);
        if (err < 0)
            return fail(why, QStringLiteral("the MP3 encoder does not open (%1)").arg(avError(err)));
        AVStream* st = avformat_new_stream(m_fmt, nullptr);
        m_audioIndex = st->index;
        st->time_base = m_audio->time_base;
        avcodec_parameters_from_context(st->codecpar, m_audio);
        m_aframe = av_frame_alloc();
        m_aframe->format = m_audio->sample_fmt;
        m_aframe->nb_samples = m_audio->frame_size > 0 ? m_audio->frame_size : 1152;
        m_aframe->sample_rate = kAudioRate;
        av_channel_layout_copy(&m_aframe->ch_layout, &m_audio->ch_layout);
        err = av_frame_get_buffer(m_aframe, 0);
        return err < 0 ? fail(why, avError(err)) : true;
    }

    bool encode(AVCodecContext* c, AVStream* st, AVFrame* frame)
    {
        int err = avcodec_send_frame(c, frame);
        if (err < 0 && err != AVERROR_EOF)
            return writeFailed(err);
        while ((err = avcodec_receive_packet(c, m_pkt)) >= 0) {
            m_pkt->stream_index = st->index;
            av_packet_rescale_ts(m_pkt, c->time_base, st->time_base);
            err = av_interleaved_write_frame(m_fmt, m_pkt);
            if (err >= 0 && m_fmt->pb->error < 0)
                err = m_fmt->pb->error;
            if (err < 0)
                return writeFailed(err);
        }
        return err == AVERROR(EAGAIN) || err == AVERROR_EOF ? true : writeFailed(err);
    }

    QString m_path;
    QString m_error;
    AVFormatContext* m_fmt = nullptr;
    AVCodecContext* m_video = nullptr;
    AVCodecContext* m_audio = nullptr;
    int m_videoIndex = -1, m_audioIndex = -1;
    AVFrame* m_vframe = nullptr;
    AVFrame* m_aframe = nullptr;
    AVPacket* m_pkt = nullptr;
    SwsContext* m_sws = nullptr;
    bool m_headerWritten = false;
};

const char* containerOf(const QString& path)
{
    const QString ext = QFileInfo(path).suffix().toLower();
    if (ext == QLatin1String("avi"))
        return "avi";
    if (ext == QLatin1String("mp4"))
        return "mp4";
    if (ext == QLatin1String("mkv"))
        return "matroska";
    if (ext == QLatin1String("mp3"))
        return "mp3";
    return nullptr;
}

}  // namespace

struct Recorder::Impl {
    mutable std::mutex mutex;
    std::condition_variable changed;
    bool active = false;            // from a good start until the file is closed
    bool stopRequested = false;
    bool paused = false;
    bool resumed = false;           // the sound queued while paused is to be dropped
    Clock::time_point pausedAt;
    Clock::duration pausedTotal{};
    long long width = 0, height = 0;
    std::thread thread;

    void run(std::unique_ptr<Output> out, std::unique_ptr<AudioSource> sound, double fps, int minWidth, QString path);
    void join()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stopRequested = true;
        }
        changed.notify_all();
        if (thread.joinable())
            thread.join();
    }
};

void Recorder::Impl::run(std::unique_ptr<Output> out, std::unique_ptr<AudioSource> sound, double fps, int minWidth, QString path)
{
    const Clock::time_point t0 = Clock::now();
    long long frame = 0, samples = 0;
    std::vector<int16_t> pcm(static_cast<size_t>(std::max(1, out->audioFrameSize())));
    cv::Mat last;
    bool failed = false;
    Clock::time_point lastCheck = t0;
    while (!failed) {
        Clock::duration paused{};
        bool dropSound = false;
        {
            std::unique_lock<std::mutex> lock(mutex);
            changed.wait(lock, [&] { return stopRequested || !this->paused; });
            if (stopRequested)
                break;
            paused = pausedTotal;
            dropSound = std::exchange(resumed, false);
        }
        if (dropSound && sound)
            sound->discard();
        // A removed file (or its folder) would go on filling a disk nobody can see: end there.
        if (Clock::now() - lastCheck > std::chrono::seconds(1)) {
            lastCheck = Clock::now();
            if (!QFile::exists(path)) {
                logLine(QStringLiteral("recording: %1 was removed; the recording ends").arg(path));
                break;
            }
        }
        const Clock::time_point origin = t0 + paused;
        const double elapsed = std::chrono::duration<double>(Clock::now() - origin).count();
        if (out->hasVideo()) {
            const long long due = static_cast<long long>(std::floor(elapsed * fps));
            if (due >= frame) {
                frame = due;   // behind: the frames in between are dropped
                cv::Mat picture;
                unsigned long long seq = 0;
                double cameraFps = 0;
                if (camera().recordingFrame(minWidth, picture, &seq, &cameraFps))
                    last = picture;   // otherwise the last picture again
                if (!last.empty() && !out->writeVideo(last, frame))
                    failed = true;
                ++frame;
            }
        }
        if (sound && out->hasAudio()) {
            const long long due = static_cast<long long>(elapsed * kAudioRate);
            while (!failed && samples + static_cast<long long>(pcm.size()) <= due) {
                sound->read(pcm.data(), static_cast<int>(pcm.size()));
                failed = !out->writeAudio(pcm.data(), samples);
                samples += static_cast<long long>(pcm.size());
            }
        }
        const Clock::time_point next = out->hasVideo()
            ? origin + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(frame / fps))
            : Clock::now() + std::chrono::milliseconds(20);
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_until(lock, next, [&] { return stopRequested || this->paused; });
    }
    if (failed)
        logLine(QStringLiteral("recording: writing %1 failed (%2); the recording ends there").arg(path, out->lastError()));
    const bool complete = out->finish(!failed);
    out.reset();
    sound.reset();
    logLine(QStringLiteral("recording: %1 %2").arg(path, complete ? QStringLiteral("is complete") : QStringLiteral("ended early")));
    std::lock_guard<std::mutex> lock(mutex);
    active = false;
}

Recorder::Recorder() : d(std::make_unique<Impl>())
{
    camera();   // made first, so it outlives the recording thread at the end
    av_log_set_level(AV_LOG_ERROR);   // FFmpeg's chatter stays out of the server's output; failures are logged here
    addResetHook([this] {
        d->join();
        std::lock_guard<std::mutex> lock(d->mutex);
        d->width = d->height = 0;
    });
}

Recorder::~Recorder()
{
    d->join();
}

Recorder& recorder()
{
    static Recorder r;
    return r;
}

bool Recorder::start(const char* fn, const char* path, bool sound)
{
    const QString file = QString::fromUtf8(path ? path : "");
    long long reqW = 0, reqH = 0;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        if (d->active) {
            logLine(QStringLiteral("%1: a recording is already running").arg(QLatin1String(fn)));
            return false;
        }
        reqW = d->width;
        reqH = d->height;
    }
    if (d->thread.joinable())
        d->thread.join();   // the former recording has finished its file
    const char* container = containerOf(file);
    if (!container || (!sound && qstrcmp(container, "mp3") == 0)) {
        logLine(QStringLiteral("%1: \"%2\" does not end in %3").arg(QLatin1String(fn), file,
                sound ? QStringLiteral(".mp4, .mkv, .avi or .mp3") : QStringLiteral(".mp4, .mkv or .avi")));
        return false;
    }
    const bool video = qstrcmp(container, "mp3") != 0;
    int width = 0, height = 0;
    double fps = 0;
    if (video) {
        cv::Mat first;
        unsigned long long seq = 0;
        if (!camera().recordingFrame(reqW > 0 ? static_cast<int>(std::min(reqW, 16384LL)) : kDefaultWidth, first, &seq, &fps)) {
            logLine(QStringLiteral("%1: no camera is open").arg(QLatin1String(fn)));
            return false;
        }
        // A zero follows the camera's aspect; both zero: 1280 wide. Encoders want even sizes.
        double w = static_cast<double>(std::clamp(reqW, 0LL, 16384LL)), h = static_cast<double>(std::clamp(reqH, 0LL, 16384LL));
        if (w <= 0 && h <= 0)
            w = kDefaultWidth;
        if (w <= 0)
            w = h * first.cols / first.rows;
        if (h <= 0)
            h = w * first.rows / first.cols;
        width = std::max(2, static_cast<int>(std::lround(w)) & ~1);
        height = std::max(2, static_cast<int>(std::lround(h)) & ~1);
        if (fps < 0.5 || fps > 120)
            fps = 15;
    }
    auto out = std::make_unique<Output>();
    QString why;
    const AVRational rate = av_d2q(fps > 0 ? fps : 15, 100000);
    if (!out->open(file, container, width, height, rate, sound, &why)) {
        logLine(QStringLiteral("%1: %2: %3").arg(QLatin1String(fn), file, why));
        out.reset();
        if (!why.startsWith(QLatin1String("the file cannot be created")))
            QFile::remove(file);
        return false;
    }
    logLine(QStringLiteral("%1: recording %2: %3").arg(QLatin1String(fn), file, out->describe()));
    std::unique_ptr<AudioSource> source = sound ? makeAudioSource() : nullptr;
    std::lock_guard<std::mutex> lock(d->mutex);
    d->active = true;
    d->stopRequested = d->paused = d->resumed = false;
    d->pausedTotal = {};
    d->thread = std::thread(&Impl::run, d.get(), std::move(out), std::move(source), fps, width, file);
#ifdef __linux__
    pthread_setname_np(d->thread.native_handle(), "recording");
#endif
    return true;
}

bool Recorder::stop()
{
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        d->stopRequested = true;
    }
    d->changed.notify_all();
    return true;
}

bool Recorder::pause()
{
    std::lock_guard<std::mutex> lock(d->mutex);
    if (!d->active || d->stopRequested || d->paused) {
        logLine(QStringLiteral("bPauseRec: %1").arg(d->paused ? QStringLiteral("the recording is already paused")
                                                             : QStringLiteral("nothing is recording")));
        return false;
    }
    d->paused = true;
    d->pausedAt = Clock::now();
    d->changed.notify_all();
    return true;
}

bool Recorder::resume()
{
    std::lock_guard<std::mutex> lock(d->mutex);
    if (!d->active || d->stopRequested || !d->paused) {
        logLine(QStringLiteral("bResumeRec: %1").arg(d->active ? QStringLiteral("the recording is not paused") : QStringLiteral("nothing is recording")));
        return false;
    }
    d->paused = false;
    d->resumed = true;
    d->pausedTotal += Clock::now() - d->pausedAt;
    d->changed.notify_all();
    return true;
}

bool Recorder::recording() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    return d->active;
}

void Recorder::setSize(long long width, long long height)
{
    std::lock_guard<std::mutex> lock(d->mutex);
    d->width = width;
    d->height = height;
}

}  // namespace portable
