// The capture button thread: waits on the camera's input devices and on a self-pipe that the
// SIGUSR1 handler writes to, and calls the page's listener on each press.
#include "devicelib/portable/camera/capturebutton.h"
#include "devicelib/portable/core.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <fcntl.h>
#include <linux/input.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

namespace portable {

namespace {

// The write end of the button pipe, for the signal handler (which may only write to it).
volatile sig_atomic_t g_pipeWrite = -1;

void onSigusr1(int)
{
    const int saved = errno;
    const int fd = g_pipeWrite;
    if (fd >= 0) {
        const char c = 'p';
        [[maybe_unused]] const ssize_t n = ::write(fd, &c, 1);
    }
    errno = saved;
}

// The USB device a V4L2 node belongs to, as a sysfs path ("" when it is not on USB).
QString usbDeviceOf(const QString& videoNode)
{
    const QString node = QFileInfo(videoNode).canonicalFilePath();
    const QString name = QFileInfo(node).fileName();   // videoN
    QString dev = QFileInfo(QStringLiteral("/sys/class/video4linux/%1/device").arg(name)).canonicalFilePath();
    // The video node hangs off a USB interface ("1-1:1.0"); the button off the same device.
    if (QFileInfo(dev).fileName().contains(QLatin1Char(':')))
        dev = QFileInfo(dev).absolutePath();
    return dev;
}

// The event devices (/dev/input/eventN) of the same USB devices as the cameras.
QStringList eventDevicesFor(const QStringList& videoNodes)
{
    QStringList usb;
    for (const QString& v : videoNodes) {
        const QString u = usbDeviceOf(v);
        if (!u.isEmpty())
            usb << u + QLatin1Char('/');
    }
    QStringList out;
    if (usb.isEmpty())
        return out;
    const QDir input(QStringLiteral("/sys/class/input"));
    for (const QString& e : input.entryList({QStringLiteral("event*")}, QDir::Dirs | QDir::System)) {
        const QString dev = QFileInfo(input.filePath(e) + QStringLiteral("/device")).canonicalFilePath();
        for (const QString& u : usb)
            if (dev.startsWith(u))
                out << QStringLiteral("/dev/input/") + e;
    }
    return out;
}

}  // namespace

CaptureButton::~CaptureButton()
{
    if (!m_thread.joinable())
        return;
    g_pipeWrite = -1;
    const char c = 'q';
    [[maybe_unused]] const ssize_t n = ::write(m_pipe[1], &c, 1);
    m_thread.join();
    ::close(m_pipe[0]);
    ::close(m_pipe[1]);
}

void CaptureButton::setListener(CapturePinListener listener)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_listener = listener;
    if (!listener || m_thread.joinable())
        return;
    if (::pipe2(m_pipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        logLine(QStringLiteral("capture button: cannot create its pipe: %1").arg(QString::fromLocal8Bit(std::strerror(errno))));
        return;
    }
    g_pipeWrite = m_pipe[1];
    struct sigaction sa {};
    sa.sa_handler = onSigusr1;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    sigaction(SIGUSR1, &sa, nullptr);
    m_thread = std::thread([this] { run(); });
}

void CaptureButton::setCameraDevices(const QStringList& devices)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (devices == m_devices)
        return;
    m_devices = devices;
    m_devicesChanged = true;
}

void CaptureButton::run()
{
    std::map<QString, int> open;   // event device -> fd
    QSet<QString> refused;         // logged once each
    bool rescan = true;
    for (;;) {
        if (rescan) {
            QStringList devices;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                devices = m_devices;
                m_devicesChanged = false;
            }
            const QStringList wanted = eventDevicesFor(devices);
            for (auto it = open.begin(); it != open.end();) {
                if (!wanted.contains(it->first)) {
                    ::close(it->second);
                    it = open.erase(it);
                } else {
                    ++it;
                }
            }
            for (const QString& e : wanted) {
                if (open.count(e))
                    continue;
                const int fd = ::open(QFile::encodeName(e).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
                if (fd >= 0) {
                    open[e] = fd;
                } else if (!refused.contains(e)) {
                    refused.insert(e);
                    logLine(QStringLiteral("capture button: cannot read %1: %2 (is the user in the \"input\" group?)")
                                .arg(e, QString::fromLocal8Bit(std::strerror(errno))));
                }
            }
        }
        std::vector<pollfd> fds;
        fds.push_back({m_pipe[0], POLLIN, 0});
        std::vector<QString> names;
        for (const auto& [name, fd] : open) {
            fds.push_back({fd, POLLIN, 0});
            names.push_back(name);
        }
        // Wake every two seconds to follow cameras that open, close or come back.
        const int r = ::poll(fds.data(), fds.size(), 2000);
        int presses = 0;
        if (r > 0 && (fds[0].revents & POLLIN)) {
            char buf[64];
            ssize_t n;
            while ((n = ::read(m_pipe[0], buf, sizeof buf)) > 0) {
                for (ssize_t i = 0; i < n; ++i) {
                    if (buf[i] == 'q') {
                        for (const auto& [name, fd] : open)
                            ::close(fd);
                        return;
                    }
                    ++presses;
                }
            }
        }
        for (size_t i = 1; r > 0 && i < fds.size(); ++i) {
            if (fds[i].revents & (POLLERR | POLLHUP | POLLNVAL)) {
                ::close(fds[i].fd);   // unplugged; found again when it comes back
                open.erase(names[i - 1]);
                continue;
            }
            if (!(fds[i].revents & POLLIN))
                continue;
            input_event ev[16];
            ssize_t n;
            while ((n = ::read(fds[i].fd, ev, sizeof ev)) > 0)
                for (size_t k = 0; k < static_cast<size_t>(n) / sizeof(input_event); ++k)
                    if (ev[k].type == EV_KEY && ev[k].code == KEY_CAMERA && ev[k].value == 1)
                        ++presses;
        }
        CapturePinListener listener = nullptr;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            listener = m_listener;
            rescan = m_devicesChanged || r == 0;
        }
        for (int i = 0; i < presses && listener; ++i)
            listener(1, 0, 0, 0, 0, nullptr);
    }
}

}  // namespace portable
