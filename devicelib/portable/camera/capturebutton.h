// The camera's still button. A UVC camera reports its button as KEY_CAMERA on an input
// device of the same USB device; SIGUSR1 to the process presses it without hardware.
#pragma once

#include <QStringList>

#include <atomic>
#include <mutex>
#include <thread>

typedef void (*CapturePinListener)(int, int, int, unsigned int, int, void*);

namespace portable {

class CaptureButton {
public:
    CaptureButton() = default;
    ~CaptureButton();
    CaptureButton(const CaptureButton&) = delete;
    CaptureButton& operator=(const CaptureButton&) = delete;

    // Registers the listener; the first one starts the button thread and the SIGUSR1 handler.
    void setListener(CapturePinListener listener);
    // The V4L2 device nodes of the open cameras, whose buttons are watched.
    void setCameraDevices(const QStringList& devices);

private:
    void run();

    std::mutex m_mutex;
    CapturePinListener m_listener = nullptr;
    QStringList m_devices;
    bool m_devicesChanged = false;
    std::thread m_thread;
    int m_pipe[2] = {-1, -1};
};

}  // namespace portable
