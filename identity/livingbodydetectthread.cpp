#include "identity/livingbodydetectthread.h"

#include <QMutexLocker>

LivingBodyDetectThread* LivingBodyDetectThread::instance()
{
    static LivingBodyDetectThread thread;
    return &thread;
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

void LivingBodyDetectThread::destory()
{
    QMutexLocker lock(&m_mutex);
    m_running = false;
    m_wait.wakeAll();
}

void LivingBodyDetectThread::run()
{
    QMutexLocker lock(&m_mutex);
    while (m_running) {
        // Idle until woken; the detection itself arrives with the liveness commands.
        m_wait.wait(&m_mutex);
    }
}
