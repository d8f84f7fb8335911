// WebSocketServerManager: the server's only network endpoint. Pages connect here; their text is
// routed to the browser launcher ("@"), relayed to the current client ("#") or dispatched as a
// command, and every worker's sig_msg is broadcast to all connected pages. Main thread only.
#pragma once

#include <QAbstractSocket>
#include <QByteArray>
#include <QHash>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QWebSocketProtocol>
#include <QWebSocketServer>

#include "app/security.h"

class MessageRun;
class QTcpServer;
class QTcpSocket;
class QWebSocket;

class WebSocketServerManager : public QObject {
    Q_OBJECT
public:
    // Default cap on what a page may owe before preview frames skip it.
    static constexpr qint64 kDefaultPreviewBacklogLimit = 8 * 1024 * 1024;

    WebSocketServerManager(QString serverName, QWebSocketServer::SslMode mode, QObject* parent = nullptr);
    ~WebSocketServerManager() override;

    // Listens on one address; the loopback address brings its IPv6 twin along, so that
    // "localhost" works whichever family the browser picks.
    bool websocke_server_start(QHostAddress address, quint16 port);
    // Listens on each address (at least the first must succeed; the rest are best effort).
    bool websocke_server_start(const QList<QHostAddress>& addresses, quint16 port);
    void websocke_server_stop();
    bool running() const { return m_running; }
    void websocke_server_sendData(QString ip, int port, QString message);
    void websocke_server_sendData_binary(QString ip, int port, QByteArray data);

    // The port actually bound (useful after a start on port 0); 0 when not listening.
    quint16 serverPort() const;
    MessageRun* messageRun() const { return m_messageRun; }
    int clientCount() const { return m_clients.size(); }

    // Who may connect and how much a page may send; applies to connections made afterwards.
    void setSecurity(const SecuritySettings& security);
    const SecuritySettings& security() const { return m_security; }

    // The one road of every text to a page: replies, relays, broadcasts and events.
    void sendText(QWebSocket* socket, const QString& text);

    // Bytes a page may have queued but not yet written before preview frames skip it.
    void setPreviewBacklogLimit(qint64 bytes) { m_backlogLimit = bytes; }
    qint64 previewBacklogLimit() const { return m_backlogLimit; }

signals:
    void signal_conncted(QString ip, int port);
    void signal_disconncted(QString ip, int port);
    void signal_sendTextMessageResult(QString ip, quint32 port, bool result);
    void signal_sendBinaryMessageResult(QString ip, quint32 port, bool result);
    void signal_error(QString ip, quint32 port, QString errorString);
    void signal_textFrameReceived(QString ip, quint32 port, QString frame, bool isLastFrame);
    void signal_textMessageReceived(QString ip, quint32 port, QString message);
    void signal_close();
    void signal_thread_MessageReceived(const QString& message);
    void signal_thread_MessageReceived_binary(const QByteArray& data);
    void send_recv_msg(QString message, QWebSocket*);

public slots:
    void slot_newConnection();
    void slot_serverError(QWebSocketProtocol::CloseCode closeCode);
    void slot_closed();
    void slot_disconnected();
    void slot_error(QAbstractSocket::SocketError error);
    void slot_textFrameReceived(const QString& frame, bool isLastFrame);
    void slot_textMessageReceived(const QString& message);
    void slot_thread_MessageReceived(const QString& message);
    void slot_thread_MessageReceived_binary(const QByteArray& data);
    void slot_captureImgThread(QByteArray byte);

private:
    static QString clientKey(const QWebSocket* socket);
    void acceptTcp(QTcpServer* listener);
    void inspectHandshake(QTcpSocket* socket);
    void refuseHandshake(QTcpSocket* socket, int status, const char* reason, const char* why);
    QList<QHostAddress> ownAddresses(const QTcpSocket* socket) const;
    int pagesAndHandshakes() const;
    void countSent(QWebSocket* socket, qint64 requested, qint64 written);
    void forgetBacklog(QWebSocket* socket);

    QWebSocket* m_pCurrentSocket = nullptr;
    QString m_serverName;
    QWebSocketServer::SslMode m_sslMode;
    bool m_running = false;
    QWebSocketServer* m_pWebSocketServer = nullptr;
    QHash<QString, QWebSocket*> m_clients;
    QHostAddress m_listenAddress;
    quint16 m_listenPort = 1818;
    MessageRun* m_messageRun = nullptr;

    SecuritySettings m_security;
    // Our own listeners: a request head is checked before Qt upgrades the connection.
    QList<QTcpServer*> m_listeners;
    QList<QHostAddress> m_listenAddresses;
    // Connections still sending their request head, and those handed to Qt for the upgrade.
    QList<QPointer<QTcpSocket>> m_handshaking;
    QList<QPointer<QTcpSocket>> m_upgrading;

    // What each page owes: bytes handed to its socket and not yet written out, and whether
    // preview frames currently skip it.
    struct Backlog {
        qint64 unsent = 0;
        bool skipping = false;
        qint64 skipped = 0;
    };
    QHash<QWebSocket*, Backlog> m_backlog;
    qint64 m_backlogLimit = kDefaultPreviewBacklogLimit;
};
