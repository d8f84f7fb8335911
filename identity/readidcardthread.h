// ReadIdCardThread: the worker that reads an ID card off the dispatcher's thread and
// reports the card text to every page on sig_msg.
#pragma once

#include "identity/workerthread.h"

class ReadIdCardThread : public WorkerThread {
    Q_OBJECT
public:
    static ReadIdCardThread* instance();

private:
    ReadIdCardThread();
};
