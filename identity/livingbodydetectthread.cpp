#include "identity/livingbodydetectthread.h"
#include "dispatch/threadowner.h"

LivingBodyDetectThread* LivingBodyDetectThread::instance()
{
    // On the heap, stopped and deleted by ThreadOwner when the application ends.
    static LivingBodyDetectThread* const thread = ThreadOwner::adopt(new LivingBodyDetectThread, &WorkerThread::destory);
    return thread;
}

LivingBodyDetectThread::LivingBodyDetectThread()
{
    // Started at once, so the first request finds the thread already waiting.
    start(QThread::InheritPriority);
}
