// Camera settings commands: working mode, resolution, rotation, flip, exposure, brightness,
// contrast, focus, DPI, crop area, image quality, book-scanner mode and the capture button.
// Each reads its arguments, calls the camera library's function of the same name and answers.
#include "devicelib/doccamera.h"
#include "dispatch/args.h"
#include "dispatch/messagerun.h"
#include "dispatch/replies.h"

#include <QCoreApplication>
#include <QDebug>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QWebSocket>

#include <utility>
#include <vector>

namespace {

// Setters answer true whatever the camera made of the value: pages read the value back.
QString ack(const QString& name)
{
    return reply::send(reply::framedTrue(name));
}

// The camera's resolutions as pages expect them: [{"height":h,"width":w},...].
QString resolutionsJson(int camera)
{
    std::vector<std::pair<double, double>> sizes;
    ::getResolutionIndex(camera, sizes);
    QJsonArray list;
    for (const auto& size : sizes)
        list.append(QJsonObject{{QStringLiteral("width"), size.first}, {QStringLiteral("height"), size.second}});
    return QString::fromUtf8(QJsonDocument(list).toJson(QJsonDocument::Compact));
}

// The capture button fires on the library's thread; the page's socket lives on the main thread,
// so the answer is handed over there and goes to whichever page is current at that moment.
void capturePinListener(int state, int, int, unsigned int, int, void*)
{
    const QString text = reply::framedBool(QStringLiteral("vSetCapturePin"), state == 1);
    QCoreApplication* app = QCoreApplication::instance();
    if (!app)
        return;
    QMetaObject::invokeMethod(
        app,
        [text] { MessageRun::send_msg(text); },
        Qt::QueuedConnection);
}

}  // namespace

// bSetMode(mode)
QString MessageRun::bSetMode_callback(QString name, QString args, MessageRun*)
{
    ::bSetMode(Args::whole(args).toInt(0));
    return ack(name);
}

// vSetCamaraMode(mode)
QString MessageRun::vSetCamaraMode_callback(QString name, QString args, MessageRun*)
{
    ::vSetCamaraMode(Args::whole(args).toShort(0));
    return ack(name);
}

// vSetResolution(index): the main camera.
QString MessageRun::vSetResolution_callback(QString name, QString args, MessageRun*)
{
    ::vSetResolutionEx(1, Args::whole(args).toShort(0));
    return ack(name);
}

// vSetResolutionEx(camera,index); a lone number is both camera and index.
QString MessageRun::vSetResolutionEx_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::splitFirst(args);
    ::vSetResolutionEx(a.toInt(0), a.toInt(1));
    return ack(name);
}

// setResolutionXY(width,height): the main camera.
QString MessageRun::setResolutionXY_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() == 2)
        ::setResolution(1, a.toInt(0), a.toInt(1));
    else
        qDebug() << __LINE__ << __FUNCTION__ << "messagerun" << "needs exactly width and height:" << args;
    return ack(name);
}

// setResolutionExXY(camera,width,height)
QString MessageRun::setResolutionExXY_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() == 3)
        ::setResolution(a.toInt(0), a.toInt(1), a.toInt(2));
    else
        qDebug() << __LINE__ << __FUNCTION__ << "messagerun" << "needs exactly camera, width and height:" << args;
    return ack(name);
}

// iGetResolutionX(camera)
QString MessageRun::iGetResolutionX_callback(QString name, QString args, MessageRun*)
{
    return reply::send(reply::framedNumber(name, ::iGetResolutionX(Args::whole(args).toInt(0))));
}

// iGetResolutionY(camera)
QString MessageRun::iGetResolutionY_callback(QString name, QString args, MessageRun*)
{
    qDebug() << __LINE__ << __FUNCTION__ << "messagerun";
    return reply::send(reply::framedNumber(name, ::iGetResolutionY(Args::whole(args).toInt(0))));
}

// getAllResolutions(camera): cameras are numbered from 1.
QString MessageRun::getAllResolutions_callback(QString name, QString args, MessageRun*)
{
    return reply::send(reply::framed(name, resolutionsJson(qMax(1, Args::whole(args).toInt(0)))));
}

// getAllResolutionsEx(camera): the camera number as given, 0 included.
QString MessageRun::getAllResolutionsEx_callback(QString name, QString args, MessageRun*)
{
    return reply::send(reply::framed(name, resolutionsJson(Args::whole(args).toInt(0))));
}

// vSetRotate(angle,...)
QString MessageRun::vSetRotate_callback(QString name, QString args, MessageRun*)
{
    ::vSetRotate(Args::split(args).toShort(0));
    return ack(name);
}

QString MessageRun::iGetRotate_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framedNumber(name, ::iGetRotate()));
}

// vSetFlip(mode,...)
QString MessageRun::vSetFlip_callback(QString name, QString args, MessageRun*)
{
    ::vSetFlip(Args::split(args).toShort(0));
    return ack(name);
}

QString MessageRun::iGetFlip_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framedNumber(name, ::iGetFlip()));
}

// vSetExposure(value)
QString MessageRun::vSetExposure_callback(QString name, QString args, MessageRun*)
{
    return reply::send(reply::framedBool(name, ::vSetExposure(Args::whole(args).toInt(0))));
}

// vSetBrightness(value)
QString MessageRun::vSetBrightness_callback(QString name, QString args, MessageRun*)
{
    return reply::send(reply::framedBool(name, ::vSetBrightness(Args::whole(args).toInt(0))));
}

// vSetContrast(value)
QString MessageRun::vSetContrast_callback(QString name, QString args, MessageRun*)
{
    return reply::send(reply::framedBool(name, ::vSetContrast(Args::whole(args).toInt(0))));
}

// The focus runs on its own; pages only learn that it was asked for.
QString MessageRun::AutoFocus_callback(QString name, QString, MessageRun*)
{
    ::AutoFocus();
    return reply::send(reply::framed(name, QStringLiteral("true")));
}

// vSetDPI(x,y)
QString MessageRun::vSetDPI_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 2) {
        qDebug() << __LINE__ << __FUNCTION__ << "messagerun" << "needs x and y DPI:" << args;
        return reply::send(reply::framedFalse(name));
    }
    return reply::send(reply::framedBool(name, ::vSetDPI(a.toLongLong(0), a.toLongLong(1))));
}

QString MessageRun::vGetDPI_callback(QString name, QString, MessageRun*)
{
    int x = 0;
    int y = 0;
    ::vGetDPI(&x, &y);
    return reply::send(reply::framedPair(name, x, y));
}

// bSetImageArea(x1,y1,x2,y2)
QString MessageRun::bSetImageArea_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 4) {
        qDebug() << __LINE__ << __FUNCTION__ << "messagerun" << "needs x1, y1, x2 and y2:" << args;
        return reply::send(reply::framedFalse(name));
    }
    return reply::send(reply::framedBool(name, ::bSetImageArea(a.toInt(0), a.toInt(1), a.toInt(2), a.toInt(3))));
}

QString MessageRun::lGetImageAreaX1_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framedNumber(name, ::lGetImageAreaX1()));
}

QString MessageRun::lGetImageAreaY1_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framedNumber(name, ::lGetImageAreaY1()));
}

QString MessageRun::lGetImageAreaX2_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framedNumber(name, ::lGetImageAreaX2()));
}

QString MessageRun::lGetImageAreaY2_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framedNumber(name, ::lGetImageAreaY2()));
}

// vSetImageQuality(quality)
QString MessageRun::vSetImageQuality_callback(QString name, QString args, MessageRun*)
{
    return reply::send(reply::framedBool(name, ::vSetImageQuality(Args::whole(args).toInt(0))));
}

QString MessageRun::sGetImageQuality_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framedNumber(name, ::sGetImageQuality()));
}

// bSetBookScannerMode(mode)
QString MessageRun::bSetBookScannerMode_callback(QString name, QString args, MessageRun*)
{
    return reply::send(reply::framedBool(name, ::bSetBookScannerMode(Args::whole(args).toInt(0))));
}

QString MessageRun::igetBookScannerMode_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framedNumber(name, ::igetBookScannerMode()));
}

// The answer comes each time the button is pressed, from the listener.
QString MessageRun::vSetCapturePin_callback(QString, QString, MessageRun*)
{
    ::vSetCapturePin(&capturePinListener);
    return QString();
}

// Settings pages still send that this camera does not have: accepted, nothing to do.
namespace {
QString unsupportedSetting(const QString& name)
{
    return ack(name);
}
}  // namespace

QString MessageRun::vSetFocus_callback(QString name, QString, MessageRun*)
{
    return unsupportedSetting(name);
}

QString MessageRun::vSetVideoCompressType_callback(QString name, QString, MessageRun*)
{
    return unsupportedSetting(name);
}

QString MessageRun::vSetDelHBFlag_callback(QString name, QString, MessageRun*)
{
    return unsupportedSetting(name);
}

QString MessageRun::vSetSkewFlag_callback(QString name, QString, MessageRun*)
{
    return unsupportedSetting(name);
}
