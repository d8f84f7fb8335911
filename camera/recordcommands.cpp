// Recording commands: start, pause, resume, query and stop a recording of the camera, and set the
// frame size of the next one. A successful stop is answered later, by StopRecThread, once the
// library has finished the file.
#include "camera/stoprecthread.h"
#include "devicelib/doccamera.h"
#include "dispatch/args.h"
#include "dispatch/messagerun.h"
#include "dispatch/replies.h"
#include "files/pathpolicy.h"

#include <QDebug>

// bStartRec(path): the whole argument text is the path, commas and all. A path outside the
// file roots is refused before the library is asked.
QString MessageRun::bStartRec_callback(QString name, QString args, MessageRun*)
{
    if (!pathpolicy::allowed(args, name))
        return reply::send(reply::framedFalse(name));
    return reply::send(reply::framedBool(name, ::bStartRec(Args::whole(args).utf8(0).constData())));
}

QString MessageRun::bStartRecMp3_callback(QString name, QString args, MessageRun*)
{
    if (!pathpolicy::allowed(args, name))
        return reply::send(reply::framedFalse(name));
    return reply::send(reply::framedBool(name, ::bStartRecMp3(Args::whole(args).utf8(0).constData())));
}

// The page hears nothing now when the stop is accepted: the answer follows when the file is done.
QString MessageRun::bStopRec_callback(QString name, QString, MessageRun*)
{
    if (!::bStopRec())
        return reply::send(reply::framedFalse(name));
    StopRecThread* waiter = StopRecThread::instance();
    if (!waiter->isRunning())
        waiter->start();
    else
        qDebug() << __LINE__ << "bStopRec_callback" << "recordcommands" << "a wait for the recording's end already runs";
    return QStringLiteral(" ");
}

QString MessageRun::bPauseRec_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framedBool(name, ::bPauseRec()));
}

QString MessageRun::bResumeRec_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framedBool(name, ::bResumeRec()));
}

QString MessageRun::isRecording_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framedBool(name, ::isRecording()));
}

// vSetRecSize(width,height): a single number changes nothing; the answer carries no value.
QString MessageRun::vSetRecSize_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() >= 2)
        ::vSetRecSize(a.toLong(0), a.toLong(1));
    else
        qDebug() << __LINE__ << "vSetRecSize_callback" << "recordcommands" << "needs a width and a height:" << args;
    return reply::send(reply::framedEmpty(name));
}
