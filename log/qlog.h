// QLog: the process-wide message handler. Every qDebug/qInfo/qWarning/... line of the server goes
// to a dated file in the log folder (rotated by size, old files deleted by age), and on request to
// TCP listeners (QLogToNet, in a thread of its own) or to the sig_newLog signal.
//
// The log adds nothing to a message: no time stamp, no level. Nothing here prints a message of its
// own. A message printed on a thread while that thread holds the log's (non-recursive) mutex outside
// the handler (the clock asked by retention, a Qt warning while the mirror stops) is kept aside and
// written as soon as that work is done, never waited for. One printed from within the handler call
// itself (a slot of sig_newLog) never reaches it: Qt sends such a nested message to standard error.
#pragma once

#include <QDateTime>
#include <QFlags>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QString>

#include <functional>
#include <memory>

class QThread;

// The network log: a TCP server that copies each message, as raw UTF-8 with no separator, to every
// connected client. Lives in the network log thread.
class QLogToNet : public QObject {
    Q_OBJECT
public:
    // Listens on the loopback addresses.
    explicit QLogToNet(unsigned short port, QObject* parent = nullptr);
    // Listens on each of the addresses that can be bound (one server per address).
    QLogToNet(unsigned short port, const QList<QHostAddress>& addresses, QObject* parent = nullptr);
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
    // Where the network log listens: 127.0.0.1 and ::1 unless set (the "[security] listen" setting
    // of server.ini). A change closes a running network log; the next message reopens it there.
    QList<QHostAddress> netAddresses() const;
    void setNetAddresses(const QList<QHostAddress>& addresses);

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
    void writeLocked(const QString& message);
    void writePendingLocked();
    friend class QLogHold;
    void createLogNetLocked();
    void autoDeleteLogLocked();
    void stopNetLocked();

    struct Private;
    std::unique_ptr<Private> d;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(QLog::HandlerFlags)
