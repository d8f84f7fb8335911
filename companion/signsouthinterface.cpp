#include "companion/signsouthinterface.h"
#include "companion/companionwait.h"

#include <QCoreApplication>
#include <QDebug>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>

const QString SignSouthInterface::kServerName = QStringLiteral("SOUTHINTERFACE_ELECSIGNSERVER");
const QString SignSouthInterface::kScript = QStringLiteral("/run-elecsign.sh");

SignSouthInterface* SignSouthInterface::instance()
{
    // Owned by the application object, so its socket goes before the event dispatcher does.
    static SignSouthInterface* client = new SignSouthInterface(QCoreApplication::instance());
    return client;
}

SignSouthInterface::SignSouthInterface(QObject* parent) : QObject(parent), m_socket(new QLocalSocket(this))
{
    // A probe: whether the service is up is not used; every request starts it again.
    companion::probe(m_socket, kServerName);
    connect(m_socket, &QLocalSocket::stateChanged, this, &SignSouthInterface::slot_stateChanged);
    connect(m_socket, &QLocalSocket::readyRead, this, &SignSouthInterface::slot_readyRead);
}

bool SignSouthInterface::start()
{
    if (isConnected()) {
        companion::drop(m_socket);
        companion::pause(companion::kRestartPauseMs);
    }
    printf("start1\n");
    fflush(stdout);
    qDebug() << __LINE__ << __FUNCTION__ << "signsouthinterface";
    companion::launch(kScript);
    if (companion::connectAttempts(m_socket, kServerName, kScript, [] {
            printf("start36\n");
            qDebug() << __LINE__ << "start" << "signsouthinterface" << "service not reachable after 3 attempts";
        })) {
        printf("start3\n");
        fflush(stdout);
        return true;
    }
    printf("start2\n");
    fflush(stdout);
    qDebug() << __LINE__ << __FUNCTION__ << "signsouthinterface" << m_socket->errorString();
    return false;
}

void SignSouthInterface::stop()
{
    companion::drop(m_socket);
}

void SignSouthInterface::DoGWQ_StartSign(QString pdfpath, QString xmlpath, QString location, QString retain, int timeout)
{
    send(1, pdfpath, xmlpath, location, retain, timeout);
}

void SignSouthInterface::DoGWQ_StartSignEx(QString pdfpath, QString xmlpath, QString location, QString retain, int timeout)
{
    send(2, pdfpath, xmlpath, location, retain, timeout);
}

void SignSouthInterface::send(qint32 type, const QString& pdfpath, const QString& xmlpath, const QString& location,
                              const QString& retain, int timeout)
{
    if (!isConnected()) {
        qDebug() << __LINE__ << __FUNCTION__ << "signsouthinterface" << "not connected, request not sent";
        printf("sign1\n");
        fflush(stdout);
        return;
    }
    QJsonObject obj;
    obj.insert(QStringLiteral("pdfpath"), pdfpath);
    obj.insert(QStringLiteral("xmlpath"), xmlpath);
    obj.insert(QStringLiteral("location"), location);
    obj.insert(QStringLiteral("retain"), retain);
    obj.insert(QStringLiteral("timeout"), timeout);
    const QByteArray json = QJsonDocument(obj).toJson();
    if (m_socket->write(reinterpret_cast<const char*>(&type), 4) < 4) {
        printf("sign2\n");
        fflush(stdout);
        return;
    }
    const qint32 length = json.size();
    m_socket->write(reinterpret_cast<const char*>(&length), 4);
    m_socket->write(json);
    m_socket->flush();
    m_socket->waitForBytesWritten(companion::waitMs(companion::kConnectWaitMs));
    printf("sign3:%s\n", json.constData());
    fflush(stdout);
}

void SignSouthInterface::slot_readyRead()
{
    printf("SignSouthInterface::slot_readyRead1\n");
    fflush(stdout);
    qint32 length = 0;
    m_socket->read(reinterpret_cast<char*>(&length), 4);
    if (length < 0 || length > companion::kMaxReplyBytes) {
        // Such a length can never be reached: waiting for it would hold the main thread forever.
        qDebug() << __LINE__ << __FUNCTION__ << "signsouthinterface" << "reply length" << length
                 << "refused, dropping" << m_socket->readAll().size() << "bytes";
        return;
    }
    QByteArray payload = m_socket->readAll();
    QElapsedTimer silence;
    silence.start();
    const int silenceLimit = companion::waitMs(companion::kReplySilenceMs);
    // The payload ends when exactly the announced bytes are in; bytes of a following reply in the
    // same read keep it waiting. A service that goes away or falls silent costs the payload.
    while (payload.size() != length) {
        const QByteArray more = m_socket->readAll();
        if (!more.isEmpty()) {
            payload += more;
            silence.restart();
            continue;
        }
        if (m_socket->state() != QLocalSocket::ConnectedState || silence.elapsed() >= silenceLimit) {
            qDebug() << __LINE__ << __FUNCTION__ << "signsouthinterface" << "reply of" << length << "bytes dropped after"
                     << payload.size() << "bytes:"
                     << (m_socket->state() != QLocalSocket::ConnectedState ? "the service disconnected" : "the service fell silent");
            return;
        }
        m_socket->waitForReadyRead(100);
    }
    printf("ddd=%d %d\n", length, length);
    printf("SignSouthInterface::slot_readyRead2\n");
    fflush(stdout);
    if (payload.size() > 100)
        emit sig_msg(payload);
}

void SignSouthInterface::slot_stateChanged(QLocalSocket::LocalSocketState state)
{
    printf("QLocalSocket::LocalSocketState:%d\n", static_cast<int>(state));
    fflush(stdout);
    qDebug() << __LINE__ << __FUNCTION__ << "signsouthinterface" << state;
}
