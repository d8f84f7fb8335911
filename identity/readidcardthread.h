// ReadIdCardThread: the worker that reads an ID card off the dispatcher's thread and
// reports the card text to every page on sig_msg. It idles in its wait between requests.
#pragma once

#include <QByteArray>
#include <QMutex>
#include <QThread>
#include <QWaitCondition>

class ReadIdCardThread : public QThread {
    Q_OBJECT
public:
    static ReadIdCardThread* instance();
    ~ReadIdCardThread() override;

    // Ends the loop at its next pass (the name is the one the callers use).
    void destory();

signals:
    void sig_msg(QByteArray);

protected:
    void run() override;

private:
    ReadIdCardThread();

    QMutex m_mutex;
    QWaitCondition m_wait;
    bool m_running = true;
};
