// The pieces of start-up that are more than one line: the prefix of start-up log lines, the
// single-instance count and the choice of a display platform.
#pragma once

#include <QByteArray>

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

// A server started without a desktop session (no DISPLAY or WAYLAND_DISPLAY) and without an
// explicit QT_QPA_PLATFORM gets the offscreen platform; true when it was set.
bool chooseHeadlessPlatform();

}  // namespace startup
