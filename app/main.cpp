// rvowebSocketServer: the counter terminal's local device server. Pages connect on port 1818.
#include "app/configini.h"
#include "app/security.h"
#include "app/startup.h"
#include "devicelib/doccamera.h"
#include "files/pathpolicy.h"
#include "log/qlog.h"
#include "transport/websocketservermanager.h"

#include <QApplication>
#include <QDebug>
#include <QHostAddress>
#include <QLockFile>
#include <QWebSocketServer>

#include <cstdlib>
#include <cstring>

namespace {

void logBuildTime()
{
    qInfo() << startup::logPrefix().constData() << "版本编译时间" << __DATE__ << __TIME__;
}

void logCameraLibraryVersion()
{
    char version[1000];
    std::memset(version, 0, sizeof version);
    doccameraVeriosn(version, sizeof version);
    qInfo() << startup::logPrefix().constData() << version;
}

}  // namespace

int main(int argc, char* argv[])
{
    // From the first line on: what the device library says about its profile must also reach
    // the log file, which opens only after the single-instance check.
    startup::holdDeviceLibraryLines();
    static char loggingRules[] = "QT_LOGGING_RULES=\"*.debug=true\"";
    putenv(loggingRules);
    // The server opens no window; on a terminal without a desktop session (a service, a test
    // run) it still has to start, so it draws offscreen there instead of failing at once.
    startup::chooseHeadlessPlatform();

    QApplication app(argc, argv);

    logBuildTime();
    logCameraLibraryVersion();

    // The lock file decides which of two servers started at once is the one: exactly one can
    // take it, while each would count the other in the process list and both would leave. The
    // process count is still taken and logged, and decides alone only when the lock file cannot
    // be made at all. The lock lives, and is held, until the process ends; a killed server's lock
    // is taken over by the next start.
    QLockFile instanceLock(startup::instanceLockPath());
    const startup::InstanceLock lock = startup::takeInstanceLock(instanceLock);
    const long counted = startup::runningInstances();
    if (lock == startup::InstanceLock::HeldElsewhere || (lock == startup::InstanceLock::Unusable && counted > 1)) {
        qInfo() << startup::logPrefix().constData() << "process[rvowebSocketServer] is already running!!!";
        exit(0);
    }
    if (lock == startup::InstanceLock::Unusable)
        qInfo().noquote() << startup::logPrefix().constData()
                          << QStringLiteral("instance lock %1 cannot be made (error %2): the process count decides")
                                 .arg(startup::instanceLockPath())
                                 .arg(int(instanceLock.error()));
    else if (counted > 1)
        qInfo().noquote() << startup::logPrefix().constData()
                          << QStringLiteral("this process holds %1: the others counted are leaving or serve another folder")
                                 .arg(startup::instanceLockPath());

    QLog::instance()->handler(QLog::LogToFile);
    startup::replayDeviceLibraryLines();
    qInfo() << startup::logPrefix().constData() << "boreaTcp：系统启动";
    logBuildTime();
    logCameraLibraryVersion();

    // Who may reach the server, its log mirror and its files is the counter's own choice
    // ("[security]" in server.ini), read once.
    setActiveSecurity(SecuritySettings::load(ConfigIni::defaultPath()));
    const SecuritySettings& security = activeSecurity();
    QLog::instance()->setNetAddresses(security.listenAddresses());

    // Lives as long as the process.
    auto* server = new WebSocketServerManager(QStringLiteral("boreaTcp"), QWebSocketServer::NonSecureMode, nullptr);
    server->setSecurity(security);
    pathpolicy::setRoots(security.fileRoots);
    server->websocke_server_start(security.listenAddresses(), 1818);

    QGuiApplication::setQuitOnLastWindowClosed(false);
    return app.exec();
}
