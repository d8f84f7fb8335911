// LivingBodyDetectThread: the worker that runs a liveness detection off the dispatcher's
// thread and reports the result to every page on sig_msg. It idles in its wait between requests.
#pragma once

#include <QByteArray>
#include <QMutex>
#include <QThread>
#include <QWaitCondition>

class LivingBodyDetectThread : public QThread {
    Q_OBJECT
public:
    static LivingBodyDetectThread* instance();
    ~LivingBodyDetectThread() override;

    // Ends the loop at its next pass (the name is the one the callers use).
    void destory();

signals:
    void sig_msg(QByteArray);

protected:
    void run() override;

private:
    LivingBodyDetectThread();

    QMutex m_mutex;
    QWaitCondition m_wait;
    bool m_running = true;
};
