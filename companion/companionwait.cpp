#include "companion/companionwait.h"

#include <QCoreApplication>
#include <QLocalSocket>
#include <QProcess>
#include <QThread>
#include <QtGlobal>

#include <algorithm>

namespace companion {

int waitMs(int ms)
{
    static const int limit = [] {
        bool ok = false;
        const int v = qEnvironmentVariableIntValue("RVO_COMPANION_WAIT_MS", &ok);
        return ok && v >= 0 ? v : -1;
    }();
    return limit < 0 ? ms : std::min(ms, limit);
}

void pause(int ms)
{
    QThread::msleep(static_cast<unsigned long>(waitMs(ms)));
}

void launch(const QString& script)
{
    QProcess::startDetached(QStringLiteral("/bin/bash"), {QCoreApplication::applicationDirPath() + script});
}

void probe(QLocalSocket* socket, const QString& name)
{
    socket->connectToServer(name, QIODevice::ReadWrite);
    socket->waitForConnected(waitMs(kConnectWaitMs));
    socket->disconnectFromServer();
    socket->abort();
}

void drop(QLocalSocket* socket)
{
    if (socket->state() != QLocalSocket::ConnectedState)
        return;
    socket->disconnectFromServer();
    socket->abort();
}

bool connectAttempts(QLocalSocket* socket, const QString& name, const QString& script, void (*afterLastFailure)())
{
    for (int attempt = 1; attempt <= 3; ++attempt) {
        socket->connectToServer(name, QIODevice::ReadWrite);
        socket->waitForConnected(waitMs(kConnectWaitMs));
        if (socket->state() == QLocalSocket::ConnectedState)
            return true;
        pause(kRestartPauseMs);
        launch(script);
    }
    if (afterLastFailure)
        afterLastFailure();
    return false;
}

}  // namespace companion
