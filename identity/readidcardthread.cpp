#include "identity/readidcardthread.h"
#include "devicelib/cardreader.h"
#include "dispatch/replies.h"
#include "dispatch/threadowner.h"

#include <QMutexLocker>

#include <cstdlib>

ReadIdCardThread* ReadIdCardThread::instance()
{
    // On the heap, stopped and deleted by ThreadOwner when the application ends.
    static ReadIdCardThread* const thread = ThreadOwner::adopt(new ReadIdCardThread, &WorkerThread::destory);
    return thread;
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

void ReadIdCardThread::readCard()
{
    QMutexLocker lock(&m_mutex);
    ++m_pending;
    m_wait.wakeAll();
}

void ReadIdCardThread::run()
{
    QMutexLocker lock(&m_mutex);
    while (m_running) {
        // Sleep only while nothing is counted, so a request that came in during a read is
        // served right after it rather than left for the next one.
        if (m_pending <= 0) {
            m_wait.wait(&m_mutex);
            continue;
        }
        --m_pending;
        // The lock is not held across the read: the dispatcher can count more requests
        // meanwhile without waiting for the card.
        lock.unlock();
        char* text = ::sIDCardReader();
        const QByteArray message =
            reply::framed(QStringLiteral("sIDCardReader"), text ? QString::fromLatin1(text) : QString()).toLocal8Bit();
        std::free(text);
        emit sig_msg(message);
        lock.relock();
    }
}
