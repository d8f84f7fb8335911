#include "transport/websocketservermanager.h"

#include "camera/captureimgthread.h"
#include "camera/stoprecthread.h"
#include "companion/signsouthinterface.h"
#include "companion/webbrowser.h"
#include "dispatch/messagerun.h"
#include "identity/facematchthread.h"
#include "identity/livingbodydetectthread.h"
#include "identity/readidcardthread.h"
#include "transport/handshakeguard.h"

#include <QDebug>
#include <QNetworkInterface>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QWebSocket>

#ifdef Q_OS_UNIX
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#endif

namespace {

// What a text of `payload` UTF-8 bytes costs on the wire: the socket cuts it into frames of at
// most frameSize bytes, each with its own (unmasked, server-side) header. bytesWritten reports
// wire bytes, so the backlog must be counted in the same unit or it drifts by the headers.
qint64 wireSize(qint64 payload, quint64 frameSize)
{
    auto header = [](qint64 n) -> qint64 { return n <= 125 ? 2 : (n <= 0xFFFF ? 4 : 10); };
    if (payload <= 0)
        return header(0);
    const qint64 fs = frameSize > 0 ? qint64(frameSize) : payload;
    const qint64 full = payload / fs;
    const qint64 rest = payload % fs;
    return payload + full * header(fs) + (rest ? header(rest) : 0);
}

// Pages get each preview frame the moment it exists; a frame that waits for Nagle is a frame
// shown late. Linux hands the option on to every socket the listener accepts.
void setNoDelay(qintptr descriptor)
{
#ifdef Q_OS_UNIX
    if (descriptor < 0)
        return;
    const int one = 1;
    if (::setsockopt(int(descriptor), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0)
        qDebug() << __LINE__ << __FUNCTION__ << "websocketservermanager"
                 << "TCP_NODELAY not set on the listening socket; preview frames may be delayed";
#else
    Q_UNUSED(descriptor);
#endif
}

// A request head larger than this is no browser's; it is refused rather than buffered.
constexpr int kMaxRequestHead = 16 * 1024;
// A connection that has not finished its request head by then is dropped.
constexpr int kHandshakeTimeoutMs = 10000;
// WebSocket close code "try again later": the page limit is reached.
constexpr int kCloseTryAgainLater = 1013;

QString describe(const QTcpSocket* socket)
{
    return QStringLiteral("%1-%2").arg(socket->peerAddress().toString()).arg(socket->peerPort());
}

}  // namespace

WebSocketServerManager::WebSocketServerManager(QString serverName, QWebSocketServer::SslMode mode, QObject* parent)
    : QObject(parent), m_serverName(serverName), m_sslMode(mode)
{
    m_messageRun = new MessageRun(this);
    m_messageRun->setPageSender([this](QWebSocket* socket, const QString& text) { sendText(socket, text); });
    connect(this, SIGNAL(send_recv_msg(QString,QWebSocket*)), m_messageRun, SLOT(recv_msg(QString,QWebSocket*)));

    // Every worker's late result reaches every page through the one broadcast slot; the
    // signals are queued here from the workers' threads, so sockets stay on this thread.
    connect(CaptureImgThread::instance(), &CaptureImgThread::sig_msg, this, &WebSocketServerManager::slot_captureImgThread);
    connect(SignSouthInterface::instance(), &SignSouthInterface::sig_msg, this, &WebSocketServerManager::slot_captureImgThread);
    connect(ReadIdCardThread::instance(), &ReadIdCardThread::sig_msg, this, &WebSocketServerManager::slot_captureImgThread);
    connect(FaceMatchThread::instance(), &FaceMatchThread::sig_msg, this, &WebSocketServerManager::slot_captureImgThread);
    connect(LivingBodyDetectThread::instance(), &LivingBodyDetectThread::sig_msg, this,
            &WebSocketServerManager::slot_captureImgThread);
    connect(StopRecThread::instance(), &StopRecThread::sig_msg, this, &WebSocketServerManager::slot_captureImgThread);
}

WebSocketServerManager::~WebSocketServerManager()
{
    // The clients die with this manager (they are its children); the reply path must not keep
    // pointing at one of them.
    for (QWebSocket* socket : qAsConst(m_clients)) {
        if (socket && gpWebSocket == socket)
            gpWebSocket = nullptr;
    }
    m_messageRun->setPageSender(nullptr);
    if (m_pWebSocketServer) {
        m_pWebSocketServer->deleteLater();
        m_pWebSocketServer = nullptr;
    }
}

void WebSocketServerManager::setSecurity(const SecuritySettings& security)
{
    m_security = security;
    if (m_security.origins.isEmpty())
        qInfo() << __LINE__ << __FUNCTION__ << "websocketservermanager"
                << "no origins are configured: pages of every origin are admitted";
}

bool WebSocketServerManager::websocke_server_start(QHostAddress address, quint16 port)
{
    QList<QHostAddress> addresses{address};
    if (address == QHostAddress(QHostAddress::LocalHost))
        addresses << QHostAddress(QHostAddress::LocalHostIPv6);
    return websocke_server_start(addresses, port);
}

bool WebSocketServerManager::websocke_server_start(const QList<QHostAddress>& addresses, quint16 port)
{
    if (m_running) {
        qDebug() << 55 << "websocketservermanager" << "Failed to" << __FUNCTION__ << "it's already running...";
        return m_running;
    }
    if (!m_pWebSocketServer) {
        m_pWebSocketServer = new QWebSocketServer(m_serverName, m_sslMode, this);
        connect(m_pWebSocketServer, SIGNAL(newConnection()), this, SLOT(slot_newConnection()));
        connect(m_pWebSocketServer, SIGNAL(closed()), this, SLOT(slot_closed()));
        connect(m_pWebSocketServer, SIGNAL(serverError(QWebSocketProtocol::CloseCode)), this,
                SLOT(slot_serverError(QWebSocketProtocol::CloseCode)));
    }
    m_listenAddress = addresses.value(0);
    m_listenPort = port;
    m_listenAddresses.clear();
    // Qt's server only upgrades; our listeners accept, so each request head is checked first.
    for (const QHostAddress& address : addresses) {
        auto* listener = new QTcpServer(this);
        // The first listener may have been given port 0; the others follow the port it got.
        const quint16 p = m_listeners.isEmpty() ? port : m_listeners.first()->serverPort();
        if (!listener->listen(address, p)) {
            qInfo() << __LINE__ << __FUNCTION__ << "websocketservermanager" << "cannot listen on"
                    << address.toString() << p << listener->errorString();
            delete listener;
            if (m_listeners.isEmpty())
                break;   // without the first address the server does not run at all
            continue;
        }
        setNoDelay(listener->socketDescriptor());
        connect(listener, &QTcpServer::newConnection, this, [this, listener] { acceptTcp(listener); });
        m_listeners << listener;
        m_listenAddresses << address;
    }
    m_running = !m_listeners.isEmpty();
    return m_running;
}

void WebSocketServerManager::websocke_server_stop()
{
    if (!m_running) {
        qDebug() << 78 << "websocketservermanager" << "Failed to" << __FUNCTION__ << ", it's not running...";
        return;
    }
    m_running = false;
    qDeleteAll(m_listeners);
    m_listeners.clear();
    for (const QPointer<QTcpSocket>& socket : qAsConst(m_handshaking)) {
        if (socket)
            socket->abort();
    }
    m_handshaking.clear();
    m_pWebSocketServer->close();
}

quint16 WebSocketServerManager::serverPort() const
{
    return m_running && !m_listeners.isEmpty() ? m_listeners.first()->serverPort() : 0;
}

int WebSocketServerManager::pagesAndHandshakes() const
{
    int n = m_clients.size();
    for (const auto& s : m_handshaking)
        n += s ? 1 : 0;
    for (const auto& s : m_upgrading)
        n += s ? 1 : 0;
    return n;
}

void WebSocketServerManager::acceptTcp(QTcpServer* listener)
{
    while (QTcpSocket* socket = listener->nextPendingConnection()) {
        socket->setParent(this);
        m_handshaking.removeAll(QPointer<QTcpSocket>());
        m_upgrading.removeAll(QPointer<QTcpSocket>());
        // Room for the pages plus as many again still shaking hands: a crowd of connections
        // that never finish their request cannot starve real pages.
        if (pagesAndHandshakes() >= 2 * m_security.maxClients) {
            refuseHandshake(socket, 503, "Service Unavailable", "too many connections");
            continue;
        }
        m_handshaking << socket;
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { inspectHandshake(socket); });
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        QTimer::singleShot(kHandshakeTimeoutMs, this, [this, pending = QPointer<QTcpSocket>(socket)] {
            if (pending && m_handshaking.contains(pending))
                refuseHandshake(pending, 408, "Request Timeout", "no complete request in time");
        });
        if (socket->bytesAvailable() > 0)
            inspectHandshake(socket);
    }
}

void WebSocketServerManager::inspectHandshake(QTcpSocket* socket)
{
    if (!m_handshaking.contains(socket))
        return;
    // Peek, so that Qt's server reads the same request when it takes the connection over.
    const QByteArray bytes = socket->peek(kMaxRequestHead + 4);
    const handshake::RequestHead head = handshake::parseHead(bytes);
    if (!head.complete) {
        if (bytes.size() > kMaxRequestHead)
            refuseHandshake(socket, 431, "Request Header Fields Too Large", "request head too large");
        return;
    }
    if (!head.hasHost || !handshake::hostAllowed(head.host, ownAddresses(socket))) {
        refuseHandshake(socket, 403, "Forbidden", "Host does not name this server");
        return;
    }
    if (!handshake::originAllowed(head.hasOrigin, head.origin, m_security.origins)) {
        refuseHandshake(socket, 403, "Forbidden", "Origin not admitted");
        return;
    }
    m_handshaking.removeAll(socket);
    m_upgrading.removeAll(QPointer<QTcpSocket>());
    if (m_clients.size() + m_upgrading.size() >= m_security.maxClients) {
        refuseHandshake(socket, 503, "Service Unavailable", "page limit reached");
        return;
    }
    // Qt's server reads the request from here on; the connection stays ours (Qt's page socket
    // does not delete it) until the page socket it becomes takes it over.
    socket->disconnect();
    m_upgrading << socket;
    m_pWebSocketServer->handleConnection(socket);
}

void WebSocketServerManager::refuseHandshake(QTcpSocket* socket, int status, const char* reason, const char* why)
{
    const handshake::RequestHead head = handshake::parseHead(socket->peek(kMaxRequestHead + 4));
    qInfo().noquote() << QStringLiteral("websocketservermanager: refused %1 (HTTP %2, %3): Host \"%4\" Origin \"%5\"")
                             .arg(describe(socket))
                             .arg(status)
                             .arg(QLatin1String(why))
                             .arg(head.hasHost ? head.host : QStringLiteral("(none)"))
                             .arg(head.hasOrigin ? head.origin : QStringLiteral("(none)"));
    m_handshaking.removeAll(socket);
    disconnect(socket, nullptr, this, nullptr);
    socket->write(handshake::refusal(status, reason));
    socket->disconnectFromHost();
    if (socket->state() == QAbstractSocket::UnconnectedState)
        socket->deleteLater();
}

QList<QHostAddress> WebSocketServerManager::ownAddresses(const QTcpSocket* socket) const
{
    QList<QHostAddress> own = m_listenAddresses;
    // Listening everywhere: any address of this machine names us, as does the one the page
    // reached.
    for (const QHostAddress& a : m_listenAddresses) {
        if (a == QHostAddress(QHostAddress::Any) || a == QHostAddress(QHostAddress::AnyIPv4)
            || a == QHostAddress(QHostAddress::AnyIPv6)) {
            own << QNetworkInterface::allAddresses() << socket->localAddress();
            break;
        }
    }
    return own;
}

QString WebSocketServerManager::clientKey(const QWebSocket* socket)
{
    return QStringLiteral("%1-%2").arg(socket->peerAddress().toString()).arg(socket->peerPort());
}

void WebSocketServerManager::slot_newConnection()
{
    QWebSocket* socket = m_pWebSocketServer->nextPendingConnection();
    if (!socket)
        return;
    // A page's socket lives as long as the page stays, and never longer than this manager.
    socket->setParent(this);
    for (auto it = m_upgrading.begin(); it != m_upgrading.end();) {
        if (!*it) {
            it = m_upgrading.erase(it);
        } else if ((*it)->peerPort() == socket->peerPort() && (*it)->peerAddress() == socket->peerAddress()) {
            (*it)->setParent(socket);
            it = m_upgrading.erase(it);
        } else {
            ++it;
        }
    }
    // Set before the event loop reads the page's first frame: an oversized frame is refused
    // from its header, never buffered.
    socket->setMaxAllowedIncomingFrameSize(quint64(m_security.maxMessageBytes));
    socket->setMaxAllowedIncomingMessageSize(quint64(m_security.maxMessageBytes));
    if (m_clients.size() >= m_security.maxClients) {
        qInfo().noquote() << QStringLiteral("websocketservermanager: refused %1 (close %2, page limit reached): Origin \"%3\"")
                                 .arg(clientKey(socket))
                                 .arg(kCloseTryAgainLater)
                                 .arg(socket->origin());
        socket->close(QWebSocketProtocol::CloseCode(kCloseTryAgainLater), QStringLiteral("Try again later"));
        socket->deleteLater();
        return;
    }
    qDebug() << 106 << __FUNCTION__ << "websocketservermanager" << socket->peerAddress().toString()
             << socket->peerPort()
             << (socket->peerAddress() == QHostAddress(QHostAddress::LocalHost) ? "true" : "false")
             << socket->peerName();

    connect(socket, SIGNAL(disconnected()), this, SLOT(slot_disconnected()));
    connect(socket, SIGNAL(error(QAbstractSocket::SocketError)), this, SLOT(slot_error(QAbstractSocket::SocketError)));
    connect(socket, SIGNAL(textMessageReceived(QString)), this, SLOT(slot_textMessageReceived(QString)));
    connect(this, SIGNAL(signal_thread_MessageReceived(QString)), this, SLOT(slot_thread_MessageReceived(QString)));
    connect(this, SIGNAL(signal_thread_MessageReceived_binary(QByteArray)), this,
            SLOT(slot_thread_MessageReceived_binary(QByteArray)));

    m_backlog.insert(socket, Backlog());
    connect(socket, &QWebSocket::bytesWritten, this, [this, socket](qint64 bytes) {
        const auto it = m_backlog.find(socket);
        if (it != m_backlog.end())
            it->unsent = qMax<qint64>(0, it->unsent - bytes);
    });

    m_clients.insert(clientKey(socket), socket);
}

void WebSocketServerManager::slot_serverError(QWebSocketProtocol::CloseCode closeCode)
{
    Q_UNUSED(closeCode);
    // Only a client socket carries the address to report; the server itself has none.
    QWebSocket* socket = qobject_cast<QWebSocket*>(sender());
    if (socket)
        emit signal_error(socket->peerAddress().toString(), socket->peerPort(), m_pWebSocketServer->errorString());
}

void WebSocketServerManager::slot_closed()
{
    // Closing a page may report its disconnect at once, which edits the table: walk a copy.
    const QHash<QString, QWebSocket*> clients = m_clients;
    for (QWebSocket* socket : clients) {
        if (socket)
            socket->close(QWebSocketProtocol::CloseCodeNormal, QString());
    }
    m_clients.clear();
    emit send_recv_msg(QStringLiteral("bStopPlay"), nullptr);
    emit send_recv_msg(QStringLiteral("bStopPlay4"), nullptr);
    emit signal_close();
}

void WebSocketServerManager::slot_disconnected()
{
    qDebug() << __LINE__ << __FUNCTION__ << "websocketservermanager";
    QWebSocket* socket = qobject_cast<QWebSocket*>(sender());
    if (!socket)
        return;
    if (socket->closeCode() == QWebSocketProtocol::CloseCodeTooMuchData)
        qInfo().noquote() << QStringLiteral("websocketservermanager: %1 closed with code 1009: a message was larger "
                                            "than maxMessageBytes (%2 bytes)")
                                 .arg(clientKey(socket))
                                 .arg(m_security.maxMessageBytes);
    gpWebSocket = nullptr;
    // The page is gone: nothing may send to it through the current-page path any more.
    if (m_pCurrentSocket == socket)
        m_pCurrentSocket = nullptr;
    // The preview never outlives the page that started it.
    emit send_recv_msg(QStringLiteral("bStopPlay"), nullptr);
    emit send_recv_msg(QStringLiteral("bStopPlay4"), nullptr);

    m_clients.remove(clientKey(socket));
    // A closed socket may no longer know its peer, so its key can come out different: make sure
    // no entry keeps pointing at a socket that is about to go.
    for (auto it = m_clients.begin(); it != m_clients.end();) {
        if (it.value() == socket)
            it = m_clients.erase(it);
        else
            ++it;
    }
    forgetBacklog(socket);

    socket->abort();
    socket->close(QWebSocketProtocol::CloseCodeNormal, QString());
    socket->deleteLater();
}

void WebSocketServerManager::slot_error(QAbstractSocket::SocketError error)
{
    Q_UNUSED(error);
    QWebSocket* socket = qobject_cast<QWebSocket*>(sender());
    if (socket)
        emit signal_error(socket->peerAddress().toString(), socket->peerPort(), socket->errorString());
}

void WebSocketServerManager::slot_textFrameReceived(const QString& frame, bool isLastFrame)
{
    QWebSocket* socket = qobject_cast<QWebSocket*>(sender());
    if (!socket)
        return;
    qDebug() << 194 << __FUNCTION__ << "websocketservermanager" << frame << (isLastFrame ? "true" : "false");
    emit signal_textFrameReceived(socket->peerAddress().toString(), socket->peerPort(), frame, isLastFrame);
}

void WebSocketServerManager::slot_textMessageReceived(const QString& message)
{
    qDebug() << 228 << __FUNCTION__ << "websocketservermanager" << message;
    QWebSocket* socket = qobject_cast<QWebSocket*>(sender());

    if (message.startsWith(QLatin1Char('@'))) {
        WebBrowser::instance()->recvMessage(message, socket);
        return;
    }
    if (message.startsWith(QLatin1Char('#'))) {
        if (gpWebSocket)
            sendText(gpWebSocket, message.mid(1));
        return;
    }
    m_pCurrentSocket = socket;
    if (!socket)
        return;
    gpWebSocket = socket;
    m_messageRun->recv_msg(message, socket);
}

void WebSocketServerManager::slot_thread_MessageReceived(const QString& message)
{
    if (m_pCurrentSocket)
        websocke_server_sendData(m_pCurrentSocket->peerAddress().toString(), m_pCurrentSocket->peerPort(), message);
    qDebug() << 203 << __FUNCTION__ << "websocketservermanager" << "thread send data..........";
}

void WebSocketServerManager::slot_thread_MessageReceived_binary(const QByteArray& data)
{
    if (m_pCurrentSocket)
        websocke_server_sendData_binary(m_pCurrentSocket->peerAddress().toString(), m_pCurrentSocket->peerPort(), data);
    qDebug() << 203 << __FUNCTION__ << "websocketservermanager" << "thread send data..........binary";
}

void WebSocketServerManager::websocke_server_sendData(QString ip, int port, QString message)
{
    QWebSocket* socket = m_clients.value(QStringLiteral("%1-%2").arg(ip).arg(port));
    if (socket)
        sendText(socket, message);
}

void WebSocketServerManager::websocke_server_sendData_binary(QString ip, int port, QByteArray data)
{
    QWebSocket* socket = m_clients.value(QStringLiteral("%1-%2").arg(ip).arg(port));
    if (!socket)
        return;
    countSent(socket, data.size(), socket->sendBinaryMessage(data));
}

void WebSocketServerManager::slot_captureImgThread(QByteArray byte)
{
    const int nul = byte.indexOf('\0');
    const QString text = QString::fromUtf8(byte.constData(), nul < 0 ? byte.size() : nul);

    // A preview frame is worth nothing once a newer one exists, so a page that stopped reading
    // may miss frames; replies and events ("Begin...") always go out.
    const bool previewFrame = sender() == static_cast<QObject*>(CaptureImgThread::instance())
                              && !byte.startsWith("Begin");

    for (auto it = m_clients.constBegin(); it != m_clients.constEnd(); ++it) {
        QWebSocket* socket = it.value();
        if (!socket)
            continue;
        if (previewFrame) {
            const auto b = m_backlog.find(socket);
            if (b != m_backlog.end()) {
                if (b->skipping && b->unsent <= m_backlogLimit / 2) {
                    // Resume only well below the limit, so a page hovering at it does not get
                    // every other frame.
                    qInfo() << __LINE__ << __FUNCTION__ << "websocketservermanager" << it.key()
                            << "caught up, preview frames resume; frames skipped:" << b->skipped;
                    b->skipping = false;
                    b->skipped = 0;
                } else if (!b->skipping && b->unsent > m_backlogLimit) {
                    qInfo() << __LINE__ << __FUNCTION__ << "websocketservermanager" << it.key()
                            << "is not reading; preview frames skip it while it owes" << b->unsent << "bytes";
                    b->skipping = true;
                }
                if (b->skipping) {
                    ++b->skipped;
                    continue;
                }
            }
        }
        sendText(socket, text);
    }
}

void WebSocketServerManager::sendText(QWebSocket* socket, const QString& text)
{
    const qint64 written = socket->sendTextMessage(text);
    countSent(socket, text.isEmpty() ? 0 : 1, written);
}

void WebSocketServerManager::countSent(QWebSocket* socket, qint64 requested, qint64 written)
{
    const auto it = m_backlog.find(socket);
    if (it == m_backlog.end())
        return;
    // Nothing at all goes out on a socket that is no longer connected; an empty message still
    // costs its frame header.
    if (written <= 0 && (requested > 0 || socket->state() != QAbstractSocket::ConnectedState))
        return;
    it->unsent += wireSize(written, socket->outgoingFrameSize());
}

void WebSocketServerManager::forgetBacklog(QWebSocket* socket)
{
    m_backlog.remove(socket);
}
