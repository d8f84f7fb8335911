#include "transport/websocketservermanager.h"

#include "camera/captureimgthread.h"
#include "camera/stoprecthread.h"
#include "companion/signsouthinterface.h"
#include "companion/webbrowser.h"
#include "dispatch/messagerun.h"
#include "identity/facematchthread.h"
#include "identity/livingbodydetectthread.h"
#include "identity/readidcardthread.h"

#include <QDebug>
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

}  // namespace

WebSocketServerManager::WebSocketServerManager(QString serverName, QWebSocketServer::SslMode mode, QObject* parent)
    : QObject(parent), m_serverName(serverName), m_sslMode(mode)
{
    m_messageRun = new MessageRun(this);
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
    if (m_pWebSocketServer) {
        m_pWebSocketServer->deleteLater();
        m_pWebSocketServer = nullptr;
    }
}

bool WebSocketServerManager::websocke_server_start(QHostAddress address, quint16 port)
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
    m_listenAddress = address;
    m_listenPort = port;
    m_running = m_pWebSocketServer->listen(m_listenAddress, m_listenPort);
    if (m_running)
        setNoDelay(m_pWebSocketServer->nativeDescriptor());
    else
        // The process carries on without pages; say why, so a busy port is found quickly.
        qInfo() << __LINE__ << __FUNCTION__ << "websocketservermanager" << "cannot listen on"
                << m_listenAddress.toString() << m_listenPort << m_pWebSocketServer->errorString();
    return m_running;
}

void WebSocketServerManager::websocke_server_stop()
{
    if (!m_running) {
        qDebug() << 78 << "websocketservermanager" << "Failed to" << __FUNCTION__ << ", it's not running...";
        return;
    }
    m_running = false;
    m_pWebSocketServer->close();
}

quint16 WebSocketServerManager::serverPort() const
{
    return m_pWebSocketServer && m_running ? m_pWebSocketServer->serverPort() : 0;
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
    gpWebSocket = nullptr;
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
