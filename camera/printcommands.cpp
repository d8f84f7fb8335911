// Printing, watermark and barcode commands. The library prints, stamps and decodes; these read
// the page's arguments the way each command always has and frame the answer. Text recognition is
// not offered. Files a page names are checked against the file roots before the library reads them.
#include "devicelib/doccamera.h"
#include "dispatch/args.h"
#include "dispatch/messagerun.h"
#include "dispatch/replies.h"
#include "files/pathpolicy.h"

#include <QDebug>

#include <cstdlib>

namespace {

// A library text: copied into the reply, then given back with free().
QString takeText(char* text, bool latin1 = false)
{
    const QString s = !text ? QString() : latin1 ? QString::fromLatin1(text) : QString::fromUtf8(text);
    std::free(text);
    return s;
}

// The colour as pages write it: "0x..." in hexadecimal, else decimal, else hexadecimal again
// (so FF0000 is red while 255 stays 255); 0 when it is neither.
long colourValue(const QString& text)
{
    bool ok = false;
    long v = text.startsWith(QLatin1String("0x")) || text.startsWith(QLatin1String("0X")) ? text.toLong(&ok, 16)
                                                                                         : text.toLong(&ok, 10);
    if (!ok)
        v = text.toLong(&ok, 16);
    return ok ? v : 0;
}

}  // namespace

// bPrint(copies)
QString MessageRun::bPrint_callback(QString name, QString args, MessageRun*)
{
    return reply::send(reply::framedBool(name, ::bPrint(Args::split(args).toInt(0))));
}

// bPrintImage(copies,path,fit)
QString MessageRun::bPrintImage_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 3) {
        qDebug() << __LINE__ << "bPrintImage_callback" << "printcommands" << "needs copies, a path and a fit:" << args;
        return reply::send(reply::framedFalse(name));
    }
    if (!pathpolicy::allowed(a.text(1), name))
        return reply::send(reply::framedFalse(name));
    return reply::send(reply::framedBool(name, ::bPrintImage(a.toShort(0), a.local8(1).constData(), a.toShort(2))));
}

// bPrintImageFile(path[,copies])
QString MessageRun::bPrintImageFile_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (!pathpolicy::allowed(a.text(0), name))
        return reply::send(reply::framedFalse(name));
    return reply::send(reply::framedBool(name, ::bPrintImageFile(a.utf8(0).constData(), a.count() >= 2 ? a.toInt(1) : 0)));
}

// vSetWaterPrint(enable,text,opacity)
QString MessageRun::vSetWaterPrint_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() >= 3)
        ::vSetWaterPrint(a.toShort(0), a.local8(1).constData(), a.toShort(2));
    else
        qDebug() << __LINE__ << "vSetWaterPrint_callback" << "printcommands" << "needs enable, text and opacity:" << args;
    return reply::send(reply::framedTrue(name));
}

// The command keeps its historical spelling; the library function does not.
QString MessageRun::vSetWaitePrintFont_callback(QString name, QString args, MessageRun*)
{
    ::vSetWaterPrintFont(Args::split(args).local8(0).constData());
    return reply::send(reply::framedTrue(name));
}

QString MessageRun::vSetWaterPrintFontSize_callback(QString name, QString args, MessageRun*)
{
    ::vSetWaterPrintFontSize(Args::split(args).toShort(0));
    return reply::send(reply::framedTrue(name));
}

QString MessageRun::vSetWaterPrintFontColor_callback(QString name, QString args, MessageRun*)
{
    ::vSetWaterPrintFontColor(colourValue(Args::split(args).text(0)));
    return reply::send(reply::framedTrue(name));
}

// vSetWaterPrintPos(x,y): a missing y is 0.
QString MessageRun::vSetWaterPrintPos_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    ::vSetWaterPrintPos(a.toShort(0), a.toShort(1));
    return reply::send(reply::framedTrue(name));
}

QString MessageRun::sGetBarCode_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (!pathpolicy::allowed(a.text(0), name))
        return reply::send(reply::framed(name, QString()));
    return reply::send(reply::framed(name, takeText(::sGetBarCode(a.local8(0).constData()))));
}

// sGetBarCodeEx(kind,path)
QString MessageRun::sGetBarCodeEx_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 2) {
        qDebug() << __LINE__ << "sGetBarCodeEx_callback" << "printcommands" << "needs a kind and a path:" << args;
        return reply::send(reply::framedEmpty(name));
    }
    if (!pathpolicy::allowed(a.text(1), name))
        return reply::send(reply::framed(name, QString()));
    return reply::send(reply::framed(name, takeText(::sGetBarCodeEx(a.toLong(0), a.local8(1).constData()))));
}

// The online code is read byte for byte, as Latin-1.
QString MessageRun::sGetBarCodeOnline_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framed(name, takeText(::sGetBarCodeOnline(), true)));
}

QString MessageRun::sOCRToString_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framedFalse(name));
}
