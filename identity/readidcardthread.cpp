#include "identity/readidcardthread.h"
#include "devicelib/cardreader.h"
#include "dispatch/replies.h"
#include "dispatch/threadowner.h"

#include <cstdlib>

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

ReadIdCardThread::~ReadIdCardThread()
{
    destory();
    wait();
}

void ReadIdCardThread::readCard()
{
    countRequest();
}

void ReadIdCardThread::run()
{
    runEach([] {
        char* text = ::sIDCardReader();
        const QByteArray message =
            reply::framed(QStringLiteral("sIDCardReader"), text ? QString::fromLatin1(text) : QString()).toLocal8Bit();
        std::free(text);
        return message;
    });
}
