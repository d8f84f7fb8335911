#include "app/startup.h"

#include <QDateTime>
#include <QDebug>
#include <QString>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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

bool chooseHeadlessPlatform()
{
    if (qEnvironmentVariableIsSet("QT_QPA_PLATFORM") || !qEnvironmentVariableIsEmpty("DISPLAY")
        || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"))
        return false;
    qputenv("QT_QPA_PLATFORM", "offscreen");
    return true;
}

}  // namespace startup
