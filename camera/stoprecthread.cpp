#include "camera/stoprecthread.h"
#include "dispatch/threadowner.h"

StopRecThread* StopRecThread::instance()
{
    // On the heap, stopped and deleted by ThreadOwner when the application ends.
    static StopRecThread* const thread = ThreadOwner::adopt(new StopRecThread, &QThread::requestInterruption);
    return thread;
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
