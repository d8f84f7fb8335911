// The pieces of start-up that are more than one line: the prefix of start-up log lines, the
// single-instance lock and count, the device library's early lines and the choice of a display
// platform.
#pragma once

#include <QByteArray>
#include <QString>

class QLockFile;

namespace startup {

// The process list pipeline of the single-instance check: every line of "ps -ef" that names the
// program and none of the filtered words (shells, text viewers, the IDE, grep, sudo) is counted.
extern const char* const kInstancePipeline;

// "[yyyy-MM-dd HH:mm:ss] " with the current local time, in the local 8-bit encoding.
QByteArray logPrefix();

// Runs a shell pipeline through popen with LD_LIBRARY_PATH emptied (so the shell and ps do not
// pick up the device libraries' folder), restores it at once, logs the first line of output and
// returns it read as a base-10 number. A pipeline that cannot be started counts as 0.
long countFromPipeline(const char* pipeline);

// The number of running instances of the server, this one included.
long runningInstances();

// The lock file beside the program that makes one process the server of its folder.
QString instanceLockPath();

enum class InstanceLock {
    Owned,          // this process is the server
    HeldElsewhere,  // a live server holds it
    Unusable,       // the file cannot be made (a folder that cannot be written): nothing proven
};

// Tries once, without waiting, to take the lock. A lock whose owner process is gone (a server
// that was killed) is stale and taken over; its age never counts, since a server runs for months.
InstanceLock takeInstanceLock(QLockFile& lock);

// The device library reads its profile on its first call, before the log file is open; what it
// says about a broken profile ("devicelib: " lines) would reach standard error only. Holding
// forwards every message to Qt's own output as before and keeps those lines; replaying writes each
// of them once more, through whatever handler is installed by then (the log file), and forgets them.
void holdDeviceLibraryLines();
int replayDeviceLibraryLines();

// A server started without a desktop session (no DISPLAY or WAYLAND_DISPLAY) and without an
// explicit QT_QPA_PLATFORM gets the offscreen platform; true when it was set.
bool chooseHeadlessPlatform();

}  // namespace startup
