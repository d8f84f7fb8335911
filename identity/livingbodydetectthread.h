// LivingBodyDetectThread: the worker that runs the liveness check off the dispatcher's
// thread and reports its events to every page on sig_msg.
#pragma once

#include "identity/workerthread.h"

class LivingBodyDetectThread : public WorkerThread {
    Q_OBJECT
public:
    static LivingBodyDetectThread* instance();

private:
    LivingBodyDetectThread();
};
