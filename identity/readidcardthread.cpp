#include "identity/readidcardthread.h"

ReadIdCardThread* ReadIdCardThread::instance()
{
    static ReadIdCardThread thread;
    return &thread;
}

ReadIdCardThread::ReadIdCardThread()
{
    // Started at once, so the first request finds the thread already waiting.
    start(QThread::InheritPriority);
}
