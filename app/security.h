// The server's exposure: where it listens, which pages may talk to it, which folders its file
// commands may touch, and how much one page may send. Read from the "[security]" group of
// server.ini; the defaults keep a fresh install reachable from this machine only.
#pragma once

#include <QHostAddress>
#include <QList>
#include <QString>
#include <QStringList>

struct SecuritySettings {
    enum class Listen { Loopback, Any, Address };

    // "listen": loopback (127.0.0.1 and ::1) unless "any" or one address is given.
    Listen listen = Listen::Loopback;
    QHostAddress address;
    // "origins": exact page origins admitted; empty admits every origin. "none" in the list
    // admits a handshake that carries no Origin at all.
    QStringList origins;
    // "fileRoots": folders the file, save and codec commands may touch; empty means anywhere.
    QStringList fileRoots;
    // "maxMessageBytes": the largest message a page may send, in bytes.
    qint64 maxMessageBytes = 64ll * 1024 * 1024;
    // "maxClients": pages connected (or handshaking) at once.
    int maxClients = 64;

    // Reads the group from an INI file. A bad value is logged with the file and the key and
    // keeps that key's default; the file itself is never written.
    static SecuritySettings load(const QString& iniPath);

    // The addresses to bind, in order (the loopback pair, every address, or the one given).
    QList<QHostAddress> listenAddresses() const;
};

// The settings the running server was started with: read once by start-up, then read by the
// transport and the log mirror. Set before the server starts listening; the defaults until then.
const SecuritySettings& activeSecurity();
void setActiveSecurity(const SecuritySettings& settings);
