// Voice prompts: voice/<n>.wav beside the program (or "voice.files"), played through
// PulseAudio, else ALSA, on a thread of their own so that the caller never waits for the sound.
// "voice.output" redirects: "null" plays nowhere, a path receives the prompt's WAV file.
#include "devicelib/portable/cards/cards.h"
#include "devicelib/portable/core.h"

#include <QFile>
#include <QSaveFile>
#include <QtEndian>

#include <alsa/asoundlib.h>
#include <pulse/error.h>
#include <pulse/sample.h>
#include <pulse/simple.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

namespace portable::cards {
namespace {

struct Pcm {
    int rate = 0;
    int channels = 0;
    QByteArray samples;   // 16-bit little-endian, interleaved
};

// The PCM of a 16-bit WAV file; false (and why) when it is not one.
bool parseWav(const QByteArray& file, Pcm* pcm, QString* why)
{
    if (file.size() < 12 || !file.startsWith("RIFF") || file.mid(8, 4) != "WAVE") {
        *why = QStringLiteral("not a WAV file");
        return false;
    }
    int i = 12;
    bool haveFormat = false;
    while (i + 8 <= file.size()) {
        const QByteArray id = file.mid(i, 4);
        const quint32 size = qFromLittleEndian<quint32>(file.constData() + i + 4);
        const int body = i + 8;
        if (id == "fmt " && size >= 16 && body + 16 <= file.size()) {
            const quint16 format = qFromLittleEndian<quint16>(file.constData() + body);
            pcm->channels = qFromLittleEndian<quint16>(file.constData() + body + 2);
            pcm->rate = int(qFromLittleEndian<quint32>(file.constData() + body + 4));
            const quint16 bits = qFromLittleEndian<quint16>(file.constData() + body + 14);
            if (format != 1 || bits != 16 || pcm->channels < 1 || pcm->channels > 2 || pcm->rate < 4000 || pcm->rate > 192000) {
                *why = QStringLiteral("not 16-bit PCM (format %1, %2 bits, %3 channels, %4 Hz)")
                           .arg(format).arg(bits).arg(pcm->channels).arg(pcm->rate);
                return false;
            }
            haveFormat = true;
        } else if (id == "data" && haveFormat) {
            // A streamed WAV leaves its data size open: take what the file holds.
            pcm->samples = file.mid(body, int(qMin<quint32>(size, quint32(file.size() - body))));
            pcm->samples.chop(pcm->samples.size() % (2 * pcm->channels));
            return !pcm->samples.isEmpty() || (*why = QStringLiteral("no samples"), false);
        }
        if (size > quint32(file.size()))
            break;
        i = body + int(size) + int(size & 1);
    }
    *why = QStringLiteral("no format or data chunk");
    return false;
}

// A sound device opened for one prompt.
class Sink {
public:
    virtual ~Sink() = default;
    virtual bool write(const char* data, size_t bytes) = 0;
    // The prompt played to its end: let the device play what it holds.
    virtual void finish() = 0;
};

class PulseSink final : public Sink {
public:
    static std::unique_ptr<Sink> open(const Pcm& pcm, QString* why)
    {
        pa_sample_spec sampleFormat;
        sampleFormat.format = PA_SAMPLE_S16LE;
        sampleFormat.rate = uint32_t(pcm.rate);
        sampleFormat.channels = uint8_t(pcm.channels);
        // A short buffer (100 ms), so that a prompt cut off stops at once and the writer's
        // thread never waits long.
        pa_buffer_attr buffer;
        buffer.maxlength = uint32_t(-1);
        buffer.tlength = uint32_t(pa_usec_to_bytes(100000, &sampleFormat));
        buffer.prebuf = uint32_t(-1);
        buffer.minreq = uint32_t(-1);
        buffer.fragsize = uint32_t(-1);
        int error = 0;
        pa_simple* s = pa_simple_new(nullptr, "rvowebSocketServer", PA_STREAM_PLAYBACK, nullptr, "voice prompt", &sampleFormat,
                                     nullptr, &buffer, &error);
        if (!s) {
            *why = QStringLiteral("PulseAudio: %1").arg(QString::fromUtf8(pa_strerror(error)));
            return nullptr;
        }
        return std::unique_ptr<Sink>(new PulseSink(s));
    }
    ~PulseSink() override
    {
        pa_simple_flush(m_s, nullptr);
        pa_simple_free(m_s);
    }
    bool write(const char* data, size_t bytes) override { return pa_simple_write(m_s, data, bytes, nullptr) == 0; }
    void finish() override { pa_simple_drain(m_s, nullptr); }

private:
    explicit PulseSink(pa_simple* s) : m_s(s) {}
    pa_simple* m_s;
};

class AlsaSink final : public Sink {
public:
    static std::unique_ptr<Sink> open(const Pcm& pcm, QString* why)
    {
        // ALSA prints its own complaints on standard error; the log line below says it once.
        static std::once_flag quiet;
        std::call_once(quiet, [] { snd_lib_error_set_handler(&AlsaSink::silent); });
        snd_pcm_t* handle = nullptr;
        int rv = snd_pcm_open(&handle, "default", SND_PCM_STREAM_PLAYBACK, 0);
        if (rv >= 0)
            rv = snd_pcm_set_params(handle, SND_PCM_FORMAT_S16_LE, SND_PCM_ACCESS_RW_INTERLEAVED, unsigned(pcm.channels),
                                    unsigned(pcm.rate), 1, 100000);
        if (rv < 0) {
            *why += QStringLiteral("; ALSA: %1").arg(QString::fromUtf8(snd_strerror(rv)));
            if (handle)
                snd_pcm_close(handle);
            return nullptr;
        }
        return std::unique_ptr<Sink>(new AlsaSink(handle, pcm.channels));
    }
    ~AlsaSink() override
    {
        snd_pcm_drop(m_handle);
        snd_pcm_close(m_handle);
    }
    void finish() override { snd_pcm_drain(m_handle); }
    bool write(const char* data, size_t bytes) override
    {
        snd_pcm_uframes_t frames = bytes / (2 * size_t(m_channels));
        while (frames > 0) {
            snd_pcm_sframes_t n = snd_pcm_writei(m_handle, data, frames);
            if (n < 0)
                n = snd_pcm_recover(m_handle, int(n), 1);
            if (n < 0)
                return false;
            frames -= snd_pcm_uframes_t(n);
            data += n * 2 * m_channels;
        }
        return true;
    }

private:
    static void silent(const char*, int, const char*, int, const char*, ...) {}
    AlsaSink(snd_pcm_t* h, int channels) : m_handle(h), m_channels(channels) {}
    snd_pcm_t* m_handle;
    int m_channels;
};

// Plays one prompt at a time; a new prompt stops the one playing.
class Player {
public:
    ~Player() { stop(); }

    void play(std::unique_ptr<Sink> sink, Pcm pcm)
    {
        stop();
        m_stop = false;
        m_thread = std::thread([this, sink = std::move(sink), pcm = std::move(pcm)] {
            // Small pieces, so that a new prompt cuts this one off within a fraction of a second.
            const size_t piece = size_t(pcm.rate / 20) * 2 * size_t(pcm.channels);
            for (size_t at = 0; at < size_t(pcm.samples.size()) && !m_stop; at += piece) {
                if (!sink->write(pcm.samples.constData() + at, qMin(piece, size_t(pcm.samples.size()) - at))) {
                    logLine(QStringLiteral("bPlayVoice: the sound device stopped taking samples"));
                    break;
                }
            }
            if (!m_stop)
                sink->finish();
        });
    }

    void stop()
    {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
    }

private:
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
};

std::mutex g_playerMutex;
Player* g_player = nullptr;   // made on the first prompt, stopped when the profile is replaced

QString promptFile(int n)
{
    const QJsonValue mapped = profile().value("voice").toObject().value("files").toObject().value(QString::number(n));
    if (mapped.isString())
        return mapped.toString();
    if (!mapped.isUndefined())
        logLine(QStringLiteral("device profile %1: key \"voice.files.%2\" is not a text; using the shipped prompt").arg(profileSource()).arg(n));
    return applicationDir() + QStringLiteral("/voice/%1.wav").arg(n);
}

}  // namespace

bool playVoice(int n)
{
    if (n < 1 || n > 8) {
        logLine(QStringLiteral("bPlayVoice: no prompt %1 (1 to 8)").arg(n));
        return false;
    }
    const QString path = promptFile(n);
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || file.size() > 64 * 1024 * 1024) {
        logLine(QStringLiteral("bPlayVoice: prompt %1: cannot read %2").arg(n).arg(path));
        return false;
    }
    const QByteArray wav = file.readAll();
    Pcm pcm;
    QString why;
    if (!parseWav(wav, &pcm, &why)) {
        logLine(QStringLiteral("bPlayVoice: prompt %1: %2: %3").arg(n).arg(path, why));
        return false;
    }

    const QString output = profileText(QStringLiteral("voice.output"), QString());
    static std::once_flag hooked;
    std::call_once(hooked, [] {
        addResetHook([] {
            std::lock_guard<std::mutex> l(g_playerMutex);
            if (g_player)
                g_player->stop();
        });
    });
    std::lock_guard<std::mutex> lock(g_playerMutex);
    if (g_player)
        g_player->stop();   // a new prompt interrupts the one playing
    if (output == QLatin1String("null"))
        return true;
    if (!output.isEmpty()) {
        QSaveFile out(output);
        if (!out.open(QIODevice::WriteOnly) || out.write(wav) != wav.size() || !out.commit()) {
            logLine(QStringLiteral("bPlayVoice: cannot write prompt %1 to %2").arg(n).arg(output));
            return false;
        }
        return true;
    }
    std::unique_ptr<Sink> sink = PulseSink::open(pcm, &why);
    if (!sink)
        sink = AlsaSink::open(pcm, &why);
    if (!sink) {
        logLine(QStringLiteral("bPlayVoice: no sound device for prompt %1: %2").arg(n).arg(why));
        return false;
    }
    if (!g_player)
        g_player = new Player;
    g_player->play(std::move(sink), std::move(pcm));
    return true;
}

}  // namespace portable::cards
