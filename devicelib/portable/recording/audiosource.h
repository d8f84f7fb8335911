// Where a recording's sound comes from: the microphone (PulseAudio or ALSA) or, on a machine
// without one, a synthetic 440 Hz tone, as the camera falls back to its synthetic page.
#pragma once

#include <QString>

#include <cstdint>
#include <memory>

namespace portable {

constexpr int kAudioRate = 44100;   // mono

class AudioSource {
public:
    virtual ~AudioSource() = default;
    // Fills n samples at once (mono, 44.1 kHz): what the device delivered since the last call,
    // silence where it delivered less, so the sound keeps pace with the clock.
    virtual void read(int16_t* out, int n) = 0;
    // Drops what the device delivered while the recording was paused.
    virtual void discard() {}
};

// The source the profile key "audio.source" names: "default", "synthetic", "pulse:NAME",
// "alsa:DEVICE" or "file:PATH". One that cannot be opened gives the synthetic tone, with a log line.
std::unique_ptr<AudioSource> makeAudioSource();

}  // namespace portable
