// ID card, social-security, bank and IC card commands, the reader and its SAM, voice prompts.
// The card texts are the library's: they are forwarded as they are, framed; only
// WReadSFZCardBas, WReadCardBasEx and GetBankCardInfo look into them to pick a reader or retry.
#include "devicelib/cardreader.h"
#include "dispatch/args.h"
#include "dispatch/messagerun.h"
#include "dispatch/replies.h"
#include "identity/readidcardthread.h"

#include <QDebug>
#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>

#include <cstdlib>

namespace {

using reply::framed;
using reply::send;

// A heap text of the library, taken one character per byte, then released.
QString takeLatin1(char* text)
{
    const QString s = text ? QString::fromLatin1(text) : QString();
    std::free(text);
    return s;
}

// The type argument of the card reads: a number, or the default when the text is empty.
int typeOr(const QString& args, int fallback)
{
    return args.isEmpty() ? fallback : Args::whole(args).toInt(0);
}

using QStringRead = void (*)(QString*);

QString framedRead(const QString& name, QStringRead read)
{
    QString out;
    read(&out);
    return send(framed(name, out));
}

void pause5ms() { QThread::usleep(5000); }

}  // namespace

QString MessageRun::sIDCardReader_callback(QString, QString, MessageRun*)
{
    // The worker reads and reports to every page; nothing goes back at once.
    ReadIdCardThread::instance()->readCard();
    return QStringLiteral(" ");
}

QString MessageRun::sIDCardReaderVX_callback(QString name, QString, MessageRun*)
{
    return framedRead(name, &::ReadSFZCardVX);
}

QString MessageRun::readIDMsg_callback(QString name, QString, MessageRun*)
{
    return framedRead(name, &::readIDMsg_qt);
}

QString MessageRun::readIDMsgVX_callback(QString name, QString, MessageRun*)
{
    return framedRead(name, &::readIDMsgVX_qt);
}

QString MessageRun::iReadCardBas_noPasam_callback(QString name, QString args, MessageRun*)
{
    QString out;
    ::iReadCardBas_noPasam_qt(typeOr(args, 1), &out);
    return send(framed(name, out));
}

QString MessageRun::iReadCardBas_noPasamVX_callback(QString name, QString args, MessageRun*)
{
    // Accepted and answered empty: the type is read and not used.
    qDebug() << __LINE__ << __FUNCTION__ << "messagerun" << Args::whole(args).toInt(0);
    return send(reply::framedEmpty(name));
}

QString MessageRun::iReadCardBasEx_callback(QString name, QString args, MessageRun*)
{
    QString out;
    ::ReadCardBasExVX(&out, typeOr(args, 3));
    return send(framed(name, out));
}

QString MessageRun::WReadCardBasEx_callback(QString name, QString args, MessageRun*)
{
    QString out;
    if (::GetDeviceStatus_dc()) {
        // The module wants a moment after its status query before it reads.
        QThread::usleep(1000000);
        const bool ok = ::ReadSBKCardBas_DK(typeOr(args, 1), &out);
        return send(framed(name, reply::lRet(ok, out)));
    }
    ::ReadCardBasExVX(&out, 3);
    return send(framed(name, out));
}

QString MessageRun::WReadSFZCardBas_callback(QString name, QString, MessageRun*)
{
    pause5ms();
    QString first;
    ::ReadSFZCardBas_VX(&first);
    int code = 100;
    QJsonParseError error;
    QJsonDocument doc = QJsonDocument::fromJson(first.toUtf8(), &error);
    if (error.error == QJsonParseError::NoError && doc.isObject() && doc.object().contains("code")
        && doc.object().value("code").isString())
        code = doc.object().value("code").toString().toInt();
    qDebug() << __LINE__ << __FUNCTION__ << "messagerun" << code;
    if (code == 0)
        return send(framed(name, first));

    qDebug() << __LINE__ << __FUNCTION__ << "messagerun" << first;
    pause5ms();
    char* raw = ::ReadCard(nullptr, nullptr);
    const QString second = raw ? QString::fromUtf8(raw) : QString();
    std::free(raw);
    int result = 0;
    doc = QJsonDocument::fromJson(second.toUtf8(), &error);
    if (error.error == QJsonParseError::NoError && doc.isObject() && doc.object().value("result").isDouble())
        result = doc.object().value("result").toInt();
    if (result != 0)
        return send(framed(name, second));

    qDebug() << __LINE__ << __FUNCTION__ << "messagerun" << second;
    pause5ms();
    return framedRead(name, &::ReadSFZCardBas_DK);
}

QString MessageRun::ReadCard_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    const QByteArray param = a.utf8(1);
    char* raw = ::ReadCard(nullptr, a.count() < 2 ? nullptr : param.constData());
    const QString text = raw ? QString::fromUtf8(raw) : QString();
    std::free(raw);
    return send(framed(name, text));
}

QString MessageRun::GetBankCardInfo_callback(QString name, QString args, MessageRun*)
{
    const int type = typeOr(args, 2);
    QString out;
    bool ok = ::GetBankCardInfoVX(&out, type);
    if (!ok) {
        // The other interface: contactless falls back to any reader, the rest to contactless.
        ok = ::GetBankCardInfoVX(&out, type == 2 ? 0 : 2);
    }
    return send(ok ? framed(name, out) : reply::framedEmpty(name));
}

QString MessageRun::bOpenIDCardReader_callback(QString name, QString args, MessageRun*)
{
    return send(reply::framedBool(name, ::bOpenIDCardUSBPort(Args::whole(args).utf8(0).constData())));
}

QString MessageRun::bOpenIDCardSerialPort_callback(QString name, QString args, MessageRun*)
{
    return send(reply::framedBool(name, ::openIDCardSerialPort(Args::whole(args).utf8(0).constData())));
}

QString MessageRun::bCloseIDCardDevie_callback(QString name, QString, MessageRun*)
{
    return send(reply::framedBool(name, ::bCloseIDCardDevie()));
}

QString MessageRun::bGetSAMStatus_callback(QString name, QString, MessageRun*)
{
    return send(reply::framedBool(name, ::bgetSAMStatus()));
}

QString MessageRun::GetSAMID_callback(QString name, QString, MessageRun*)
{
    return send(framed(name, takeLatin1(::GetSAMID())));
}

QString MessageRun::sReadIDCardSnr_callback(QString name, QString, MessageRun*)
{
    return send(framed(name, takeLatin1(::sReadIDCardSnr())));
}

QString MessageRun::iReadICCardSnr_callback(QString name, QString, MessageRun*)
{
    return send(reply::framedNumber(name, ::iReadICCardSnr()));
}

QString MessageRun::bPlayVoice_callback(QString name, QString args, MessageRun*)
{
    return send(reply::framedBool(name, ::bPlayVoice(Args::whole(args).toInt(0))));
}
