// The companion clients block the main thread in waits and pauses of fixed lengths. A test
// shortens them with RVO_COMPANION_WAIT_MS (read once, at the first wait); a counter terminal
// never sets it and gets the full lengths.
#pragma once

namespace companion {

// The wait to use in place of ms: ms itself, or the test's shorter limit.
int waitMs(int ms);
// Sleeps the main thread, as the clients do between start-up attempts.
void pause(int ms);
// How long the reply reader waits for the next byte of an announced payload before it gives up.
constexpr int kReplySilenceMs = 30000;
// The largest payload length the reply reader accepts.
constexpr int kMaxReplyBytes = 64 * 1024 * 1024;

}  // namespace companion
