// Face comparison and liveness commands. Three ways of answering: at once (the library call is
// quick or returns a boolean), through a worker (FaceMatchThread, LivingBodyDetectThread, whose
// sig_msg reaches every page), or later through a library callback (to the current page, or to
// every page through the capture thread's sig_msg).
#include "camera/captureimgthread.h"
#include "devicelib/biometrics.h"
#include "devicelib/doccamera.h"
#include "dispatch/args.h"
#include "dispatch/messagerun.h"
#include "dispatch/replies.h"
#include "identity/facematchthread.h"
#include "identity/livingbodydetectthread.h"

#include <QCoreApplication>
#include <QDebug>
#include <QMetaObject>

namespace {

// A library event for the page that sent the latest command. Library callbacks run on the
// library's threads and a socket is not thread-safe, so the text crosses to the main thread,
// where send_msg drops it if that page has left meanwhile.
void toCurrentClient(const QString& text)
{
    qDebug() << __LINE__ << "operator()" << "messagerun" << text.left(200);
    QCoreApplication* app = QCoreApplication::instance();
    if (!app)
        return;
    QMetaObject::invokeMethod(app, [text] { MessageRun::send_msg(text); }, Qt::QueuedConnection);
}

void imageMatchOnlineResult(int result, void*)
{
    toCurrentClient(reply::framedNumber(QStringLiteral("AfterbImageMatchOnline"), result));
}

void featureOnlineResult(const char* feature, void*)
{
    toCurrentClient(reply::framed(QStringLiteral("AfterbFaceFeatureGetOnline"), QString::fromUtf8(feature ? feature : "")));
}

void livingBodyOnlineResult(int result, void*)
{
    toCurrentClient(reply::framedBool(QStringLiteral("AfterbLivingBodyDetectOnline"), result != 0));
}

// bFaceFeatureGet's feature function: the library calls it before bFaceFeatureGet returns, with
// the caller's buffer as context.
void keepFeature(const char* feature, void* context)
{
    if (context)
        *static_cast<QByteArray*>(context) = QByteArray(feature ? feature : "");
}

void livingBodyData(const char* data, int length, int kind)
{
    if (!data || length < 0)
        return;
    const QByteArray bytes(data, length);
    if (kind == 0) {
        emit CaptureImgThread::instance()->sig_msg(bytes);
    } else if (kind == 1) {
        const QByteArray text = "BeginAfterbLivingBodyDetectEvent2" + bytes + "EndAfterbLivingBodyDetectEvent2";
        qDebug() << "AutoLivingBody result" << text.size();
        emit CaptureImgThread::instance()->sig_msg(text);
    }
}

void livingBodyClosed()
{
    emit CaptureImgThread::instance()->sig_msg(QByteArrayLiteral("BeginCloseLivingBodytrueEndCloseLivingBody"));
}

void livingBodyPageResult(int result)
{
    CaptureImgThread::instance()->setPause(false);
    toCurrentClient(reply::framedBool(QStringLiteral("ShowLivingBodyPage"), result == 1));
}

}  // namespace

// lImageMatch(path1,path2): the score comes later from FaceMatchThread, to every page.
QString MessageRun::lImageMatch_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 2)
        return reply::send(reply::framedNumber(name, 0));
    FaceMatchThread::instance()->match(a.text(0), a.text(1));
    return QString();
}

// lFaceMatch(path): the split always yields a part, so an empty text is passed on as "".
QString MessageRun::lFaceMatch_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 1)
        return reply::send(reply::framedNumber(name, -99));
    return reply::send(reply::framedNumber(name, ::lFaceMatch(a.utf8(0).constData())));
}

QString MessageRun::lImageIdMatch_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 2)
        return reply::send(reply::framedNumber(name, -99));
    return reply::send(reply::framedNumber(name, ::lImageIdMatch(a.utf8(0).constData(), a.utf8(1).constData())));
}

QString MessageRun::bImageMatch_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 2)
        return reply::send(reply::framedFalse(name));
    return reply::send(reply::framedBool(name, ::bImageMatch(a.utf8(0).constData(), a.utf8(1).constData())));
}

// lFaceFeatureMatch(feature1,feature2): base64 features; a text of 20 characters or fewer, or a
// decoded feature of 100 bytes or fewer, is not a feature. A negative score goes out as 0.
QString MessageRun::lFaceFeatureMatch_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    qDebug() << "lFaceFeatureMatch" << args.split(',').join(", ") << a.text(0).size() << a.text(1).size();
    long long score = 0;
    if (a.count() >= 2 && a.text(0).size() > 20 && a.text(1).size() > 20) {
        // Each QByteArray keeps a terminating zero after its bytes; the library relies on it.
        const QByteArray f1 = QByteArray::fromBase64(a.text(0).toLatin1());
        const QByteArray f2 = QByteArray::fromBase64(a.text(1).toLatin1());
        qDebug() << "lFaceFeatureMatch:" << f1.size() << f2.size();
        if (f1.size() > 100 && f2.size() > 100)
            score = std::max(0LL, ::lFaceFeatureMatch(f1.constData(), f2.constData()));
    }
    return reply::send(reply::framedNumber(name, score));
}

QString MessageRun::bFaceFeatureGet_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 3)
        return reply::send(reply::framedEmpty(name));
    QByteArray feature;
    const bool ok = ::bFaceFeatureGet(a.toFlag(0), a.utf8(1).constData(), a.utf8(2).constData(), keepFeature, &feature);
    if (!ok)
        return reply::send(reply::framedEmpty(name));
    return reply::send(reply::framed(name, QString::fromUtf8(feature)));
}

// bImageMatchOnline(photo,seconds,threshold,camera): the library takes camera 4 itself.
QString MessageRun::bImageMatchOnline_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 4)
        return reply::send(reply::framedFalse(name));
    ::bStopPlay4();
    return reply::send(reply::framedBool(
        name, ::bImageMatchOnline(a.utf8(0).constData(), a.toInt(1), a.toInt(2), a.toInt(3), imageMatchOnlineResult)));
}

QString MessageRun::bFaceFeatureGetOnline_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 2)
        return reply::send(reply::framedFalse(name));
    return reply::send(reply::framedBool(name, ::bFaceFeatureGetOnline(a.toInt(0), a.toInt(1), featureOnlineResult)));
}

// bLivingBodyDetect(): the answer comes later from LivingBodyDetectThread, to every page.
QString MessageRun::bLivingBodyDetect_callback(QString, QString, MessageRun*)
{
    LivingBodyDetectThread::instance()->Detect();
    return QString();
}

QString MessageRun::bLivingBodyDetectOnline_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 2)
        return reply::send(reply::framedFalse(name));
    return reply::send(
        reply::framedBool(name, ::bLivingBodyDetectOnline(a.toInt(0), a.toInt(1), livingBodyOnlineResult)));
}

// AutoLivingBody(): the library streams the face camera itself, so the preview stops quietly.
QString MessageRun::AutoLivingBody_callback(QString name, QString, MessageRun*)
{
    CaptureImgThread::instance()->silenceClose();
    return reply::send(reply::framedBool(name, ::AutoLivingBody(livingBodyData)));
}

QString MessageRun::CloseLivingBody_callback(QString, QString, MessageRun*)
{
    ::CloseLivingBody(livingBodyClosed);
    return QString();
}

// ShowLivingBodyPage(): the liveness window uses the camera; the preview waits until it closes.
QString MessageRun::ShowLivingBodyPage_callback(QString, QString, MessageRun*)
{
    CaptureImgThread::instance()->setPause(true);
    ::DemoUIShow(0, livingBodyPageResult);
    return QString();
}
