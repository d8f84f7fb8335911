// Fingerprint commands: capture (the result comes later through the library's callback) and
// matching against stored templates; two image-saving commands the sensor family keeps as
// always "false".
#include "devicelib/biometrics.h"
#include "dispatch/args.h"
#include "dispatch/messagerun.h"
#include "dispatch/replies.h"

#include <QByteArray>
#include <QDebug>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

// Runs on the library's thread; the reply crosses to the dispatcher given as context.
void fingerCaptured(const QByteArray& image, const QByteArray& feature, int score, const char* msg, void* context)
{
    QJsonObject o;
    o.insert(QStringLiteral("image"), score >= 0 ? QString::fromUtf8(image) : QString());
    o.insert(QStringLiteral("feature"), score >= 0 ? QString::fromUtf8(feature) : QString());
    o.insert(QStringLiteral("score"), score);
    o.insert(QStringLiteral("msg"), QString::fromUtf8(msg ? msg : ""));
    const QString text = reply::framed(QStringLiteral("fingerCaptureRawData"),
                                       QString::fromUtf8(QJsonDocument(o).toJson(QJsonDocument::Compact)));
    if (context)
        static_cast<MessageRun*>(context)->sendmsg_thread(text);
}

}  // namespace

// fingerCaptureRawData(seconds)
QString MessageRun::fingerCaptureRawData_callback(QString, QString args, MessageRun* self)
{
    ::fingerCaptureRawData(Args::whole(args).toInt(0) * 1000, fingerCaptured, self);
    return QString();
}

// lFingerMatch(mode,probeHex,count,storedHex...)
QString MessageRun::lFingerMatch_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 4)
        return reply::send(reply::framedNumber(name, 0));
    const QByteArray probe = QByteArray::fromHex(a.text(1).toLatin1());
    QByteArray stored;
    for (int i = 3; i < a.count(); ++i)
        stored += QByteArray::fromHex(a.text(i).toLatin1());
    qDebug() << __LINE__ << "lFingerMatch_callback" << probe.size() << a.text(2) << stored.size();
    // Both arrays keep a terminating zero after their bytes, which is where the library stops.
    return reply::send(reply::framedNumber(name, ::lFingerMatch(a.toInt(0), probe.constData(), a.toInt(2), stored.constData())));
}

QString MessageRun::bSaveZAZFPBMP_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framedFalse(name));
}

QString MessageRun::bSaveZAZFPBMPBase64_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framedFalse(name));
}
