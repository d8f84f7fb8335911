// Shared test fixtures: a page connected to an in-process server, and the device-library trace.
#pragma once

#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QStringList>
#include <QTemporaryDir>
#include <QWebSocket>
#include <QWebSocketServer>

class MessageRun;

// A page (client socket) connected to a WebSocket server on a free loopback port, in this
// process. The server-side socket is made the current client, so replies sent with
// MessageRun::send_msg reach the page for real.
class PagePair : public QObject {
    Q_OBJECT
public:
    PagePair();
    ~PagePair() override;

    bool isConnected() const;
    QWebSocket* page() { return &m_page; }
    QWebSocket* serverSide() { return m_serverSide; }
    // Makes the server-side socket the current client again (after a test cleared it).
    void makeCurrent();

    // Waits for and takes the next text message the page received; a null QString on time-out.
    QString next(int timeoutMs = 3000);
    // Waits until no message arrives for quietMs, then returns and clears what arrived.
    QStringList drain(int quietMs = 100);

private:
    QWebSocketServer m_server;
    QWebSocket m_page;
    QWebSocket* m_serverSide = nullptr;
    QStringList m_received;
};

// Sends one command text through the dispatcher as the transport would and returns the first
// reply the page received (null QString when none came within timeoutMs).
QString runCommand(MessageRun& run, PagePair& page, const QString& text, int timeoutMs = 2000);

// The device-library call trace of one test: a fresh file, switched on for the library.
class Trace {
public:
    Trace();
    ~Trace();
    // Every call since the last clear(), one JSON object each.
    QList<QJsonObject> calls() const;
    // The function names of calls(), in order.
    QStringList functions() const;
    // The calls of one function.
    QList<QJsonObject> callsOf(const QString& fn) const;
    void clear();

private:
    QTemporaryDir m_dir;
    QString m_path;
};
