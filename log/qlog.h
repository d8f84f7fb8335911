// QLog: the process-wide message handler. Every qDebug/qInfo/qWarning/... line of the server goes
// to a dated file in the log folder (rotated by size, old files deleted by age), and on request to
// TCP listeners (QLogToNet, in a thread of its own) or to the sig_newLog signal.
//
// The log adds nothing to a message: no time stamp, no level. Nothing here may print a message of
// its own, since it is the message handler and its mutex is not recursive.
#pragma once

#include <QDateTime>
#include <QFlags>
#include <QObject>
#include <QString>

#include <functional>
#include <memory>

class QThread;

// The network log: a TCP server on all IPv4 addresses that copies each message, as raw UTF-8 with
// no separator, to every connected client. Lives in the network log thread.
class QLogToNet : public QObject {
    Q_OBJECT
public:
    explicit QLogToNet(unsigned short port, QObject* parent = nullptr);
    ~QLogToNet() override;

    // Clients connected right now (for diagnostics).
    int clientCount() const;

public slots:
    void slot_toNet(QString message);

private slots:
    void slot_newConnection();
    void slot_disconnected();

private:
    struct Private;
    std::unique_ptr<Private> d;
};

class QLog : public QObject {
    Q_OBJECT
public:
    enum HandlerFlag {
        LogToFile = 1,     // append each message to the day file
        LogToNet = 2,      // copy each message to the TCP listeners
        LogToSignal = 4,   // emit sig_newLog with each message
    };
    Q_DECLARE_FLAGS(HandlerFlags, HandlerFlag)

    using Clock = std::function<QDateTime()>;

    static QLog* instance();
    ~QLog() override;

    // Installs the handler with these flags; 0 restores Qt's default handler.
    void handler(HandlerFlags flags);
    HandlerFlags flags() const;

    unsigned short saveDay() const;
    void setSaveDay(unsigned short days);
    int maxLogSize() const;
    void setMaxLogSize(int bytes);
    QString logPath() const;
    void setLogPath(const QString& path);
    unsigned short netPort() const;
    void setPort(unsigned short port);

    // What "now" is for day file names, rotated names and retention. The real local clock unless
    // replaced (an empty function restores it); lets the day change be exercised without waiting.
    void setClock(Clock clock);

    void newLog(QString message);
    void toNet(QString message);
    void createLogNet();
    void autoDeleteLog();

    // Clients of the network log, or -1 while it does not run (for diagnostics).
    int netClientCount() const;

signals:
    void sig_newLog(QString message);
    void sig_toNet(QString message);

private:
    QLog();
    static void messageHandler(QtMsgType type, const QMessageLogContext& context, const QString& message);
    void write(const QString& message);
    void createLogNetLocked();
    void autoDeleteLogLocked();
    void stopNetLocked();

    struct Private;
    std::unique_ptr<Private> d;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(QLog::HandlerFlags)
