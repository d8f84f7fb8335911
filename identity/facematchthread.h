// FaceMatchThread: the worker that compares two face images off the dispatcher's thread
// and reports the score to every page on sig_msg. It idles in its wait between requests.
#pragma once

#include <QByteArray>
#include <QMutex>
#include <QThread>
#include <QWaitCondition>

class FaceMatchThread : public QThread {
    Q_OBJECT
public:
    static FaceMatchThread* instance();
    ~FaceMatchThread() override;

    // Ends the loop at its next pass (the name is the one the callers use).
    void destory();

signals:
    void sig_msg(QByteArray);

protected:
    void run() override;

private:
    FaceMatchThread();

    QMutex m_mutex;
    QWaitCondition m_wait;
    bool m_running = true;
};
