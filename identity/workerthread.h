// WorkerThread: what the identity workers share. Each is a thread that starts when it is first
// reached, waits on its condition for a job, and reports on sig_msg. ThreadOwner stops, joins
// and deletes it when the application ends, before the device library's statics go.
#pragma once

#include <QByteArray>
#include <QMutex>
#include <QThread>
#include <QWaitCondition>

#include <functional>

class WorkerThread : public QThread {
    Q_OBJECT
public:
    ~WorkerThread() override;

    // Ends the loop at its next pass (the name is the one the callers use).
    void destory();

signals:
    void sig_msg(QByteArray);

protected:
    WorkerThread();
    // Subclasses call start() at the end of their constructor. One that overrides run() must
    // call destory() and wait() in its own destructor, before its members go.
    void run() override;

    // For a worker that answers every request on its own, in order: countRequest() counts one
    // and wakes the thread; runEach() is its loop. It waits only while nothing is counted and
    // runs job outside the lock, so a request that comes during a job is served right after it
    // and the dispatcher never waits for a device. Each job's reply goes out on sig_msg.
    void countRequest();
    void runEach(const std::function<QByteArray()>& job);

    QMutex m_mutex;
    QWaitCondition m_wait;
    bool m_running = true;
    int m_pending = 0;   // requests counted and not served yet; guarded by m_mutex
};
