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
    static char loggingRules[] = "QT_LOGGING_RULES=\"*.debug=true\"";
    putenv(loggingRules);
    // The server opens no window; on a terminal without a desktop session (a service, a test
    // run) it still has to start, so it draws offscreen there instead of failing at once.
    startup::chooseHeadlessPlatform();

    QApplication app(argc, argv);

    logBuildTime();
    logCameraLibraryVersion();

    if (startup::runningInstances() > 1) {
        qInfo() << startup::logPrefix().constData() << "process[rvowebSocketServer] is already running!!!";
        exit(0);
    }

    QLog::instance()->handler(QLog::LogToFile);
    qInfo() << startup::logPrefix().constData() << "boreaTcp：系统启动";
    logBuildTime();
    logCameraLibraryVersion();

    // Lives as long as the process.
    // Who may reach the server is the counter's own choice ("[security]" in server.ini).
    const SecuritySettings security = SecuritySettings::load(ConfigIni::defaultPath());
    auto* server = new WebSocketServerManager(QStringLiteral("boreaTcp"), QWebSocketServer::NonSecureMode, nullptr);
    server->setSecurity(security);
    pathpolicy::setRoots(security.fileRoots);
    server->websocke_server_start(security.listenAddresses(), 1818);

    QGuiApplication::setQuitOnLastWindowClosed(false);
    return app.exec();
}
