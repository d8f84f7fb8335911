#include "files/pathpolicy.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QMutex>
#include <QMutexLocker>

#include <sys/stat.h>
#include <unistd.h>

#include <vector>

namespace pathpolicy {
namespace {

// As many links as the kernel follows in one lookup before it gives up with ELOOP.
constexpr int kMaxLinks = 40;

QMutex g_mutex;
QStringList g_roots;

// The target of the symbolic link at path, or a null QString when path is no link.
QString linkTarget(const QString& path)
{
    const QByteArray name = QFile::encodeName(path);
    struct stat st {};
    if (::lstat(name.constData(), &st) != 0 || !S_ISLNK(st.st_mode))
        return QString();
    std::vector<char> buffer(static_cast<size_t>(st.st_size > 0 ? st.st_size : 255) + 1);
    for (;;) {
        const ssize_t n = ::readlink(name.constData(), buffer.data(), buffer.size());
        if (n < 0)
            return QString();
        if (static_cast<size_t>(n) < buffer.size())
            return QFile::decodeName(QByteArray(buffer.data(), static_cast<int>(n)));
        buffer.resize(buffer.size() * 2);   // the link changed under us: read it again
    }
}

// A path "inside" a root shares all the root's components: /data/ab is not inside /data/a.
bool inside(const QString& path, const QString& root)
{
    if (root == QLatin1String("/"))
        return true;
    return path == root || (path.startsWith(root) && path.at(root.size()) == QLatin1Char('/'));
}

}  // namespace

void setRoots(const QStringList& roots)
{
    QMutexLocker lock(&g_mutex);
    g_roots.clear();
    for (const QString& r : roots)
        if (!r.trimmed().isEmpty())
            g_roots << r.trimmed();
}

QStringList roots()
{
    QMutexLocker lock(&g_mutex);
    return g_roots;
}

QString resolve(const QString& path)
{
    const QString absolute = QDir::isAbsolutePath(path) ? path : QDir::currentPath() + QLatin1Char('/') + path;
    // Components still to walk, and the resolved ones so far (below "/").
    QStringList todo = absolute.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    QStringList done;
    int links = 0;
    while (!todo.isEmpty()) {
        const QString c = todo.takeFirst();
        if (c == QLatin1String("."))
            continue;
        if (c == QLatin1String("..")) {
            if (!done.isEmpty())
                done.removeLast();
            continue;
        }
        const QString here = QLatin1Char('/') + (done + QStringList{c}).join(QLatin1Char('/'));
        const QString target = linkTarget(here);
        if (target.isNull()) {
            done << c;
            continue;
        }
        if (++links > kMaxLinks)
            return QString();
        // The link's target replaces it, read from the link's own folder (or from "/").
        if (target.startsWith(QLatin1Char('/')))
            done.clear();
        todo = target.split(QLatin1Char('/'), Qt::SkipEmptyParts) + todo;
    }
    return QLatin1Char('/') + done.join(QLatin1Char('/'));
}

bool allowed(const QString& path, const QString& command)
{
    const QStringList rootList = roots();
    if (rootList.isEmpty())
        return true;
    QString why;
    const QString resolved = path.isEmpty() ? QString() : resolve(path);
    if (path.isEmpty())
        why = QStringLiteral("the path is empty");
    else if (resolved.isNull())
        why = QStringLiteral("its symbolic links loop or nest too deeply");
    else {
        for (const QString& root : rootList) {
            const QString r = resolve(root);
            if (!r.isNull() && inside(resolved, r))
                return true;
        }
        why = resolved == path ? QStringLiteral("outside the file roots %1").arg(rootList.join(QLatin1Char(',')))
                               : QStringLiteral("it resolves to %1, outside the file roots %2")
                                     .arg(resolved, rootList.join(QLatin1Char(',')));
    }
    qInfo().noquote() << QStringLiteral("fileRoots: %1 refused \"%2\": %3").arg(command, path, why);
    return false;
}

bool allowed(std::initializer_list<QString> paths, const QString& command)
{
    for (const QString& p : paths)
        if (!allowed(p, command))
            return false;
    return true;
}

}  // namespace pathpolicy
