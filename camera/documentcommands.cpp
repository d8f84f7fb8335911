// Document commands: multi-page PDF and OFD and merged images, built by the library from
// camera shots, image files and base64 images. The library keeps the open document between
// calls, so the page and end commands need no handle.
//
// The PDF commands pass whatever they get (an empty path, a missing number as 0); the OFD
// commands refuse empty fields without calling. A PDF file page without a number is fitted to
// A4 (-1), an OFD one keeps its natural size (1): the defaults differ on purpose.
#include "devicelib/doccamera.h"
#include "dispatch/args.h"
#include "dispatch/messagerun.h"
#include "dispatch/replies.h"
#include "files/pathpolicy.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>

namespace {

using NoArgs = bool (*)();
using FilePage = bool (*)(const char* path, float scale);
using Base64Page = bool (*)(const char* base64);

// The file a document start will write: the extension is added when the name lacks it; a merge
// keeps the name's own extension, else ".jpg".
QString documentFile(const QString& folder, const QString& file, const QString& ext)
{
    if (ext.isEmpty())
        return QDir(folder).filePath(QFileInfo(file).suffix().isEmpty() ? file + QStringLiteral(".jpg") : file);
    return QDir(folder).filePath(file.endsWith(ext, Qt::CaseInsensitive) ? file : file + ext);
}

QString call(const QString& name, NoArgs fn)
{
    return reply::send(reply::framedBool(name, fn()));
}

// bAddPDFColorPage(path[,scale]): the path in the local 8-bit encoding, as the library opens it.
QString pdfFilePage(const QString& name, const QString& args, FilePage fn)
{
    const Args a = Args::split(args);
    const float scale = a.count() >= 2 ? a.toFloat(1) : -1.0f;
    if (!pathpolicy::allowed(a.text(0), name))
        return reply::send(reply::framedFalse(name));
    return reply::send(reply::framedBool(name, fn(a.local8(0).constData(), scale)));
}

// The whole argument text is the image, commas and all (a "data:image/png;base64," prefix).
QString base64Page(const QString& name, const QString& args, Base64Page fn)
{
    return reply::send(reply::framedBool(name, fn(Args::whole(args).utf8(0).constData())));
}

}  // namespace

// bSavePDFStart(folder,name)
QString MessageRun::bSavePDFStart_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 2) {
        qDebug() << __LINE__ << __FUNCTION__ << "documentcommands" << "needs a folder and a name:" << args;
        return reply::send(reply::framedFalse(name));
    }
    if (!pathpolicy::allowed(documentFile(a.text(0), a.text(1), QStringLiteral(".pdf")), name))
        return reply::send(reply::framedFalse(name));
    return reply::send(reply::framedBool(name, ::bSavePDFStart(a.utf8(0).constData(), a.utf8(1).constData())));
}

QString MessageRun::bSavePDFColorPage_callback(QString name, QString, MessageRun*)
{
    return call(name, ::bSavePDFColorPage);
}

QString MessageRun::bSavePDFBWPage_callback(QString name, QString, MessageRun*)
{
    return call(name, ::bSavePDFBWPage);
}

QString MessageRun::bSavePDFEnd_callback(QString name, QString, MessageRun*)
{
    return call(name, ::bSavePDFEnd);
}

QString MessageRun::bAddPDFColorPage_callback(QString name, QString args, MessageRun*)
{
    return pdfFilePage(name, args, ::bAddPDFColorPage);
}

QString MessageRun::bAddPDFBWPage_callback(QString name, QString args, MessageRun*)
{
    return pdfFilePage(name, args, ::bAddPDFBWPage);
}

QString MessageRun::bAddPDFBase64ColorPage_callback(QString name, QString args, MessageRun*)
{
    return base64Page(name, args, ::bAddPDFBase64ColorPage);
}

// bSaveOFDStart(folder,name): both needed.
QString MessageRun::bSaveOFDStart_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 2 || a.text(0).isEmpty() || a.text(1).isEmpty()) {
        qDebug() << __LINE__ << __FUNCTION__ << "documentcommands" << "needs a folder and a name:" << args;
        return reply::send(reply::framedFalse(name));
    }
    if (!pathpolicy::allowed(documentFile(a.text(0), a.text(1), QStringLiteral(".ofd")), name))
        return reply::send(reply::framedFalse(name));
    return reply::send(reply::framedBool(name, ::bSaveOFDStart(a.utf8(0).constData(), a.utf8(1).constData())));
}

QString MessageRun::bSaveOFDColorPage_callback(QString name, QString, MessageRun*)
{
    return call(name, ::bSaveOFDColorPage);
}

QString MessageRun::bSaveOFDBWPage_callback(QString name, QString, MessageRun*)
{
    return call(name, ::bSaveOFDBWPage);
}

QString MessageRun::bSaveOFDEnd_callback(QString name, QString, MessageRun*)
{
    return call(name, ::bSaveOFDEnd);
}

// bAddOFDPage(path[,scale]): a path, and a scale when one is given at all.
QString MessageRun::bAddOFDPage_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.text(0).isEmpty() || (a.count() >= 2 && a.text(1).isEmpty())) {
        qDebug() << __LINE__ << __FUNCTION__ << "documentcommands" << "needs a path and, after a comma, a scale:" << args;
        return reply::send(reply::framedFalse(name));
    }
    const float scale = a.count() >= 2 ? a.toFloat(1) : 1.0f;
    if (!pathpolicy::allowed(a.text(0), name))
        return reply::send(reply::framedFalse(name));
    return reply::send(reply::framedBool(name, ::bAddOFDPage(a.utf8(0).constData(), scale)));
}

QString MessageRun::bAddOFDBase64ColorPage_callback(QString name, QString args, MessageRun*)
{
    return base64Page(name, args, ::bAddOFDBase64ColorPage);
}

// bSaveMergeStart(folder,name,columns,rows,cellWidth,cellHeight): columns and rows 16-bit,
// cell sizes 64-bit.
QString MessageRun::bSaveMergeStart_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 6) {
        qDebug() << __LINE__ << __FUNCTION__ << "documentcommands" << "needs six parts:" << args;
        return reply::send(reply::framedFalse(name));
    }
    if (!pathpolicy::allowed(documentFile(a.text(0), a.text(1), QString()), name))
        return reply::send(reply::framedFalse(name));
    return reply::send(reply::framedBool(name, ::bSaveMergeStart(a.utf8(0).constData(), a.utf8(1).constData(), a.toShort(2),
                                                                 a.toShort(3), a.toLongLong(4), a.toLongLong(5))));
}

QString MessageRun::bSaveMergePage_callback(QString name, QString, MessageRun*)
{
    return call(name, ::bSaveMergePage);
}

QString MessageRun::bSaveMergeEnd_callback(QString name, QString, MessageRun*)
{
    return call(name, ::bSaveMergeEnd);
}
