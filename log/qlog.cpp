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

// ---------------------------------------------------------------------------------------------
// QLogToNet

struct QLogToNet::Private {
    QMutex mutex;
    QTcpServer* server = nullptr;
    QList<QTcpSocket*> clients;
};

QLogToNet::QLogToNet(unsigned short port, QObject* parent) : QObject(parent), d(new Private)
{
    d->server = new QTcpServer(this);
    connect(d->server, &QTcpServer::newConnection, this, &QLogToNet::slot_newConnection);
    // A port that cannot be bound leaves the network log silent; nobody is told.
    d->server->listen(QHostAddress::AnyIPv4, port);
}

QLogToNet::~QLogToNet()
{
    if (d->server->isListening())
        d->server->close();
}

int QLogToNet::clientCount() const
{
    QMutexLocker lock(&d->mutex);
    return d->clients.size();
}

void QLogToNet::slot_newConnection()
{
    QMutexLocker lock(&d->mutex);
    while (d->server->hasPendingConnections()) {
        QTcpSocket* socket = d->server->nextPendingConnection();
        if (!socket)
            continue;
        connect(socket, &QTcpSocket::disconnected, this, &QLogToNet::slot_disconnected);
        d->clients.append(socket);
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

}  // namespace

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
        QMutexLocker lock(&d->mutex);
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
    QMutexLocker lock(&d->mutex);
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
    QMutexLocker lock(&d->mutex);
    if (port == d->port)
        return;
    d->port = port;
    // The next message for the network log listens on the new port.
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
    QMutexLocker lock(&d->mutex);
    createLogNetLocked();
}

void QLog::autoDeleteLog()
{
    QMutexLocker lock(&d->mutex);
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
    instance()->write(message);
}

void QLog::write(const QString& message)
{
    QMutexLocker lock(&d->mutex);
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
                const QString rotated = QStringLiteral("%1/%2_log_%3.txt")
                                            .arg(d->logPath, d->name,
                                                 d->now().toString(QStringLiteral("yyyy-MM-dd-hhmmss")));
                // Two rotations in one second collide; the file then grows until a later one.
                d->file.rename(rotated);
                d->file.close();
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
    d->net = new QLogToNet(d->port, nullptr);
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
