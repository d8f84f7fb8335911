#include "camera/stoprecthread.h"
#include "devicelib/doccamera.h"
#include "dispatch/replies.h"
#include "dispatch/threadowner.h"

#include <QDebug>

#include <algorithm>

std::atomic<int> StopRecThread::s_pollMs{1000};
std::atomic<int> StopRecThread::s_settleMs{500};

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

bool StopRecThread::pause(int ms)
{
    // In short steps, so that the end of the application is not kept waiting for three minutes.
    for (int left = ms; left > 0 && !isInterruptionRequested(); left -= 50)
        msleep(static_cast<unsigned long>(std::min(left, 50)));
    return !isInterruptionRequested();
}

// Waits at most 180 polls (about three minutes) for the library to close the file, then tells
// every page whether it did.
void StopRecThread::run()
{
    int i = 0;
    bool recording = false;
    while ((recording = ::isRecording()) && i <= 179) {
        if (!pause(s_pollMs))
            return;
        qDebug() << __LINE__ << "run" << "stoprecthread" << "isRecording" << recording;
        ++i;
    }
    if (!pause(s_settleMs))
        return;
    const QString text = reply::framedBool(QStringLiteral("bStopRec"), !::isRecording());
    emit sig_msg(text.toLocal8Bit());
}
