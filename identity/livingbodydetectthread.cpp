#include "identity/livingbodydetectthread.h"
#include "devicelib/biometrics.h"
#include "dispatch/replies.h"
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

LivingBodyDetectThread::~LivingBodyDetectThread()
{
    destory();
    wait();
}

void LivingBodyDetectThread::Detect()
{
    countRequest();
}

void LivingBodyDetectThread::run()
{
    runEach([] { return reply::framedBool(QStringLiteral("bLivingBodyDetect"), ::bLivingBodyDetect()).toLocal8Bit(); });
}
