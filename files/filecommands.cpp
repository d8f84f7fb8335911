// File and folder commands: thin forwards to the device library's file functions.
// One-path commands take the whole argument text (so a path may hold ","); two-path commands
// split at "," and need both parts. Every path is checked against the file roots first; a refused
// one gets the command's failure reply without a library call.
#include "devicelib/doccamera.h"
#include "dispatch/args.h"
#include "dispatch/messagerun.h"
#include "dispatch/replies.h"
#include "files/pathpolicy.h"

#include <QFileInfo>

namespace {

using OnePath = bool (*)(const char*);
using TwoPaths = bool (*)(const char*, const char*);

QString onePath(const QString& name, const QString& args, OnePath fn)
{
    if (!pathpolicy::allowed(args, name))
        return reply::send(reply::framedFalse(name));
    const QByteArray path = args.toUtf8();
    return reply::send(reply::framedBool(name, fn(path.constData())));
}

// target: where the second path really points (a bare new name for bReNameFile stays in the
// source's folder).
QString twoPaths(const QString& name, const QString& args, TwoPaths fn, bool bareNameStays = false)
{
    const Args a = Args::split(args);
    if (a.count() < 2)
        return reply::send(reply::framedFalse(name));
    QString target = a.text(1);
    if (bareNameStays && !target.isEmpty() && !target.contains(QLatin1Char('/')))
        target = QFileInfo(a.text(0)).path() + QLatin1Char('/') + target;
    if (!pathpolicy::allowed({a.text(0), target}, name))
        return reply::send(reply::framedFalse(name));
    return reply::send(reply::framedBool(name, fn(a.utf8(0).constData(), a.utf8(1).constData())));
}

}  // namespace

QString MessageRun::bDeleteFile_callback(QString name, QString args, MessageRun*)
{
    return onePath(name, args, ::bDeleteFile);
}

QString MessageRun::bDeleteFileForever_callback(QString name, QString args, MessageRun*)
{
    // Only the first field is the path; further fields are ignored.
    return onePath(name, Args::split(args).text(0), ::bDeleteFileForever);
}

QString MessageRun::bCopyFile_callback(QString name, QString args, MessageRun*)
{
    return twoPaths(name, args, ::bCopyFile);
}

QString MessageRun::bMoveFile_callback(QString name, QString args, MessageRun*)
{
    return twoPaths(name, args, ::bMoveFile);
}

QString MessageRun::bReNameFile_callback(QString name, QString args, MessageRun*)
{
    return twoPaths(name, args, ::bReNameFile, true);
}

QString MessageRun::bFileIsExist_callback(QString name, QString args, MessageRun*)
{
    return onePath(name, args, ::bFileIsExist);
}

QString MessageRun::bDirIsExist_callback(QString name, QString args, MessageRun*)
{
    return onePath(name, args, ::bDirIsExist);
}

QString MessageRun::bCreateDir_callback(QString name, QString args, MessageRun*)
{
    return onePath(name, args, ::bCreateDir);
}

QString MessageRun::OpenFile_callback(QString name, QString args, MessageRun*)
{
    return onePath(name, args, ::OpenFile);
}

QString MessageRun::bDispPath_callback(QString name, QString args, MessageRun*)
{
    return onePath(name, args, ::bDispPath);
}

QString MessageRun::IsExeExist_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framedBool(name, ::IsExeExist()));
}

QString MessageRun::sGetTempPath_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framed(name, QStringLiteral("/tmp")));
}

QString MessageRun::sGetAllFormatFiles_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 2 || !pathpolicy::allowed(a.text(0), name))
        return reply::send(reply::framedEmpty(name));
    const char* files = ::sGetAllFormatFiles(a.utf8(0).constData(), a.utf8(1).constData());
    return reply::send(reply::framed(name, files ? QString::fromUtf8(files) : QString()));
}
