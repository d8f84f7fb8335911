#include "identity/livingbodydetectthread.h"
#include "devicelib/biometrics.h"
#include "dispatch/replies.h"
#include "dispatch/threadowner.h"

#include <QMutexLocker>

LivingBodyDetectThread* LivingBodyDetectThread::instance()
{
    // On the heap, stopped and deleted by ThreadOwner when the application ends.
    static LivingBodyDetectThread* const thread = ThreadOwner::adopt(new LivingBodyDetectThread, &WorkerThread::destory);
    return thread;
}

LivingBodyDetectThread::LivingBodyDetectThread()
{
    // Started at once, so the first request finds the thread already waiting.
    start(QThread::InheritPriority);
}

LivingBodyDetectThread::~LivingBodyDetectThread()
{
    destory();
    wait();
}

void LivingBodyDetectThread::Detect()
{
    QMutexLocker lock(&m_mutex);
    ++m_pending;
    m_wait.wakeAll();
}

void LivingBodyDetectThread::run()
{
    // Waits only while nothing is counted, and checks outside the lock: a request that comes
    // during a check is served right after it, and Detect() never waits for a camera.
    QMutexLocker lock(&m_mutex);
    while (m_running) {
        if (m_pending <= 0) {
            m_wait.wait(&m_mutex);
            continue;
        }
        --m_pending;
        lock.unlock();
        const bool live = ::bLivingBodyDetect();
        emit sig_msg(reply::framedBool(QStringLiteral("bLivingBodyDetect"), live).toLocal8Bit());
        lock.relock();
    }
}
