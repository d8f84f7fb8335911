// What a page's opening request must show before it becomes a WebSocket: a Host that names this
// machine (so a hostile site cannot reach us through DNS rebinding), an Origin the counter
// admits, and room under the page limit. Pure functions over the request head, so they are
// tested without sockets.
#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QString>
#include <QStringList>

namespace handshake {

struct RequestHead {
    bool complete = false;   // the blank line that ends the head has arrived
    bool hasHost = false;
    bool hasOrigin = false;
    QString host;            // as sent, port included
    QString origin;          // as sent
};

// Parses an HTTP request head from the bytes received so far (header names in any case).
RequestHead parseHead(const QByteArray& bytes);

// Whether a Host header value names this server: "localhost", "127.0.0.1" or "[::1]" in any case
// with an optional port, or one of `own` (the addresses the server answers on). Wildcard
// addresses never count as own.
bool hostAllowed(const QString& host, const QList<QHostAddress>& own);

// Whether a page's Origin is admitted by the configured list: an empty list admits all; else
// the origin must equal one entry exactly, and a missing Origin needs the entry "none".
bool originAllowed(bool hasOrigin, const QString& origin, const QStringList& allowed);

// A complete HTTP response that refuses the upgrade and asks the client to close.
QByteArray refusal(int status, const char* reason);

}  // namespace handshake
