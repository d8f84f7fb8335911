#include "identity/facematchthread.h"
#include "devicelib/biometrics.h"
#include "dispatch/replies.h"
#include "dispatch/threadowner.h"

#include <QMutexLocker>

FaceMatchThread* FaceMatchThread::instance()
{
    // On the heap, stopped and deleted by ThreadOwner when the application ends.
    static FaceMatchThread* const thread = ThreadOwner::adopt(new FaceMatchThread, &WorkerThread::destory);
    return thread;
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

void FaceMatchThread::match(const QString& path1, const QString& path2)
{
    {
        QMutexLocker lock(&m_mutex);
        m_pairs.enqueue(qMakePair(path1, path2));
    }
    m_wait.wakeOne();
}

void FaceMatchThread::run()
{
    for (;;) {
        QPair<QString, QString> pair;
        {
            QMutexLocker lock(&m_mutex);
            if (!m_running)
                return;
            if (m_pairs.isEmpty())
                m_wait.wait(&m_mutex, 1000);
            if (!m_running)
                return;
            if (m_pairs.isEmpty())
                continue;
            while (!m_pairs.isEmpty())
                pair = m_pairs.dequeue();
        }
        const int score = ::lImageMatch(pair.first.toUtf8().constData(), pair.second.toUtf8().constData());
        emit sig_msg(reply::framedNumber(QStringLiteral("lImageMatch"), score).toUtf8());
    }
}
