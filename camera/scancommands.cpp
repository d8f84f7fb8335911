// Scanning commands: the library's automatic scan (it reports each shot to the dispatcher's
// slot_iAutoshot), timed scan and book scan.
#include "devicelib/doccamera.h"
#include "dispatch/args.h"
#include "dispatch/messagerun.h"
#include "dispatch/replies.h"
#include "files/pathpolicy.h"

#include <QDebug>

// iAutoScan(mode,folder,prefix). Nothing is sent at start: the page hears of the scan only
// through the shots the library reports. The observer is registered before every call.
QString MessageRun::iAutoScan_callback(QString name, QString args, MessageRun* self)
{
    const Args a = Args::split(args);
    int result = 0;
    if (a.count() < 3) {
        qDebug() << __LINE__ << __FUNCTION__ << "scancommands" << "needs a mode, a folder and a prefix:" << args;
    } else if (pathpolicy::allowed(a.text(1), name)) {
        ::iAutoScan_observr(self, "1slot_iAutoshot(int)");
        result = ::iAutoScan(a.toInt(0), a.utf8(1).constData(), a.utf8(2).constData());
    }
    return reply::framedNumber(name, result);
}

// iTimerScan(mode,folder,prefix,seconds): true whatever happened.
QString MessageRun::iTimerScan_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() >= 4 && pathpolicy::allowed(a.text(1), name))
        ::iTimerScan(a.toInt(0), a.utf8(1).constData(), a.utf8(2).constData(), a.toInt(3));
    else
        qDebug() << __LINE__ << __FUNCTION__ << "scancommands" << "needs four parts:" << args;
    return reply::send(reply::framedTrue(name));
}

// bBookScanner(folder,name[,name2]): without name2 the library names both pages after name.
QString MessageRun::bBookScanner_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 2) {
        qDebug() << __LINE__ << __FUNCTION__ << "scancommands" << "needs a folder and a name:" << args;
        return reply::send(reply::framedFalse(name));
    }
    if (!pathpolicy::allowed(a.text(0), name))
        return reply::send(reply::framedFalse(name));
    const QByteArray third = a.utf8(2);
    return reply::send(reply::framedBool(
        name, ::bBookScanner(a.utf8(0).constData(), a.utf8(1).constData(), a.count() >= 3 ? third.constData() : nullptr)));
}

// The library's shot report, on the dispatcher's thread: "BeginiAutoScan<n>EndiAutoScan".
void MessageRun::slot_iAutoshot(int n)
{
    reply::send(reply::framedNumber(QStringLiteral("iAutoScan"), n));
}
