#include "identity/facematchthread.h"
#include "dispatch/threadowner.h"

FaceMatchThread* FaceMatchThread::instance()
{
    // On the heap, stopped and deleted by ThreadOwner when the application ends.
    static FaceMatchThread* const thread = ThreadOwner::adopt(new FaceMatchThread, &WorkerThread::destory);
    return thread;
}

FaceMatchThread::FaceMatchThread()
{
    // Started at once, so the first request finds the thread already waiting.
    start(QThread::InheritPriority);
}
