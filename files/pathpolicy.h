// Which folders the page-driven file work may touch ("fileRoots" in server.ini). With no roots
// set, every path is allowed. With roots set, a path is allowed when, with "..", symbolic links
// (dangling ones too) and the current directory resolved, it is a root or lies inside one.
// Commands check their paths here before they call the device library and answer a refused
// path with their usual failure reply.
#pragma once

#include <QString>
#include <QStringList>

#include <initializer_list>

namespace pathpolicy {

// Sets the process-wide roots; an empty list lifts the restriction. Safe from any thread.
void setRoots(const QStringList& roots);
QStringList roots();

// The absolute path with ".", ".." and every symbolic link resolved, following links whose
// target does not exist (yet) as far as they lead and taking the rest as written; a null
// QString when the links loop or nest too deeply.
QString resolve(const QString& path);

// Whether the command may touch path. A refusal writes one log line naming the command, the
// path and why.
bool allowed(const QString& path, const QString& command);
// Whether the command may touch every one of paths (stops at the first refused one).
bool allowed(std::initializer_list<QString> paths, const QString& command);

}  // namespace pathpolicy
