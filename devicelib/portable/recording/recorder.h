// One recording at a time of the open preview camera, encoded with FFmpeg on its own thread.
#pragma once

#include <memory>

namespace portable {

class Recorder {
public:
    Recorder();
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    // sound: an MP3 track from the audio source (a ".mp3" path records sound alone).
    bool start(const char* fn, const char* path, bool sound);
    bool stop();   // true whether or not something was recording; the thread finishes the file
    bool pause();
    bool resume();
    bool recording() const;   // until the file is closed and complete
    void setSize(long long width, long long height);

    struct Impl;

private:
    std::unique_ptr<Impl> d;
};

Recorder& recorder();

}  // namespace portable
