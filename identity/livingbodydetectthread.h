// LivingBodyDetectThread: the worker that runs the liveness check off the dispatcher's
// thread and reports its events to every page on sig_msg. Every request gets its own check
// and its own reply, in the order they came.
#pragma once

#include "identity/workerthread.h"

class LivingBodyDetectThread : public WorkerThread {
    Q_OBJECT
public:
    static LivingBodyDetectThread* instance();
    ~LivingBodyDetectThread() override;

    // Counts one more request and wakes the thread.
    void Detect();

protected:
    void run() override;

private:
    LivingBodyDetectThread();
};
