#include "companion/companionwait.h"

#include <QtGlobal>
#include <QThread>

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

}  // namespace companion
