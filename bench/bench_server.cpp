// The built server under load, on loopback: command round trips idle, while eight pages watch
// the preview and while the camera's start fails and is retried; the server's CPU share; its
// memory while one page stops reading.
// Runs the real rvowebSocketServer from a temporary application directory on port 1818.
// Prints "key value" lines; run.sh turns them into the table.
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSemaphore>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>
#include <QTimer>
#include <QWebSocket>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
const quint16 kPort = 1818;
const QUrl kUrl(QStringLiteral("ws://127.0.0.1:1818"));

double msSince(Clock::time_point t0)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

void out(const QByteArray& key, double value)
{
    std::printf("%s %.3f\n", key.constData(), value);
    std::fflush(stdout);
}

void note(const QString& text)
{
    std::fprintf(stderr, "bench_server: %s\n", qPrintable(text));
}

// --- the server process -----------------------------------------------------------------------

bool portAnswers()
{
    QTcpSocket probe;
    probe.connectToHost(QHostAddress::LocalHost, kPort);
    return probe.waitForConnected(300);
}

bool portFree()
{
    QTcpServer probe;
    return probe.listen(QHostAddress::Any, kPort);
}

// The single-instance check of the server counts process lines holding these words as not its own.
bool cleanPath(const QString& path)
{
    for (const char* w : {"sh", "txt", "grep", "sudo"})
        if (path.contains(QLatin1String(w)))
            return false;
    return !path.contains(QLatin1String("qtcreator"), Qt::CaseInsensitive);
}

struct ProcStat {
    double cpuSeconds = 0;   // utime + stime
};

// utime and stime of a /proc stat line (fields 14 and 15, counted after the command name).
double statCpuSeconds(const QByteArray& stat)
{
    const int close = stat.lastIndexOf(')');
    if (close < 0)
        return 0;
    const QList<QByteArray> f = stat.mid(close + 2).split(' ');
    if (f.size() < 13)
        return 0;
    return (f[11].toDouble() + f[12].toDouble()) / double(sysconf(_SC_CLK_TCK));
}

QByteArray readProc(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// Server CPU seconds: the whole process, and the share of the synthetic camera's grabber
// threads (the MJPEG encoding a real camera does in its own hardware).
void serverCpu(qint64 pid, double* total, double* camera)
{
    *total = statCpuSeconds(readProc(QStringLiteral("/proc/%1/stat").arg(pid)));
    *camera = 0;
    const QDir tasks(QStringLiteral("/proc/%1/task").arg(pid));
    for (const QString& tid : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QByteArray comm = readProc(tasks.filePath(tid + QStringLiteral("/comm"))).trimmed();
        if (comm.startsWith("camgrab"))
            *camera += statCpuSeconds(readProc(tasks.filePath(tid + QStringLiteral("/stat"))));
    }
}

double rssMb(qint64 pid)
{
    for (const QByteArray& line : readProc(QStringLiteral("/proc/%1/status").arg(pid)).split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toDouble() / 1024.0;
    return 0;
}

// --- clients in threads of their own ---------------------------------------------------------

// A thread with an event loop and a context object; work runs on it through run().
class Worker {
public:
    Worker()
    {
        m_ctx = new QObject;   // deleted on its own thread when the thread finishes
        m_ctx->moveToThread(&m_thread);
        QObject::connect(&m_thread, &QThread::finished, m_ctx, &QObject::deleteLater);
        m_thread.start();
    }
    ~Worker()
    {
        m_thread.quit();
        m_thread.wait();
    }
    template <class F>
    void run(F&& f)
    {
        QMetaObject::invokeMethod(m_ctx, std::forward<F>(f), Qt::BlockingQueuedConnection);
    }
    QObject* ctx() const { return m_ctx; }

private:
    QThread m_thread;
    QObject* m_ctx;
};

// Pages that watch the preview: each sends bStartPlay() once connected and counts the frames.
class Pages {
public:
    explicit Pages(int count) : m_frames(static_cast<size_t>(count))
    {
        m_worker.run([this, count] {
            for (int i = 0; i < count; ++i) {
                auto* ws = new QWebSocket(QString(), QWebSocketProtocol::VersionLatest, m_worker.ctx());
                auto* frames = &m_frames[static_cast<size_t>(i)];
                QObject::connect(ws, &QWebSocket::connected, ws, [ws] { ws->sendTextMessage(QStringLiteral("bStartPlay()")); });
                QObject::connect(ws, &QWebSocket::textMessageReceived, ws, [frames](const QString& m) {
                    if (!m.startsWith(QLatin1String("Begin")))
                        ++*frames;
                });
                ws->open(kUrl);
                m_sockets.push_back(ws);
            }
        });
    }
    ~Pages()
    {
        m_worker.run([this] {
            for (QWebSocket* ws : m_sockets) {
                ws->close();
                delete ws;
            }
            m_sockets.clear();
        });
    }
    long frames(int i) const { return m_frames[static_cast<size_t>(i)]; }
    int count() const { return static_cast<int>(m_frames.size()); }

private:
    Worker m_worker;
    std::vector<std::atomic<long>> m_frames;
    std::vector<QWebSocket*> m_sockets;
};

// A page that keeps the camera starting: it sends bStartPlay() every 100 ms while fewer than
// two of its starts are unanswered, so the capture thread is always trying, stopping and
// pausing between tries while the prober measures.
class Starter {
public:
    Starter()
    {
        m_worker.run([this] {
            m_ws = new QWebSocket(QString(), QWebSocketProtocol::VersionLatest, m_worker.ctx());
            QObject::connect(m_ws, &QWebSocket::textMessageReceived, m_ws, [this](const QString& m) {
                if (m.startsWith(QLatin1String("BeginbStartPlay"))) {
                    --m_pending;
                    ++m_replies;
                }
            });
            auto* timer = new QTimer(m_ws);
            QObject::connect(timer, &QTimer::timeout, m_ws, [this] {
                if (m_ws->state() == QAbstractSocket::ConnectedState && m_pending < 2) {
                    ++m_pending;
                    m_ws->sendTextMessage(QStringLiteral("bStartPlay()"));
                }
            });
            timer->start(100);
            m_ws->open(kUrl);
        });
    }
    ~Starter()
    {
        m_worker.run([this] {
            m_ws->close();
            delete m_ws;
        });
    }
    long replies() const { return m_replies; }

private:
    Worker m_worker;
    QWebSocket* m_ws = nullptr;
    int m_pending = 0;
    std::atomic<long> m_replies{0};
};

// Sends sGetTempPath() and times the reply, one command at a time with a short pause between.
class Prober {
public:
    Prober()
    {
        m_worker.run([this] {
            m_ws = new QWebSocket(QString(), QWebSocketProtocol::VersionLatest, m_worker.ctx());
            QObject::connect(m_ws, &QWebSocket::connected, m_ws, [this] { m_connected.release(); });
            QObject::connect(m_ws, &QWebSocket::textMessageReceived, m_ws, [this](const QString& m) { onMessage(m); });
            m_ws->open(kUrl);
        });
    }
    ~Prober()
    {
        m_worker.run([this] {
            m_ws->close();
            delete m_ws;
        });
    }
    bool waitConnected() { return m_connected.tryAcquire(1, 10000); }

    // Up to `count` round trips within `seconds`; false when a reply did not come within 5 s.
    bool probe(int count, double seconds, std::vector<double>* samples)
    {
        m_worker.run([this, count, seconds] {
            m_samples.clear();
            m_target = count;
            m_deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
            sendNext();
        });
        const bool ok = m_done.tryAcquire(1, static_cast<int>(seconds * 1000) + 5000);
        m_worker.run([this, samples] {
            m_target = 0;
            *samples = m_samples;
        });
        return ok;
    }

private:
    void sendNext()
    {
        m_waiting = true;
        m_sent = Clock::now();
        m_ws->sendTextMessage(QStringLiteral("sGetTempPath()"));
        m_ws->flush();
    }
    void onMessage(const QString& m)
    {
        if (!m_waiting || !m.startsWith(QLatin1String("BeginsGetTempPath")))
            return;   // preview frames reach every page, this one too
        m_samples.push_back(msSince(m_sent));
        m_waiting = false;
        if (m_target == 0)
            return;
        if (static_cast<int>(m_samples.size()) >= m_target || Clock::now() >= m_deadline) {
            m_target = 0;
            m_done.release();
            return;
        }
        QTimer::singleShot(2, m_ws, [this] { sendNext(); });
    }

    Worker m_worker;
    QWebSocket* m_ws = nullptr;
    QSemaphore m_connected;
    QSemaphore m_done;
    std::vector<double> m_samples;
    int m_target = 0;
    Clock::time_point m_deadline;
    Clock::time_point m_sent;
    bool m_waiting = false;
};

void printRoundTrips(const char* prefix, std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    const auto at = [&](double q) { return v.empty() ? 0.0 : v[std::min(v.size() - 1, static_cast<size_t>(q * v.size()))]; };
    const QByteArray p(prefix);
    const auto key = [&](const char* k) { return QByteArray(p).append(k); };
    out(key(".samples"), double(v.size()));
    out(key(".p50_ms"), at(0.50));
    out(key(".p99_ms"), at(0.99));
    out(key(".max_ms"), v.empty() ? 0.0 : v.back());
    out(key(".over10ms"), double(std::count_if(v.begin(), v.end(), [](double x) { return x > 10.0; })));
}

// A page that stops reading: a plain socket with a small receive buffer that completes the
// WebSocket handshake, reads for a while, then reads nothing more.
class StalledPage {
public:
    bool open()
    {
        m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
        const int small = 4096;
        ::setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(kPort);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0)
            return false;
        const char hello[] = "GET / HTTP/1.1\r\nHost: 127.0.0.1:1818\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                             "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
        return ::send(m_fd, hello, sizeof hello - 1, 0) == static_cast<ssize_t>(sizeof hello - 1);
    }
    // Reads (and drops) everything that arrives for this long.
    long drain(double seconds)
    {
        long bytes = 0;
        const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
        char buf[65536];
        while (Clock::now() < end) {
            pollfd p{m_fd, POLLIN, 0};
            if (::poll(&p, 1, 50) > 0) {
                const ssize_t n = ::recv(m_fd, buf, sizeof buf, 0);
                if (n <= 0)
                    break;
                bytes += n;
            }
        }
        return bytes;
    }
    ~StalledPage()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }

private:
    int m_fd = -1;
};

// --- the runs ----------------------------------------------------------------------------------

struct Options {
    int samples = 4000;
    double probeSeconds = 25;
    double cpuSeconds = 20;
    double stallSeconds = 60;
    double warmupSeconds = 15;
};

// The built server in a temporary application directory of its own, with a device profile.
class ServerProcess {
public:
    ~ServerProcess() { stop(); }

    // 0 when it listens on the port; 2 (with a note) when it cannot be started.
    int start(const QByteArray& profile)
    {
        // Another server (a test run, another engineer) may hold the fixed port for a while.
        for (int i = 0; i < 120 && !portFree(); ++i) {
            if (i == 0)
                note(QStringLiteral("port %1 is taken; waiting up to 2 minutes for it to be free").arg(kPort));
            QThread::sleep(1);
        }
        if (!portFree()) {
            note(QStringLiteral("port %1 is still taken: stop the program that holds it and run again").arg(kPort));
            return 2;
        }
        // The application directory: its path must not look like one of the filtered process lines.
        for (int i = 0; i < 100 && m_appDir.isEmpty(); ++i) {
            const QString candidate = QDir::tempPath() + QStringLiteral("/rvo-bench-%1-%2").arg(QCoreApplication::applicationPid()).arg(i);
            if (cleanPath(candidate) && !QDir(candidate).exists() && QDir().mkpath(candidate))
                m_appDir = candidate;
        }
        if (m_appDir.isEmpty()) {
            note(QStringLiteral("no temporary application directory"));
            return 2;
        }
        const QString binary = m_appDir + QStringLiteral("/rvowebSocketServer");
        const QString profilePath = m_appDir + QStringLiteral("/bench-profile.json");
        QFile::copy(QStringLiteral(RVO_SERVER_BINARY), binary);
        {
            QFile p(profilePath);
            p.open(QIODevice::WriteOnly);
            p.write(profile);
        }
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        env.insert(QStringLiteral("DEVICE_PROFILE"), profilePath);
        env.remove(QStringLiteral("DEVICE_TRACE"));
        m_process.setProcessEnvironment(env);
        m_process.setWorkingDirectory(m_appDir);
        m_process.setStandardOutputFile(QProcess::nullDevice());
        m_process.setStandardErrorFile(QProcess::nullDevice());
        m_process.start(binary, QStringList());
        bool up = m_process.waitForStarted(10000);
        for (int i = 0; up && i < 100 && !portAnswers(); ++i) {
            if (m_process.state() == QProcess::NotRunning)
                up = false;
            QThread::msleep(100);
        }
        if (!up || !portAnswers()) {
            note(QStringLiteral("the server did not listen on port %1 (another instance running?)").arg(kPort));
            stop();
            return 2;
        }
        return 0;
    }
    void stop()
    {
        if (m_process.state() != QProcess::NotRunning) {
            m_process.terminate();
            if (!m_process.waitForFinished(5000)) {
                m_process.kill();
                m_process.waitForFinished(5000);
            }
        }
        if (!m_appDir.isEmpty())
            QDir(m_appDir).removeRecursively();
        m_appDir.clear();
    }
    qint64 pid() const { return m_process.processId(); }

private:
    QProcess m_process;
    QString m_appDir;
};

// Round trips while the camera's start fails and is retried without end: the capture thread
// stops the camera and pauses between tries, and commands must not wait for it.
int runRetrying(const Options& o)
{
    QByteArray profile = R"({"script":{"bStartPlay":[false)";
    for (int i = 1; i < 30000; ++i)
        profile += ",false";
    profile += "]}}";
    ServerProcess server;
    if (const int rc = server.start(profile))
        return rc;
    Prober prober;
    if (!prober.waitConnected()) {
        note(QStringLiteral("the prober could not connect"));
        return 2;
    }
    // The same server idle first: on a busy machine the difference is what the retries cost.
    std::vector<double> idle;
    if (!prober.probe(o.samples, o.probeSeconds, &idle))
        note(QStringLiteral("a round trip got no reply within 5 s (idle, before the retries)"));
    printRoundTrips("rtt.retrying_baseline", idle);
    Starter starter;
    QThread::sleep(3);   // the first starts fail and the thread is retrying
    const long before = starter.replies();
    std::vector<double> samples;
    if (!prober.probe(o.samples, o.probeSeconds, &samples))
        note(QStringLiteral("a round trip got no reply within 5 s (retrying)"));
    printRoundTrips("rtt.retrying", samples);
    out("rtt.retrying.failed_starts", double(starter.replies() - before));
    return 0;
}

int run(const Options& o)
{
    ServerProcess server;
    if (const int rc = server.start(R"({"camera":{"previewWidth":1280,"sources":{"1":{"type":"synthetic","width":2592,"height":1944,)"
                                    R"("fps":15,"mjpeg":true}}}})"))
        return rc;
    const qint64 pid = server.pid();
    int status = 0;
    {
        auto prober = std::make_unique<Prober>();
        if (!prober->waitConnected()) {
            note(QStringLiteral("the prober could not connect"));
            status = 2;
        }

        // 1. Round trips with nothing else going on.
        std::vector<double> idle;
        if (status == 0 && !prober->probe(o.samples, o.probeSeconds, &idle))
            note(QStringLiteral("a round trip got no reply within 5 s (idle)"));
        printRoundTrips("rtt.idle", idle);

        // 2. Eight pages watch the preview: the server's CPU share, then the round trips.
        {
            Pages pages(8);
            QThread::sleep(4);   // camera start and the first frames
            double cpu0 = 0, cam0 = 0, cpu1 = 0, cam1 = 0;
            long f0 = 0, f1 = 0;
            for (int i = 0; i < pages.count(); ++i)
                f0 += pages.frames(i);
            serverCpu(pid, &cpu0, &cam0);
            const auto t0 = Clock::now();
            QThread::msleep(static_cast<unsigned long>(o.cpuSeconds * 1000));
            serverCpu(pid, &cpu1, &cam1);
            const double wall = msSince(t0) / 1000.0;
            for (int i = 0; i < pages.count(); ++i)
                f1 += pages.frames(i);
            out("cpu.server_percent", 100.0 * (cpu1 - cpu0) / wall);
            out("cpu.camera_threads_percent", 100.0 * (cam1 - cam0) / wall);
            out("cpu.server_less_camera_percent", 100.0 * ((cpu1 - cpu0) - (cam1 - cam0)) / wall);
            out("cpu.page_fps", (f1 - f0) / wall / pages.count());
            out("cpu.seconds", wall);

            std::vector<double> streaming;
            long s0 = 0, s1 = 0;
            for (int i = 0; i < pages.count(); ++i)
                s0 += pages.frames(i);
            const auto st = Clock::now();
            if (!prober->probe(o.samples, o.probeSeconds, &streaming))
                note(QStringLiteral("a round trip got no reply within 5 s (streaming)"));
            const double sw = msSince(st) / 1000.0;
            for (int i = 0; i < pages.count(); ++i)
                s1 += pages.frames(i);
            printRoundTrips("rtt.streaming", streaming);
            out("rtt.streaming.page_fps", (s1 - s0) / sw / pages.count());
        }
        // The prober leaves too: a page that goes stops the preview, and the next part starts afresh.
        prober.reset();
        QThread::sleep(2);

        // 3. One page stops reading while another watches: the server's memory.
        {
            Pages watcher(1);
            StalledPage stalled;
            if (!stalled.open()) {
                note(QStringLiteral("the stalled page could not connect"));
                status = 2;
            }
            stalled.drain(5);   // it watches for a while, then stops reading
            std::vector<double> rss;
            const long w0 = watcher.frames(0);
            const auto t0 = Clock::now();
            for (int s = 0; s <= static_cast<int>(o.stallSeconds); ++s) {
                rss.push_back(rssMb(pid));
                const auto next = t0 + std::chrono::seconds(s + 1);
                while (Clock::now() < next)
                    QThread::msleep(20);
            }
            const double wall = msSince(t0) / 1000.0;
            const auto warm = rss.begin() + std::min<long>(static_cast<long>(o.warmupSeconds), static_cast<long>(rss.size()) - 1);
            const auto [mn, mx] = std::minmax_element(warm, rss.end());
            out("mem.start_mb", rss.front());
            out("mem.max_mb", *std::max_element(rss.begin(), rss.end()));
            out("mem.end_mb", rss.back());
            out("mem.after_warmup_min_mb", *mn);
            out("mem.after_warmup_max_mb", *mx);
            out("mem.after_warmup_spread_mb", *mx - *mn);
            out("mem.watcher_fps", (watcher.frames(0) - w0) / wall);
        }
    }
    server.stop();
    return status == 0 ? runRetrying(o) : status;
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    Options o;
    const QStringList args = app.arguments();
    if (args.contains(QStringLiteral("--quick"))) {
        o.samples = 500;
        o.probeSeconds = 5;
        o.cpuSeconds = 5;
        o.stallSeconds = 20;
        o.warmupSeconds = 10;
    }
    // Only the round trips while the camera's start keeps failing.
    if (args.contains(QStringLiteral("--retrying-only")))
        return runRetrying(o);
    return run(o);
}
