// File and folder functions of the device library, on the platform's own file system.
//
// Rules a page can rely on:
//  - Nothing is ever overwritten: copy, move and rename refuse an existing destination (file
//    or folder) and leave both sides as they were. The destination's folder must exist. The
//    refusal is the file system's own (an exclusive create or a no-replace rename), so a file
//    that appears at the destination meanwhile is never replaced either.
//  - bDeleteFile moves a file or folder to the desktop trash (freedesktop.org layout), so a
//    counter clerk can still restore it; bDeleteFileForever removes a file, a link or an empty
//    folder, never a folder with content.
//  - bReNameFile takes a new path, or just a new name (no "/") that stays in the same folder.
//  - OpenFile and bDispPath hand the path to the desktop's default handler (xdg-open), or to
//    the profile's "open.command" when one is set; bDispPath shows a file's folder.
//  - IsExeExist is true when both companion scripts are in place: the counter terminal needs
//    the signature service and the customer-screen browser together.
// Every refusal or failure writes one log line that says why.
#include "devicelib/doccamera.h"
#include "devicelib/portable/core.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QUrl>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#ifndef RENAME_NOREPLACE
#define RENAME_NOREPLACE (1 << 0)
#endif

namespace portable {
namespace {

QString fromC(const char* s)
{
    return s ? QString::fromUtf8(s) : QString();
}

// Something is at this path, even a dangling link.
bool present(const QString& path)
{
    const QFileInfo fi(path);
    return fi.exists() || fi.isSymLink();
}

QString errnoText(int e)
{
    return QString::fromLocal8Bit(std::strerror(e));
}

bool checkPath(const char* fn, const QString& path, const char* what = "path")
{
    if (path.isEmpty()) {
        logLine(QStringLiteral("%1: the %2 is empty").arg(QLatin1String(fn), QLatin1String(what)));
        return false;
    }
    return true;
}

// Renames without ever replacing the destination: renameat2(RENAME_NOREPLACE), or, on a file
// system without it, link + unlink for a file and an exclusive mkdir + rename for a folder (a
// folder may replace only the empty one it just made). Keeps the entry's identity; 0 or errno,
// EEXIST when the destination is taken and EXDEV across file systems.
int renameNoReplace(const QString& from, const QString& to)
{
    const QByteArray f = QFile::encodeName(from);
    const QByteArray t = QFile::encodeName(to);
    if (::syscall(SYS_renameat2, AT_FDCWD, f.constData(), AT_FDCWD, t.constData(), RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS)
        return errno;
    struct stat st {};
    if (::lstat(f.constData(), &st) != 0)
        return errno;
    if (!S_ISDIR(st.st_mode)) {
        if (::link(f.constData(), t.constData()) != 0)
            return errno;
        if (::unlink(f.constData()) != 0) {
            const int e = errno;
            ::unlink(t.constData());
            return e;
        }
        return 0;
    }
    if (::mkdir(t.constData(), 0700) != 0)
        return errno;
    if (::rename(f.constData(), t.constData()) != 0) {
        const int e = errno;
        ::rmdir(t.constData());
        return e;
    }
    return 0;
}

// Copies one regular file; the destination must not exist. Keeps the permissions.
bool copyFile(const char* fn, const QString& source, const QString& destination)
{
    QFile in(source);
    if (!in.open(QIODevice::ReadOnly)) {
        logLine(QStringLiteral("%1: cannot read %2 (%3)").arg(QLatin1String(fn), source, in.errorString()));
        return false;
    }
    QFile out(destination);
    if (!out.open(QIODevice::WriteOnly | QIODevice::NewOnly)) {
        logLine(present(destination)
                    ? QStringLiteral("%1: %2 already exists; nothing is overwritten").arg(QLatin1String(fn), destination)
                    : QStringLiteral("%1: cannot create %2 (%3)").arg(QLatin1String(fn), destination, out.errorString()));
        return false;
    }
    char buffer[64 * 1024];
    for (;;) {
        const qint64 n = in.read(buffer, sizeof buffer);
        if (n < 0 || (n > 0 && out.write(buffer, n) != n)) {
            logLine(QStringLiteral("%1: copying %2 to %3 failed (%4)")
                        .arg(QLatin1String(fn), source, destination,
                             n < 0 ? in.errorString() : out.errorString()));
            out.close();
            out.remove();
            return false;
        }
        if (n == 0)
            break;
    }
    out.setPermissions(in.permissions());
    return true;
}

// The checks every two-path function shares, for a clear log line: a source that is there and
// a destination folder that is. A taken destination is refused by the operation itself.
bool checkTwoPaths(const char* fn, const QString& source, const QString& destination)
{
    if (!checkPath(fn, source, "source") || !checkPath(fn, destination, "destination"))
        return false;
    if (!present(source)) {
        logLine(QStringLiteral("%1: %2 does not exist").arg(QLatin1String(fn), source));
        return false;
    }
    const QString folder = QFileInfo(destination).absolutePath();
    if (!QFileInfo(folder).isDir()) {
        logLine(QStringLiteral("%1: the destination folder %2 does not exist").arg(QLatin1String(fn), folder));
        return false;
    }
    return true;
}

// Moves within a file system by rename, across file systems by copy and remove (files only).
bool moveEntry(const char* fn, const QString& source, const QString& destination)
{
    const int e = renameNoReplace(source, destination);
    if (e == 0)
        return true;
    if (e == EEXIST) {
        logLine(QStringLiteral("%1: %2 already exists; nothing is overwritten").arg(QLatin1String(fn), destination));
        return false;
    }
    if (e != EXDEV) {
        logLine(QStringLiteral("%1: cannot move %2 to %3 (%4)").arg(QLatin1String(fn), source, destination, errnoText(e)));
        return false;
    }
    const QFileInfo fi(source);
    if (!fi.isFile() || fi.isSymLink()) {
        logLine(QStringLiteral("%1: %2 is on another file system and is not a plain file; not moved")
                    .arg(QLatin1String(fn), source));
        return false;
    }
    if (!copyFile(fn, source, destination))
        return false;
    if (!QFile::remove(source)) {
        logLine(QStringLiteral("%1: copied %2 to %3 but cannot remove the original").arg(QLatin1String(fn), source, destination));
        QFile::remove(destination);
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// The desktop trash, by Qt: $XDG_DATA_HOME/Trash (default ~/.local/share/Trash) for the home
// file system, the file system's own .Trash-<uid> otherwise; files/ holds the item and
// info/<name>.trashinfo says where it came from and when; a taken name gets "-0001", "-0002", ...
// Qt 5.15 writes the original path as it stands, but the trash format wants it percent-encoded
// (a "%" or a line end in a name would otherwise break restoring from the file manager), so that
// line is written again when the path needs it.

bool moveToTrash(const QString& path)
{
    const QString absolute = QFileInfo(path).absoluteFilePath();
    QFile item(path);
    if (!item.moveToTrash()) {
        logLine(QStringLiteral("bDeleteFile: cannot move %1 to the trash (%2)").arg(path, item.errorString()));
        return false;
    }
    const QByteArray encoded = QUrl::toPercentEncoding(absolute, "/");
    if (encoded == absolute.toUtf8())
        return true;
    const QFileInfo trashed(item.fileName());
    QFile info(trashed.absolutePath() + QStringLiteral("/../info/") + trashed.fileName() + QStringLiteral(".trashinfo"));
    QByteArray text;
    if (info.open(QIODevice::ReadOnly))
        text = info.readAll();
    info.close();
    const int from = text.indexOf("\nPath=");
    const int to = from < 0 ? -1 : text.indexOf("\nDeletionDate=", from);
    if (to < 0 || !info.open(QIODevice::WriteOnly | QIODevice::Truncate)
        || info.write(text.left(from) + "\nPath=" + encoded + text.mid(to)) < 0) {
        logLine(QStringLiteral("bDeleteFile: moved %1 to the trash, but cannot write its original place into %2")
                    .arg(path, info.fileName()));
    }
    return true;
}

// ---------------------------------------------------------------------------------------------

// Starts the desktop's handler (or the profile's command) for target, detached.
bool openWith(const char* fn, const QString& target)
{
    const QString configured = profileText(QStringLiteral("open.command"), QString()).trimmed();
    QStringList words = configured.isEmpty() ? QStringList{QStringLiteral("xdg-open")} : QProcess::splitCommand(configured);
    if (words.isEmpty()) {
        logLine(QStringLiteral("%1: device profile %2: key \"open.command\" holds no program").arg(QLatin1String(fn), profileSource()));
        return false;
    }
    const QString program = words.takeFirst();
    words << target;
    qint64 pid = 0;
    if (!QProcess::startDetached(program, words, QString(), &pid)) {
        logLine(QStringLiteral("%1: cannot start %2 for %3").arg(QLatin1String(fn), program, target));
        return false;
    }
    return true;
}

QString companionDir()
{
    const QString dir = profileText(QStringLiteral("files.companionDir"), QString());
    return dir.isEmpty() ? applicationDir() : dir;
}

// The extension a page asked for: "jpg", ".jpg" and "*.jpg" all mean ".jpg"; "", "*" and "*.*"
// mean every file.
QString normalisedExtension(QString format)
{
    format = format.trimmed();
    if (format.startsWith(QLatin1Char('*')))
        format.remove(0, 1);
    if (format.startsWith(QLatin1Char('.')))
        format.remove(0, 1);
    if (format == QLatin1String("*"))
        return QString();
    return format;
}

thread_local std::string t_formatFiles;

}  // namespace

namespace files {

bool deleteToTrash(const QString& path)
{
    if (!checkPath("bDeleteFile", path))
        return false;
    if (!present(path)) {
        logLine(QStringLiteral("bDeleteFile: %1 does not exist").arg(path));
        return false;
    }
    return moveToTrash(path);
}

bool deleteForever(const QString& path)
{
    if (!checkPath("bDeleteFileForever", path))
        return false;
    const QFileInfo fi(path);
    if (!present(path)) {
        logLine(QStringLiteral("bDeleteFileForever: %1 does not exist").arg(path));
        return false;
    }
    if (fi.isDir() && !fi.isSymLink()) {
        if (!QDir().rmdir(path)) {
            logLine(QStringLiteral("bDeleteFileForever: %1 is a folder that is not empty (or cannot be removed); kept").arg(path));
            return false;
        }
        return true;
    }
    if (std::remove(QFile::encodeName(path).constData()) != 0) {
        logLine(QStringLiteral("bDeleteFileForever: cannot remove %1 (%2)").arg(path, errnoText(errno)));
        return false;
    }
    return true;
}

bool copy(const QString& source, const QString& destination)
{
    if (!checkTwoPaths("bCopyFile", source, destination))
        return false;
    if (!QFileInfo(source).isFile()) {
        logLine(QStringLiteral("bCopyFile: %1 is not a file").arg(source));
        return false;
    }
    return copyFile("bCopyFile", source, destination);
}

bool move(const char* fn, const QString& source, const QString& destination)
{
    if (!checkTwoPaths(fn, source, destination))
        return false;
    return moveEntry(fn, source, destination);
}

bool rename(const QString& oldPath, QString newPath)
{
    if (!newPath.isEmpty() && !newPath.contains(QLatin1Char('/')))
        newPath = QFileInfo(oldPath).path() + QLatin1Char('/') + newPath;
    return move("bReNameFile", oldPath, newPath);
}

bool createDir(const QString& path)
{
    if (!checkPath("bCreateDir", path))
        return false;
    const QFileInfo fi(path);
    if (fi.isDir())
        return true;
    if (present(path)) {
        logLine(QStringLiteral("bCreateDir: %1 exists and is not a folder").arg(path));
        return false;
    }
    if (!QDir().mkpath(path)) {
        logLine(QStringLiteral("bCreateDir: cannot create %1").arg(path));
        return false;
    }
    return true;
}

bool open(const char* fn, const QString& path, bool showFolder)
{
    if (!checkPath(fn, path))
        return false;
    const QFileInfo fi(path);
    if (!fi.exists()) {
        logLine(QStringLiteral("%1: %2 does not exist").arg(QLatin1String(fn), path));
        return false;
    }
    const QString target = showFolder && !fi.isDir() ? fi.absolutePath() : fi.absoluteFilePath();
    return openWith(fn, target);
}

bool companionsPresent()
{
    const QString dir = companionDir();
    bool all = true;
    for (const char* script : {"run-elecsign.sh", "run-webbrowser.sh"}) {
        const QString path = dir + QLatin1Char('/') + QLatin1String(script);
        if (!QFileInfo(path).isFile()) {
            logLine(QStringLiteral("IsExeExist: %1 is missing").arg(path));
            all = false;
        }
    }
    return all;
}

Text formatFiles(const QString& dir, const QString& format)
{
    if (!checkPath("sGetAllFormatFiles", dir, "folder"))
        return std::nullopt;
    const QDir d(dir);
    if (!QFileInfo(dir).isDir() || !d.isReadable()) {
        logLine(QStringLiteral("sGetAllFormatFiles: %1 is not a readable folder").arg(dir));
        return std::nullopt;
    }
    const QString ext = normalisedExtension(format);
    const QString suffix = QLatin1Char('.') + ext;
    QStringList names;
    for (const QString& name : d.entryList(QDir::Files | QDir::Hidden | QDir::System)) {
        if (ext.isEmpty() || (name.size() > suffix.size() && name.endsWith(suffix, Qt::CaseInsensitive)))
            names << name;
    }
    std::sort(names.begin(), names.end());
    QStringList paths;
    for (const QString& name : names)
        paths << d.absoluteFilePath(name);
    return paths.join(QLatin1Char('|')).toStdString();
}

}  // namespace files
}  // namespace portable

using namespace portable;

extern "C" {

bool bDeleteFile(const char* path)
{
    return traced<bool>("bDeleteFile", {path}, [&] { return files::deleteToTrash(fromC(path)); });
}

bool bDeleteFileForever(const char* path)
{
    return traced<bool>("bDeleteFileForever", {path}, [&] { return files::deleteForever(fromC(path)); });
}

bool bCopyFile(const char* source, const char* destination)
{
    return traced<bool>("bCopyFile", {source, destination}, [&] { return files::copy(fromC(source), fromC(destination)); });
}

bool bMoveFile(const char* source, const char* destination)
{
    return traced<bool>("bMoveFile", {source, destination}, [&] { return files::move("bMoveFile", fromC(source), fromC(destination)); });
}

bool bReNameFile(const char* oldPath, const char* newPath)
{
    return traced<bool>("bReNameFile", {oldPath, newPath}, [&] { return files::rename(fromC(oldPath), fromC(newPath)); });
}

bool bFileIsExist(const char* path)
{
    return traced<bool>("bFileIsExist", {path}, [&] { return path && QFileInfo(fromC(path)).isFile(); });
}

bool bDirIsExist(const char* path)
{
    return traced<bool>("bDirIsExist", {path}, [&] { return path && QFileInfo(fromC(path)).isDir(); });
}

bool bCreateDir(const char* path)
{
    return traced<bool>("bCreateDir", {path}, [&] { return files::createDir(fromC(path)); });
}

bool OpenFile(const char* path)
{
    return traced<bool>("OpenFile", {path}, [&] { return files::open("OpenFile", fromC(path), false); });
}

bool bDispPath(const char* path)
{
    return traced<bool>("bDispPath", {path}, [&] { return files::open("bDispPath", fromC(path), true); });
}

bool IsExeExist(void)
{
    return traced<bool>("IsExeExist", {}, [] { return files::companionsPresent(); });
}

const char* sGetAllFormatFiles(const char* dir, const char* format)
{
    return keptText(t_formatFiles, traced<Text>("sGetAllFormatFiles", {dir, format},
                                                [&] { return files::formatFiles(fromC(dir), fromC(format)); }));
}

}  // extern "C"
