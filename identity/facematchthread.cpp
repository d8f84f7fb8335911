#include "identity/facematchthread.h"

#include <QMutexLocker>

FaceMatchThread* FaceMatchThread::instance()
{
    static FaceMatchThread thread;
    return &thread;
}

FaceMatchThread::FaceMatchThread()
{
    // Started at once, so the first request finds the thread already waiting.
    start(QThread::InheritPriority);
}

FaceMatchThread::~FaceMatchThread()
{
    destory();
    wait();
}

void FaceMatchThread::destory()
{
    QMutexLocker lock(&m_mutex);
    m_running = false;
    m_wait.wakeAll();
}

void FaceMatchThread::run()
{
    QMutexLocker lock(&m_mutex);
    while (m_running) {
        // Idle until woken; the comparison itself arrives with the face commands.
        m_wait.wait(&m_mutex);
    }
}
