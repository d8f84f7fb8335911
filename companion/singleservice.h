// One copy of a companion program: a lock file in TMPDIR holding its PID, taken before a stale
// socket file is removed, so a second copy never takes the first one's socket away.
#pragma once

#include <QDebug>
#include <QDir>
#include <QLocalServer>
#include <QLockFile>
#include <QString>

#include <memory>

namespace singleservice {

// The lock file of the service name; its content is the running program's PID.
inline QString lockPath(const QString& name) { return QDir::tempPath() + QLatin1Char('/') + name + QStringLiteral(".lock"); }

// Takes the lock and listens on name; null when another copy runs or the name cannot be taken.
inline std::unique_ptr<QLockFile> listen(QLocalServer& server, const QString& name)
{
    auto lock = std::make_unique<QLockFile>(lockPath(name));
    lock->setStaleLockTime(0);
    if (!lock->tryLock(0)) {
        qInfo().noquote() << name << "already served by another copy (" << lockPath(name) << ")";
        return nullptr;
    }
    QLocalServer::removeServer(name);
    if (!server.listen(name)) {
        qWarning().noquote() << name << "cannot listen:" << server.errorString();
        return nullptr;
    }
    return lock;
}

}  // namespace singleservice
