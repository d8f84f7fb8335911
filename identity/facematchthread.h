// FaceMatchThread: the worker that compares two face images off the dispatcher's thread
// and reports the score to every page on sig_msg. Only the newest pair is compared: pairs
// that pile up while a comparison runs are stale by the time it ends.
#pragma once

#include "identity/workerthread.h"

#include <QPair>
#include <QQueue>
#include <QString>

class FaceMatchThread : public WorkerThread {
    Q_OBJECT
public:
    static FaceMatchThread* instance();
    ~FaceMatchThread() override;

    // Queues one pair; the thread takes it at its next pass.
    void match(const QString& path1, const QString& path2);

protected:
    void run() override;

private:
    FaceMatchThread();
    QQueue<QPair<QString, QString>> m_pairs;
};
