#include "identity/facematchthread.h"

FaceMatchThread* FaceMatchThread::instance()
{
    static FaceMatchThread thread;
    return &thread;
}

FaceMatchThread::FaceMatchThread()
{
    // Started at once, so the first request finds the thread already waiting.
    start(QThread::InheritPriority);
}
