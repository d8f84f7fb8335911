#include "dispatch/threadowner.h"

#include <QCoreApplication>
#include <QMutex>
#include <QMutexLocker>

#include <utility>
#include <vector>

namespace {

struct Owned {
    QThread* thread;
    std::function<void()> stop;
};

// Plain storage reached only under the mutex; a QBasicMutex needs no destructor, so nothing
// here races the statics of other files at exit.
QBasicMutex g_mutex;
std::vector<Owned>* g_owned = nullptr;

}  // namespace

namespace ThreadOwner {

void adopt(QThread* worker, std::function<void()> stop)
{
    QMutexLocker lock(&g_mutex);
    if (!g_owned) {
        g_owned = new std::vector<Owned>;
        qAddPostRoutine(&ThreadOwner::stopAll);
    }
    g_owned->push_back({worker, std::move(stop)});
}

void stopAll()
{
    std::vector<Owned>* owned = nullptr;
    {
        QMutexLocker lock(&g_mutex);
        std::swap(owned, g_owned);
    }
    if (!owned)
        return;
    // Ask every loop to end first, so their waits overlap, then join and delete newest first.
    for (const Owned& o : *owned) {
        o.stop();
        o.thread->quit();
    }
    for (auto it = owned->rbegin(); it != owned->rend(); ++it) {
        it->thread->wait();
        delete it->thread;
    }
    delete owned;
}

}  // namespace ThreadOwner
