#include "identity/livingbodydetectthread.h"

LivingBodyDetectThread* LivingBodyDetectThread::instance()
{
    static LivingBodyDetectThread thread;
    return &thread;
}

LivingBodyDetectThread::LivingBodyDetectThread()
{
    // Started at once, so the first request finds the thread already waiting.
    start(QThread::InheritPriority);
}
