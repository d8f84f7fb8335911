#include "camera/stoprecthread.h"

StopRecThread* StopRecThread::instance()
{
    static StopRecThread thread;
    return &thread;
}

StopRecThread::~StopRecThread()
{
    // A wait for a finishing recording must not outlive the process's end.
    requestInterruption();
    wait();
}

void StopRecThread::run()
{
    // The wait for the recording to end, and its answer, arrive with the recording commands.
}
