// Preview and video commands: open and close the live preview, size and zoom the pushed frames,
// switch the push on and off. Starts and stops only queue work on the capture thread, which
// answers the page itself when the camera has been opened or closed.
#include "camera/captureimgthread.h"
#include "devicelib/doccamera.h"
#include "dispatch/args.h"
#include "dispatch/messagerun.h"
#include "dispatch/replies.h"

#include <QDebug>

namespace {

CaptureImgThread* capture()
{
    return CaptureImgThread::instance();
}

// Queues a camera start; the reply comes later from the capture thread.
QString queueStart(int code)
{
    capture()->openCamera(code);
    return QStringLiteral(" ");
}

}  // namespace

QString MessageRun::bStartPlay_callback(QString, QString, MessageRun*)
{
    qDebug() << "bStartPlay_callback";
    return queueStart(1);
}

QString MessageRun::bStartPlay2_callback(QString, QString, MessageRun*)
{
    return queueStart(2);
}

QString MessageRun::bStartPlay3_callback(QString, QString, MessageRun*)
{
    return queueStart(3);
}

QString MessageRun::bStartPlay5_callback(QString, QString, MessageRun*)
{
    return queueStart(5);
}

QString MessageRun::bStartPlay6_callback(QString, QString, MessageRun*)
{
    return queueStart(6);
}

QString MessageRun::bStartPlay8_callback(QString, QString, MessageRun*)
{
    return queueStart(8);
}

QString MessageRun::bStartPlay9_callback(QString, QString, MessageRun*)
{
    return queueStart(9);
}

// The dual camera.
QString MessageRun::bStartPlayOpen_callback(QString, QString, MessageRun*)
{
    return queueStart(25);
}

// bStartPlayRotate(rotation): the rotation is set at once, the start is queued.
QString MessageRun::bStartPlayRotate_callback(QString, QString args, MessageRun*)
{
    ::vSetRotate(Args::whole(args).toShort(0));
    return queueStart(11);
}

QString MessageRun::bStopPlay_callback(QString, QString, MessageRun*)
{
    qDebug() << "bStopPlay_callback";
    // A recording needs the camera: end it before the camera goes.
    ::bStopRec();
    capture()->closeCamera();
    return QString();
}

// The fourth video source is not the capture thread's: it is driven directly.
QString MessageRun::bStartPlay4_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framedBool(name, ::bStartPlay4()));
}

QString MessageRun::bStopPlay4_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framedBool(name, ::bStopPlay4()));
}

// bAVPreview(first,second)
QString MessageRun::bAVPreview_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 2) {
        qDebug() << __LINE__ << __FUNCTION__ << "messagerun" << "needs two numbers:" << args;
        return reply::send(reply::framedFalse(name));
    }
    const bool ok = ::bAVPreview(a.toLongLong(0), a.toLongLong(1));
    const QString text = reply::send(reply::framedBool(name, ok));
    // The audio/video preview takes the camera over; bring the main preview back afterwards.
    if (ok)
        capture()->openCamera(1);
    return text;
}

// vSetPreviewEnable(flag)
QString MessageRun::vSetPreviewEnable_callback(QString name, QString args, MessageRun*)
{
    capture()->vSetPreviewEnable(Args::whole(args).toFlag(0));
    return reply::send(reply::framedTrue(name));
}

QString MessageRun::bGetPreviewEnable_callback(QString name, QString, MessageRun*)
{
    qDebug() << __LINE__ << __FUNCTION__ << "messagerun";
    return reply::send(reply::framedBool(name, capture()->bGetPreviewEnable()));
}

// vSetPreViewSize(width,height)
QString MessageRun::vSetPreViewSize_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() >= 2)
        capture()->vSetPreViewSize(a.toInt(0), a.toInt(1));
    else
        qDebug() << __LINE__ << __FUNCTION__ << "messagerun" << "needs width and height:" << args;
    return reply::send(reply::framedEmpty(name));
}

QString MessageRun::vZoomIn_callback(QString name, QString, MessageRun*)
{
    capture()->vZoomIn();
    return reply::send(reply::framedEmpty(name));
}

QString MessageRun::vZoomOut_callback(QString name, QString, MessageRun*)
{
    capture()->vZoomOut();
    return reply::send(reply::framedEmpty(name));
}

QString MessageRun::vZoomOriginal_callback(QString name, QString, MessageRun*)
{
    capture()->vZoomOriginal();
    return reply::send(reply::framedEmpty(name));
}

// vSetZoomFactor(percent)
QString MessageRun::vSetZoomFactor_callback(QString name, QString args, MessageRun*)
{
    capture()->vSetZoomFactor(Args::whole(args).toInt(0));
    return reply::send(reply::framedEmpty(name));
}

// vSetImageDispFlag(flag)
QString MessageRun::vSetImageDispFlag_callback(QString name, QString args, MessageRun*)
{
    ::vSetImageDispFlag(Args::whole(args).toFlag(0));
    return reply::send(reply::framedEmpty(name));
}

// Known to pages, not supported by the camera.
QString MessageRun::displayVideoPara_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framedFalse(name));
}
