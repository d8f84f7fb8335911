#include "identity/workerthread.h"

#include <QMutexLocker>

WorkerThread::WorkerThread() = default;

WorkerThread::~WorkerThread()
{
    destory();
    wait();
}

void WorkerThread::destory()
{
    QMutexLocker lock(&m_mutex);
    m_running = false;
    m_wait.wakeAll();
}

void WorkerThread::run()
{
    QMutexLocker lock(&m_mutex);
    while (m_running) {
        // Idle until woken; each worker's job arrives with its own commands.
        m_wait.wait(&m_mutex);
    }
}
