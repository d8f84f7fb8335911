// ReadIdCardThread: the worker that reads an ID card off the dispatcher's thread and
// reports the card text to every page on sig_msg.
#pragma once

#include "identity/workerthread.h"

class ReadIdCardThread : public WorkerThread {
    Q_OBJECT
public:
    static ReadIdCardThread* instance();
    ~ReadIdCardThread() override;

    // Counts one request and wakes the worker: each request gets its own read and its own reply.
    void readCard();

protected:
    void run() override;

private:
    ReadIdCardThread();
};
