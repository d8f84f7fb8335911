#include "devicelib/portable/recording/audiosource.h"
#include "devicelib/portable/core.h"

#include <alsa/asoundlib.h>
#include <pulse/error.h>
#include <pulse/simple.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswresample/swresample.h>
}

#include <atomic>
#include <cmath>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace portable {

namespace {

// A 440 Hz tone at -30 dBFS.
class ToneSource final : public AudioSource {
public:
    void read(int16_t* out, int n) override
    {
        static const double amplitude = 32767.0 * std::pow(10.0, -30.0 / 20.0);
        for (int i = 0; i < n; ++i, ++m_t)
            out[i] = static_cast<int16_t>(std::lround(amplitude * std::sin(2.0 * M_PI * 440.0 * m_t / kAudioRate)));
    }

private:
    long long m_t = 0;
};

// A device read on its own thread into a queue, taken by the recording at its own pace.
class CapturedSource : public AudioSource {
public:
    ~CapturedSource() override { stopCapture(); }

    void read(int16_t* out, int n) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        int i = 0;
        for (; i < n && !m_queue.empty(); ++i) {
            out[i] = m_queue.front();
            m_queue.pop_front();
        }
        for (; i < n; ++i)
            out[i] = 0;
    }

    void discard() override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_queue.clear();
    }

protected:
    // Runs grab(buffer, n) until stopCapture(); grab returns the samples read, < 0 on failure.
    void startCapture(std::function<int(int16_t*, int)> grab)
    {
        m_thread = std::thread([this, grab] {
            std::vector<int16_t> buf(1024);
            while (!m_stop) {
                const int got = grab(buf.data(), static_cast<int>(buf.size()));
                if (got < 0) {
                    logLine(QStringLiteral("recording: the microphone stopped delivering sound; silence follows"));
                    return;
                }
                std::lock_guard<std::mutex> lock(m_mutex);
                m_queue.insert(m_queue.end(), buf.begin(), buf.begin() + got);
                while (m_queue.size() > static_cast<size_t>(2 * kAudioRate))   // never more than 2 s behind
                    m_queue.pop_front();
            }
        });
    }
    void stopCapture()
    {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
    }

private:
    std::mutex m_mutex;
    std::deque<int16_t> m_queue;
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
};

class PulseSource final : public CapturedSource {
public:
    ~PulseSource() override
    {
        stopCapture();
        if (m_pa)
            pa_simple_free(m_pa);
    }
    bool open(const QString& device)
    {
        const pa_sample_spec format{PA_SAMPLE_S16LE, kAudioRate, 1};
        int error = 0;
        const QByteArray dev = device.toUtf8();
        m_pa = pa_simple_new(nullptr, "rvowebSocketServer", PA_STREAM_RECORD, device.isEmpty() ? nullptr : dev.constData(),
                             "recording", &format, nullptr, nullptr, &error);
        if (!m_pa) {
            logLine(QStringLiteral("recording: PulseAudio source \"%1\" cannot be opened: %2")
                        .arg(device.isEmpty() ? QStringLiteral("default") : device, QString::fromUtf8(pa_strerror(error))));
            return false;
        }
        startCapture([this](int16_t* buf, int n) {
            int err = 0;
            return pa_simple_read(m_pa, buf, static_cast<size_t>(n) * 2, &err) < 0 ? -1 : n;
        });
        return true;
    }

private:
    pa_simple* m_pa = nullptr;
};

class AlsaSource final : public CapturedSource {
public:
    ~AlsaSource() override
    {
        stopCapture();
        if (m_pcm)
            snd_pcm_close(m_pcm);
    }
    bool open(const QString& device)
    {
        int err = snd_pcm_open(&m_pcm, device.toUtf8().constData(), SND_PCM_STREAM_CAPTURE, 0);
        if (err >= 0)
            err = snd_pcm_set_params(m_pcm, SND_PCM_FORMAT_S16_LE, SND_PCM_ACCESS_RW_INTERLEAVED, 1, kAudioRate, 1, 200000);
        if (err < 0) {
            logLine(QStringLiteral("recording: ALSA device \"%1\" cannot be opened: %2").arg(device, QString::fromUtf8(snd_strerror(err))));
            return false;
        }
        startCapture([this](int16_t* buf, int n) {
            snd_pcm_sframes_t got = snd_pcm_readi(m_pcm, buf, static_cast<snd_pcm_uframes_t>(n));
            if (got < 0)
                got = snd_pcm_recover(m_pcm, static_cast<int>(got), 1) < 0 ? -1 : 0;
            return static_cast<int>(got);
        });
        return true;
    }

private:
    snd_pcm_t* m_pcm = nullptr;
};

// A sound file (any format FFmpeg reads), decoded whole to 44.1 kHz mono and played in a loop.
class FileSource final : public AudioSource {
public:
    bool open(const QString& path)
    {
        AVFormatContext* fmt = nullptr;
        bool ok = avformat_open_input(&fmt, path.toUtf8().constData(), nullptr, nullptr) == 0
                  && avformat_find_stream_info(fmt, nullptr) >= 0;
        const AVCodec* codec = nullptr;
        const int stream = ok ? av_find_best_stream(fmt, AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0) : -1;
        AVCodecContext* dec = stream >= 0 ? avcodec_alloc_context3(codec) : nullptr;
        ok = dec && avcodec_parameters_to_context(dec, fmt->streams[stream]->codecpar) >= 0 && avcodec_open2(dec, codec, nullptr) >= 0;
        SwrContext* swr = nullptr;
        AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
        ok = ok && swr_alloc_set_opts2(&swr, &mono, AV_SAMPLE_FMT_S16, kAudioRate, &dec->ch_layout, dec->sample_fmt, dec->sample_rate, 0, nullptr) == 0
             && swr_init(swr) >= 0;
        AVPacket* pkt = av_packet_alloc();
        AVFrame* frame = av_frame_alloc();
        while (ok && av_read_frame(fmt, pkt) >= 0) {
            if (pkt->stream_index == stream && avcodec_send_packet(dec, pkt) >= 0) {
                while (avcodec_receive_frame(dec, frame) >= 0) {
                    std::vector<int16_t> out(static_cast<size_t>(swr_get_out_samples(swr, frame->nb_samples)) + 16);
                    uint8_t* dst = reinterpret_cast<uint8_t*>(out.data());
                    const int n = swr_convert(swr, &dst, static_cast<int>(out.size()), const_cast<const uint8_t**>(frame->extended_data), frame->nb_samples);
                    if (n > 0)
                        m_samples.insert(m_samples.end(), out.begin(), out.begin() + n);
                }
            }
            av_packet_unref(pkt);
        }
        av_frame_free(&frame);
        av_packet_free(&pkt);
        swr_free(&swr);
        avcodec_free_context(&dec);
        avformat_close_input(&fmt);
        if (m_samples.empty()) {
            logLine(QStringLiteral("recording: the sound file \"%1\" cannot be read").arg(path));
            return false;
        }
        return true;
    }
    void read(int16_t* out, int n) override
    {
        for (int i = 0; i < n; ++i, m_pos = (m_pos + 1) % m_samples.size())
            out[i] = m_samples[m_pos];
    }

private:
    std::vector<int16_t> m_samples;
    size_t m_pos = 0;
};

template <class S>
std::unique_ptr<AudioSource> opened(const QString& device)
{
    auto s = std::make_unique<S>();
    if (s->open(device))
        return s;
    return nullptr;
}

}  // namespace

std::unique_ptr<AudioSource> makeAudioSource()
{
    const QString name = profileText(QStringLiteral("audio.source"), QStringLiteral("default"));
    std::unique_ptr<AudioSource> source;
    if (name == QLatin1String("synthetic"))
        return std::make_unique<ToneSource>();
    if (name == QLatin1String("default"))
        source = opened<PulseSource>(QString());
    else if (name.startsWith(QLatin1String("pulse:")))
        source = opened<PulseSource>(name.mid(6));
    else if (name.startsWith(QLatin1String("alsa:")))
        source = opened<AlsaSource>(name.mid(5));
    else if (name.startsWith(QLatin1String("file:")))
        source = opened<FileSource>(name.mid(5));
    else
        logLine(QStringLiteral("device profile %1: key \"audio.source\" is \"%2\", not default, synthetic, pulse:NAME, alsa:DEVICE or file:PATH")
                    .arg(profileSource(), name));
    if (source)
        return source;
    logLine(QStringLiteral("recording: no microphone (audio.source \"%1\"); recording a 440 Hz tone instead").arg(name));
    return std::make_unique<ToneSource>();
}

}  // namespace portable
