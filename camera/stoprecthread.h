// StopRecThread: waits, off the dispatcher's thread, for a stopped recording to finish its file
// and then reports the final answer to every page on sig_msg. Started by each successful stop
// request; it ends after its single message.
#pragma once

#include <QByteArray>
#include <QThread>

#include <atomic>

class StopRecThread : public QThread {
    Q_OBJECT
public:
    static StopRecThread* instance();
    ~StopRecThread() override;

signals:
    void sig_msg(QByteArray);

protected:
    void run() override;

private:
    friend class StopRecThreadTestAccess;
    StopRecThread() = default;
    // Sleeps ms unless the application is ending; false when it is.
    bool pause(int ms);

    // One poll a second, and the pause that lets the file settle after the last one.
    static std::atomic<int> s_pollMs;
    static std::atomic<int> s_settleMs;
};
