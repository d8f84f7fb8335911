#include "identity/readidcardthread.h"

#include <QMutexLocker>

ReadIdCardThread* ReadIdCardThread::instance()
{
    static ReadIdCardThread thread;
    return &thread;
}

ReadIdCardThread::ReadIdCardThread()
{
    // Started at once, so the first request finds the thread already waiting.
    start(QThread::InheritPriority);
}

ReadIdCardThread::~ReadIdCardThread()
{
    destory();
    wait();
}

void ReadIdCardThread::destory()
{
    QMutexLocker lock(&m_mutex);
    m_running = false;
    m_wait.wakeAll();
}

void ReadIdCardThread::run()
{
    QMutexLocker lock(&m_mutex);
    while (m_running) {
        // Idle until woken; the card read itself arrives with the ID-card commands.
        m_wait.wait(&m_mutex);
    }
}
