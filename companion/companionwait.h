// What both companion clients share: their launch, probe and connection attempts, and the
// waits and pauses of fixed lengths in which they block the main thread. A test
// shortens them with RVO_COMPANION_WAIT_MS (read once, at the first wait); a counter terminal
// never sets it and gets the full lengths.
#pragma once

#include <QString>

class QLocalSocket;

namespace companion {

// The wait to use in place of ms: ms itself, or the test's shorter limit.
int waitMs(int ms);
// Sleeps the main thread, as the clients do between start-up attempts.
void pause(int ms);
// How long the reply reader waits for the next byte of an announced payload before it gives up.
constexpr int kReplySilenceMs = 30000;
// The largest payload length the reply reader accepts.
constexpr int kMaxReplyBytes = 64 * 1024 * 1024;
// How long one connection attempt waits, and the pause after a failed one.
constexpr int kConnectWaitMs = 30000;
constexpr int kRestartPauseMs = 2000;

// Starts the companion's script, found beside the program, through /bin/bash (no exec bit
// needed), detached so the companion outlives the server.
void launch(const QString& script);
// Connects once and lets go again, whatever the answer: the clients' start-up probe.
void probe(QLocalSocket* socket, const QString& name);
// Drops the connection if there is one, without waiting for unsent bytes.
void drop(QLocalSocket* socket);
// Three attempts to connect to name, each failure followed by a pause and a new launch of
// script; afterLastFailure runs once the third has failed. True when connected.
bool connectAttempts(QLocalSocket* socket, const QString& name, const QString& script,
                     void (*afterLastFailure)() = nullptr);

}  // namespace companion
