// FaceMatchThread: the worker that compares two face images off the dispatcher's thread
// and reports the score to every page on sig_msg.
#pragma once

#include "identity/workerthread.h"

class FaceMatchThread : public WorkerThread {
    Q_OBJECT
public:
    static FaceMatchThread* instance();

private:
    FaceMatchThread();
};
