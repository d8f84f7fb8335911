#include "app/startup.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDebug>
#include <QLockFile>
#include <QMutex>
#include <QString>
#include <QStringList>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

QBasicMutex g_heldMutex;
QStringList g_heldLines;
QtMessageHandler g_qtOutput = nullptr;

void holdingHandler(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (message.startsWith(QLatin1String("devicelib: "))) {
        QMutexLocker lock(&g_heldMutex);
        g_heldLines.append(message);
    }
    g_qtOutput(type, context, message);
}

}  // namespace

namespace startup {

const char* const kInstancePipeline =
    "ps -ef |grep rvowebSocketServer  | grep -v sh | grep -v txt | grep -v -i qtcreator | grep -v grep "
    "| grep -v sudo | wc -l";

QByteArray logPrefix()
{
    return QStringLiteral("[%1] ")
        .arg(QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")))
        .toLocal8Bit();
}

long countFromPipeline(const char* pipeline)
{
    const QByteArray savedLibraryPath = qgetenv("LD_LIBRARY_PATH");
    qputenv("LD_LIBRARY_PATH", QByteArray());
    FILE* pipe = popen(pipeline, "r");
    qputenv("LD_LIBRARY_PATH", savedLibraryPath);

    char line[100];
    std::memset(line, 0, sizeof line);
    if (!pipe) {
        // Not being able to look is no proof of a second instance.
        qInfo() << logPrefix().constData() << "process list not readable:" << std::strerror(errno);
        return 0;
    }
    if (!std::fgets(line, sizeof line, pipe))
        line[0] = '\0';
    qInfo() << logPrefix().constData() << line;
    pclose(pipe);
    return std::strtol(line, nullptr, 10);
}

long runningInstances()
{
    return countFromPipeline(kInstancePipeline);
}

QString instanceLockPath()
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/rvowebSocketServer.lock");
}

InstanceLock takeInstanceLock(QLockFile& lock)
{
    lock.setStaleLockTime(0);
    if (lock.tryLock(0))
        return InstanceLock::Owned;
    return lock.error() == QLockFile::LockFailedError ? InstanceLock::HeldElsewhere : InstanceLock::Unusable;
}

void holdDeviceLibraryLines()
{
    // Qt hands back its own output routine when no other handler was installed.
    const QtMessageHandler previous = qInstallMessageHandler(holdingHandler);
    if (previous != holdingHandler)
        g_qtOutput = previous;
}

int replayDeviceLibraryLines()
{
    QStringList lines;
    {
        QMutexLocker lock(&g_heldMutex);
        lines.swap(g_heldLines);
    }
    for (const QString& line : qAsConst(lines))
        qInfo().noquote() << line;
    return lines.size();
}

bool chooseHeadlessPlatform()
{
    if (qEnvironmentVariableIsSet("QT_QPA_PLATFORM") || !qEnvironmentVariableIsEmpty("DISPLAY")
        || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"))
        return false;
    qputenv("QT_QPA_PLATFORM", "offscreen");
    return true;
}

}  // namespace startup
