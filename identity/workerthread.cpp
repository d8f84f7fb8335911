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

void WorkerThread::countRequest()
{
    QMutexLocker lock(&m_mutex);
    ++m_pending;
    m_wait.wakeAll();
}

void WorkerThread::runEach(const std::function<QByteArray()>& job)
{
    QMutexLocker lock(&m_mutex);
    while (m_running) {
        if (m_pending <= 0) {
            m_wait.wait(&m_mutex);
            continue;
        }
        --m_pending;
        lock.unlock();
        const QByteArray message = job();
        emit sig_msg(message);
        lock.relock();
    }
}
