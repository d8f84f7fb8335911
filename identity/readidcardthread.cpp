#include "identity/readidcardthread.h"
#include "dispatch/threadowner.h"

ReadIdCardThread* ReadIdCardThread::instance()
{
    // On the heap, stopped and deleted by ThreadOwner when the application ends.
    static ReadIdCardThread* const thread = ThreadOwner::adopt(new ReadIdCardThread, &WorkerThread::destory);
    return thread;
}

ReadIdCardThread::ReadIdCardThread()
{
    // Started at once, so the first request finds the thread already waiting.
    start(QThread::InheritPriority);
}
