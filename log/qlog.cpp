#include "log/qlog.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QList>
#include <QMutex>
#include <QMutexLocker>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTextStream>
#include <QThread>

#include <atomic>
#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

// ---------------------------------------------------------------------------------------------
// QLogToNet

namespace {

QList<QHostAddress> loopbackAddresses()
{
    return {QHostAddress(QHostAddress::LocalHost), QHostAddress(QHostAddress::LocalHostIPv6)};
}

}  // namespace

struct QLogToNet::Private {
    QMutex mutex;
    QList<QTcpServer*> servers;
    QList<QTcpSocket*> clients;
};

QLogToNet::QLogToNet(unsigned short port, QObject* parent) : QLogToNet(port, loopbackAddresses(), parent) {}

QLogToNet::QLogToNet(unsigned short port, const QList<QHostAddress>& addresses, QObject* parent)
    : QObject(parent), d(new Private)
{
    for (const QHostAddress& address : addresses) {
        auto* server = new QTcpServer(this);
        connect(server, &QTcpServer::newConnection, this, &QLogToNet::slot_newConnection);
        // An address or port that cannot be bound (no IPv6 on this machine, say) is skipped
        // silently: the log cannot report on itself.
        if (server->listen(address, port))
            d->servers.append(server);
        else
            delete server;
    }
}

QLogToNet::~QLogToNet()
{
    for (QTcpServer* server : qAsConst(d->servers))
        if (server->isListening())
            server->close();
}

int QLogToNet::clientCount() const
{
    QMutexLocker lock(&d->mutex);
    return d->clients.size();
}

void QLogToNet::slot_newConnection()
{
    QMutexLocker lock(&d->mutex);
    for (QTcpServer* server : qAsConst(d->servers)) {
        while (server->hasPendingConnections()) {
            QTcpSocket* socket = server->nextPendingConnection();
            if (!socket)
                continue;
            connect(socket, &QTcpSocket::disconnected, this, &QLogToNet::slot_disconnected);
            d->clients.append(socket);
        }
    }
}

void QLogToNet::slot_disconnected()
{
    QMutexLocker lock(&d->mutex);
    auto* socket = qobject_cast<QTcpSocket*>(sender());
    if (!socket)
        return;
    d->clients.removeAll(socket);
    socket->deleteLater();
}

void QLogToNet::slot_toNet(QString message)
{
    QMutexLocker lock(&d->mutex);
    const QByteArray bytes = message.toUtf8();
    for (QTcpSocket* socket : qAsConst(d->clients)) {
        // A listener that cannot keep up simply loses lines.
        socket->write(bytes);
        socket->flush();
    }
}

// ---------------------------------------------------------------------------------------------
// QLog

struct QLog::Private {
    unsigned short port = 34353;
    unsigned short saveDay = 30;
    int maxLogSize = 52428800;
    QMutex mutex;
    QString logPath;
    QString name = QStringLiteral("vx");
    QFile file;
    QString currentFileName;
    QList<QHostAddress> netAddresses = loopbackAddresses();
    QLogToNet* net = nullptr;
    QThread* netThread = nullptr;
    HandlerFlags flags;
    Clock clock;

    QDateTime now() const { return clock ? clock() : QDateTime::currentDateTime(); }
};

namespace {

std::atomic<QLog*> g_log{nullptr};

// Owns the singleton until the process ends.
std::unique_ptr<QLog>& logOwner()
{
    static std::unique_ptr<QLog> owner;
    return owner;
}

// Whether this thread holds the log mutex, and the messages it printed meanwhile. Such a message
// (a Qt warning from QFile, QTcpServer or QThread, a clock that prints) cannot wait for the mutex
// its own thread holds; it is written as soon as the work in hand is done.
thread_local int t_holding = 0;
thread_local QStringList t_pending;

// Every kept message may print again when written; past this many in a row the rest go to
// standard error, so a message that always prints another cannot loop forever.
constexpr int kMaxPendingWrites = 1000;

// Moves a file to a name that is free, never replacing one; errno is EEXIST when the name is taken.
bool moveNoReplace(const QString& from, const QString& to)
{
    const QByteArray source = QFile::encodeName(from);
    const QByteArray target = QFile::encodeName(to);
    if (::renameat2(AT_FDCWD, source.constData(), AT_FDCWD, target.constData(), RENAME_NOREPLACE) == 0)
        return true;
    if (errno != EINVAL && errno != ENOSYS)
        return false;
    // A file system without the no-replace rename: a hard link cannot replace a file either.
    if (::link(source.constData(), target.constData()) != 0)
        return false;
    ::unlink(source.constData());
    return true;
}

}  // namespace

// Holds the log mutex for this thread; messages the thread prints meanwhile are kept aside and
// written, under the same hold, just before it is released.
class QLogHold {
public:
    explicit QLogHold(QLog* log) : m_log(log)
    {
        m_log->d->mutex.lock();
        ++t_holding;
    }
    ~QLogHold()
    {
        if (t_holding == 1)
            m_log->writePendingLocked();
        --t_holding;
        m_log->d->mutex.unlock();
    }
    QLogHold(const QLogHold&) = delete;
    QLogHold& operator=(const QLogHold&) = delete;

private:
    QLog* m_log;
};

QLog* QLog::instance()
{
    if (QLog* log = g_log.load(std::memory_order_acquire))
        return log;
    static QMutex creation;
    QMutexLocker lock(&creation);
    if (!g_log.load(std::memory_order_acquire)) {
        logOwner().reset(new QLog);
        g_log.store(logOwner().get(), std::memory_order_release);
    }
    return g_log.load(std::memory_order_acquire);
}

QLog::QLog() : d(new Private)
{
    setLogPath(QCoreApplication::applicationDirPath() + QStringLiteral("/log"));
}

QLog::~QLog()
{
    // Messages printed while the process winds down go to Qt's own output from here on.
    if (d->flags)
        qInstallMessageHandler(nullptr);
    g_log.store(nullptr, std::memory_order_release);
    // Nothing else can reach the log any more, so no lock is needed to stop its network part.
    stopNetLocked();
}

QLog::HandlerFlags QLog::flags() const
{
    QMutexLocker lock(&d->mutex);
    return d->flags;
}

void QLog::handler(HandlerFlags flags)
{
    {
        QLogHold hold(this);
        if (flags == d->flags)
            return;
        qInstallMessageHandler(nullptr);
        d->flags = flags;
        if (!flags.testFlag(LogToNet))
            stopNetLocked();
        if (!flags.testFlag(LogToFile)) {
            if (d->file.isOpen())
                d->file.close();
            d->currentFileName.clear();
        }
        if (!flags)
            return;
    }
    qInstallMessageHandler(&QLog::messageHandler);
}

unsigned short QLog::saveDay() const
{
    QMutexLocker lock(&d->mutex);
    return d->saveDay;
}

void QLog::setSaveDay(unsigned short days)
{
    QMutexLocker lock(&d->mutex);
    d->saveDay = days;
}

int QLog::maxLogSize() const
{
    QMutexLocker lock(&d->mutex);
    return d->maxLogSize;
}

void QLog::setMaxLogSize(int bytes)
{
    QMutexLocker lock(&d->mutex);
    d->maxLogSize = bytes;
}

QString QLog::logPath() const
{
    QMutexLocker lock(&d->mutex);
    return d->logPath;
}

void QLog::setLogPath(const QString& path)
{
    QLogHold hold(this);
    d->logPath = QDir::toNativeSeparators(path);
    // The open file stays open: the next message computes its name in the new folder.
    QDir().mkpath(d->logPath);
}

unsigned short QLog::netPort() const
{
    QMutexLocker lock(&d->mutex);
    return d->port;
}

void QLog::setPort(unsigned short port)
{
    QLogHold hold(this);
    if (port == d->port)
        return;
    d->port = port;
    // The next message for the network log listens on the new port.
    stopNetLocked();
}

QList<QHostAddress> QLog::netAddresses() const
{
    QMutexLocker lock(&d->mutex);
    return d->netAddresses;
}

void QLog::setNetAddresses(const QList<QHostAddress>& addresses)
{
    const QList<QHostAddress> wanted = addresses.isEmpty() ? loopbackAddresses() : addresses;
    QLogHold hold(this);
    if (wanted == d->netAddresses)
        return;
    d->netAddresses = wanted;
    // The next message for the network log listens there.
    stopNetLocked();
}

void QLog::setClock(Clock clock)
{
    QMutexLocker lock(&d->mutex);
    d->clock = std::move(clock);
}

void QLog::newLog(QString message)
{
    emit sig_newLog(message);
}

void QLog::toNet(QString message)
{
    emit sig_toNet(message);
}

void QLog::createLogNet()
{
    QLogHold hold(this);
    createLogNetLocked();
}

void QLog::autoDeleteLog()
{
    QLogHold hold(this);
    autoDeleteLogLocked();
}

int QLog::netClientCount() const
{
    QMutexLocker lock(&d->mutex);
    return d->net ? d->net->clientCount() : -1;
}

void QLog::messageHandler(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    Q_UNUSED(type)
    Q_UNUSED(context)
    if (t_holding) {
        t_pending.append(message);
        return;
    }
    instance()->write(message);
}

void QLog::write(const QString& message)
{
    QLogHold hold(this);
    writeLocked(message);
}

void QLog::writePendingLocked()
{
    for (int written = 0; !t_pending.isEmpty(); ++written) {
        const QString message = t_pending.takeFirst();
        if (d->flags && written < kMaxPendingWrites) {
            writeLocked(message);
        } else {
            // The handler is off (Qt's own output is in force again) or the messages keep coming.
            std::fprintf(stderr, "%s\n", message.toLocal8Bit().constData());
            std::fflush(stderr);
        }
    }
}

void QLog::writeLocked(const QString& message)
{
    if (!d->flags)
        return;
    // Every message type alike: the text as it was printed, nothing added.
    const QString text = QStringLiteral("%1").arg(message);

    if (d->flags.testFlag(LogToFile)) {
        const QString dayName = QStringLiteral("%1/%2_log_%3.txt")
                                    .arg(d->logPath, d->name, d->now().toString(QStringLiteral("yyyy-MM-dd")));
        if (dayName != d->currentFileName) {
            d->currentFileName = dayName;
            if (d->file.isOpen())
                d->file.close();
            autoDeleteLogLocked();
            d->file.setFileName(dayName);
            // A file that cannot be opened drops lines until a later name change succeeds.
            d->file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Text);
        }
        if (d->file.isOpen()) {
            qint64 size = 0;
            {
                QTextStream stream(&d->file);
                stream.setCodec("UTF-8");
                stream << text << "\n";
                size = d->file.size();
            }
            if (size > d->maxLogSize) {
                const QString stem = QStringLiteral("%1/%2_log_%3")
                                         .arg(d->logPath, d->name,
                                              d->now().toString(QStringLiteral("yyyy-MM-dd-hhmmss")));
                d->file.close();
                // A second rotation within the same second takes "-2", then "-3", ...: a rotated
                // file is never replaced, and every name keeps the prefix that retention looks for.
                // A rename that fails otherwise leaves the day file to grow until the next try.
                for (int n = 1; n <= 1000; ++n) {
                    const QString rotated = n == 1 ? stem + QStringLiteral(".txt")
                                                   : QStringLiteral("%1-%2.txt").arg(stem).arg(n);
                    if (moveNoReplace(d->currentFileName, rotated) || errno != EEXIST)
                        break;
                }
                d->currentFileName.clear();
            }
        }
    }

    if (d->flags.testFlag(LogToNet)) {
        if (!d->net)
            createLogNetLocked();
        toNet(text);
    }

    if (d->flags.testFlag(LogToSignal))
        newLog(text);
}

void QLog::createLogNetLocked()
{
    if (d->net)
        return;
    d->net = new QLogToNet(d->port, d->netAddresses, nullptr);
    connect(this, &QLog::sig_toNet, d->net, &QLogToNet::slot_toNet);
    // The thread is owned by hand rather than parented: the message that starts the network log
    // may come from any thread, and a cross-thread parent would make Qt print a warning here,
    // inside the handler.
    d->netThread = new QThread;
    d->net->moveToThread(d->netThread);
    if (d->netThread->thread() != thread())
        d->netThread->moveToThread(thread());
    d->netThread->start(QThread::InheritPriority);
}

void QLog::stopNetLocked()
{
    if (d->net) {
        // Posted before the thread is told to quit, so the finishing thread still deletes it.
        d->net->deleteLater();
        d->net = nullptr;
    }
    if (d->netThread) {
        d->netThread->quit();
        d->netThread->wait();
        d->netThread->deleteLater();
        d->netThread = nullptr;
    }
}

void QLog::autoDeleteLogLocked()
{
    const QDateTime cutoff = d->now().addDays(-static_cast<qint64>(d->saveDay));
    const QFileInfoList entries = QDir(d->logPath).entryInfoList(QStringList{QStringLiteral("*.txt")});
    // Retention starts only once there are at least saveDay files.
    if (d->saveDay > entries.size())
        return;
    for (const QFileInfo& entry : entries) {
        if (!entry.fileName().contains(d->name))
            continue;
        QDateTime created = entry.birthTime();
        if (!created.isValid())
            created = entry.metadataChangeTime();
        if (created <= cutoff)
            QFile::remove(entry.absoluteFilePath());
    }
}
