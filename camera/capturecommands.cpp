// Still capture commands: save the camera's picture as a file through the library, or hand it
// back to the page as base64 JPEG text. Every file a page names is checked against the file
// roots by its final name (the library adds the extension) before the library is called.
#include "camera/mat2base64.h"
#include "devicelib/doccamera.h"
#include "dispatch/args.h"
#include "dispatch/messagerun.h"
#include "dispatch/replies.h"
#include "files/pathpolicy.h"

#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <opencv2/core.hpp>

namespace {

using SaveStill = bool (*)(const char* dir, const char* name);

// The file a save writes: the name (with the extension the library adds) in the directory, or
// the name itself when it is an absolute path.
QString savedFile(const QString& dir, const QString& name, const char* ext)
{
    return QDir(dir).filePath(name + QLatin1Char('.') + QLatin1String(ext));
}

// Save commands take a directory and a file name; the library adds the extension.
QString saveStill(const QString& name, const QString& args, SaveStill save, const char* ext)
{
    const Args a = Args::split(args);
    if (a.count() < 2) {
        qDebug() << __LINE__ << name << "messagerun" << "needs a directory and a file name:" << args;
        return reply::send(reply::framedFalse(name));
    }
    if (!pathpolicy::allowed(savedFile(a.text(0), a.text(1), ext), name))
        return reply::send(reply::framedFalse(name));
    return reply::send(reply::framedBool(name, save(a.utf8(0).constData(), a.utf8(1).constData())));
}

// The current full-size frame as base64 JPEG; empty when the camera gives none.
QString liveFrameBase64()
{
    cv::Mat frame;
    if (!::getVideoFrameMatEx(frame) || frame.empty())
        return QString();
    return QString::fromStdString(Mat2Base64(frame, "JPG"));
}

}  // namespace

// bSaveJPG(directory,name)
QString MessageRun::bSaveJPG_callback(QString name, QString args, MessageRun*)
{
    return saveStill(name, args, ::bSaveJPG, "jpg");
}

QString MessageRun::bSaveTifJPG_callback(QString name, QString args, MessageRun*)
{
    return saveStill(name, args, ::bSaveTifJPG, "tif");
}

QString MessageRun::bSaveGray_callback(QString name, QString args, MessageRun*)
{
    return saveStill(name, args, ::bSaveGray, "jpg");
}

QString MessageRun::bSaveTIF_callback(QString name, QString args, MessageRun*)
{
    return saveStill(name, args, ::bSaveTIF, "tif");
}

QString MessageRun::bSaveBMP_callback(QString name, QString args, MessageRun*)
{
    return saveStill(name, args, ::bSaveBMP, "bmp");
}

QString MessageRun::bSavePNG_callback(QString name, QString args, MessageRun*)
{
    return saveStill(name, args, ::bSavePNG, "png");
}

// bSaveGrayAndTIF(dir1,name1,dir2,name2)
QString MessageRun::bSaveGrayAndTIF_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 4) {
        qDebug() << __LINE__ << __FUNCTION__ << "messagerun" << "needs four parts:" << args;
        return reply::send(reply::framedFalse(name));
    }
    // A grey JPEG into the first folder, a TIFF into the second.
    if (!pathpolicy::allowed({savedFile(a.text(0), a.text(1), "jpg"), savedFile(a.text(2), a.text(3), "tif")}, name))
        return reply::send(reply::framedFalse(name));
    return reply::send(reply::framedBool(
        name, ::bSaveGrayAndTIF(a.utf8(0).constData(), a.utf8(1).constData(), a.utf8(2).constData(),
                                a.utf8(3).constData())));
}

// Pages still offer 24-bit TIFF; the camera does not. Accepted.
QString MessageRun::bSaveTIF24Bit_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framedTrue(name));
}

// SplitPic(source,prefix): the pages go to <prefix>_1.jpg and <prefix>_2.jpg, beside the source
// when the prefix names no folder.
QString MessageRun::SplitPic_callback(QString name, QString args, MessageRun*)
{
    const Args a = Args::split(args);
    if (a.count() < 2)
        return reply::send(reply::framedFalse(name));
    qDebug() << __LINE__ << __FUNCTION__ << "messagerun" << args.split(QLatin1Char(','));
    const QString source = a.text(0);
    QString prefix = a.text(1);
    if (!prefix.contains(QLatin1Char('/')))
        prefix = QFileInfo(source).absoluteDir().filePath(prefix);
    if (!pathpolicy::allowed({source, prefix + QStringLiteral("_1.jpg"), prefix + QStringLiteral("_2.jpg")}, name))
        return reply::send(reply::framedFalse(name));
    return reply::send(reply::framedBool(name, ::SplitPic(a.utf8(0).constData(), a.utf8(1).constData())));
}

// sGetImageBase64(number)
QString MessageRun::sGetImageBase64_callback(QString name, QString args, MessageRun*)
{
    // The library keeps the text: copy it, never free it.
    const char* text = ::sGetImageBase64_Byte(Args::whole(args).toInt(0));
    return reply::send(reply::framed(name, QString::fromUtf8(text)));
}

QString MessageRun::sGetJpgBase64_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framed(name, liveFrameBase64()));
}

QString MessageRun::sGetBase64_callback(QString name, QString args, MessageRun* self)
{
    return sGetJpgBase64_callback(name, args, self);
}

// A still at the camera's full quality, passed through a temporary file that is removed again.
// Should the save fail, the page still gets the live frame. The page names no path here, so the
// file roots do not apply to the server's own temporary file.
QString MessageRun::bSaveJPGEx_callback(QString name, QString, MessageRun*)
{
    const QString base = QStringLiteral("VX") + QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMddhhmmsszzz"));
    ::bSaveJPG("/tmp", base.toUtf8().constData());
    QFile file(QStringLiteral("/tmp/") + base + QStringLiteral(".jpg"));
    if (!file.open(QIODevice::ReadOnly)) {
        qDebug() << __LINE__ << __FUNCTION__ << "messagerun" << "no saved still, sending the live frame:" << file.fileName();
        return reply::send(reply::framed(name, liveFrameBase64()));
    }
    const QByteArray encoded = file.readAll().toBase64();
    file.close();
    file.remove();
    return reply::send(reply::framed(name, QString::fromLatin1(encoded)));
}
