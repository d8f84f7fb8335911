#include "companion/webbrowsersouthinterface.h"
#include "companion/companionwait.h"
#include "dispatch/messagerun.h"

#include <QCoreApplication>
#include <QDebug>

#include <cstdio>

const QString Webbrowsersouthinterface::kServerName = QStringLiteral("SOUTHINTERFACE_BROWSER");
const QString Webbrowsersouthinterface::kScript = QStringLiteral("/run-webbrowser.sh");

namespace {
const int kLaunchPauseMs = 300;
}  // namespace

Webbrowsersouthinterface* Webbrowsersouthinterface::instance()
{
    // Owned by the application object, so its socket goes before the event dispatcher does.
    static Webbrowsersouthinterface* client = new Webbrowsersouthinterface(QCoreApplication::instance());
    return client;
}

Webbrowsersouthinterface::Webbrowsersouthinterface(QObject* parent) : QObject(parent), m_socket(new QLocalSocket(this))
{
    // A probe whose answer is not used: each page command starts the helper again.
    companion::probe(m_socket, kServerName);
    connect(m_socket, &QLocalSocket::readyRead, this, &Webbrowsersouthinterface::slot_readyRead);
}

bool Webbrowsersouthinterface::start()
{
    if (isConnected()) {
        companion::drop(m_socket);
        companion::pause(companion::kRestartPauseMs);
    }
    companion::launch(kScript);
    companion::pause(kLaunchPauseMs);
    if (!companion::connectAttempts(m_socket, kServerName, kScript)) {
        qDebug() << __LINE__ << __FUNCTION__ << "webbrowsersouthinterface" << "helper not reachable:" << m_socket->errorString();
        return false;
    }
    printf("start3\n");
    fflush(stdout);
    return true;
}

void Webbrowsersouthinterface::stopWeb()
{
    companion::drop(m_socket);
}

bool Webbrowsersouthinterface::writeInt(qint32 value)
{
    return m_socket->write(reinterpret_cast<const char*>(&value), 4) == 4;
}

// A text field: its UTF-8 bytes up to the first zero byte, after their length.
bool Webbrowsersouthinterface::writeText(const QString& text)
{
    QByteArray bytes = text.toUtf8();
    const int zero = bytes.indexOf('\0');
    if (zero >= 0)
        bytes.truncate(zero);
    if (!writeInt(bytes.size()))
        return false;
    m_socket->write(bytes);
    return true;
}

bool Webbrowsersouthinterface::openURL(QString url)
{
    if (!isConnected() || !writeInt(1))
        return false;
    return writeText(url);
}

bool Webbrowsersouthinterface::openURL(QString url, QString data)
{
    if (!isConnected() || !writeInt(2))
        return false;
    if (!writeText(url))
        return false;
    return writeText(data);
}

void Webbrowsersouthinterface::slot_readyRead()
{
    if (gpWebSocket) {
        QByteArray answer = m_socket->readAll();
        const int zero = answer.indexOf('\0');
        if (zero >= 0)
            answer.truncate(zero);
        MessageRun::send_msg(QString::fromUtf8(answer));
    }
    qDebug() << __LINE__ << __FUNCTION__ << "webbrowsersouthinterface";
    qDebug() << m_socket->readAll();
}
