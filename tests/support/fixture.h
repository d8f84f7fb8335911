// Shared test fixtures: a page connected to an in-process server, and the device-library trace.
#pragma once

#include "camera/captureimgthread.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QSize>
#include <QObject>
#include <QStringList>
#include <QTemporaryDir>
#include <QWebSocket>
#include <QWebSocketServer>

#include <functional>

class MessageRun;
class WebSocketServerManager;

// A page: a WebSocket client that collects the text messages it receives.
class Page : public QObject {
public:
    Page();
    // Opens a connection to a server on this machine and waits until it is up.
    bool open(quint16 port);
    // Waits for and takes the next text message the page received; a null QString on time-out.
    QString next(int timeoutMs = 3000);
    // Waits until no message arrives for quietMs, then returns and clears what arrived.
    QStringList drain(int quietMs = 100);

    QWebSocket ws;
    QStringList got;
};

// A page of a server manager in this process. Every page leaving stops the preview and every
// page hears how that went: those answers are left out.
class ServerPage : public Page {
public:
    explicit ServerPage(WebSocketServerManager& mgr);
    // Sends text and waits for the next message.
    QString ask(const QString& text, int timeoutMs = 5000) { got.clear(); ws.sendTextMessage(text); return next(timeoutMs); }
};

// A page connected to a WebSocket server on a free loopback port, in this process. The
// server-side socket is made the current client, so replies sent with MessageRun::send_msg
// reach the page for real.
class PagePair : public Page {
public:
    PagePair();
    ~PagePair() override;

    bool isConnected() const;
    QWebSocket* serverSide() { return m_serverSide; }
    // Makes the server-side socket the current client again (after a test cleared it).
    void makeCurrent();

private:
    QWebSocketServer m_server;
    QWebSocket* m_serverSide = nullptr;
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

// Spins the event loop until done() holds or the time is up; returns done().
bool waitFor(const std::function<bool()>& done, int timeoutMs = 5000);
QByteArray readFile(const QString& path);
// Writes a file, making its folders first.
bool writeFile(const QString& path, const QByteArray& content);

// Collects the log lines starting with prefix (all when empty) while it lives, from any thread.
class LogCapture {
public:
    explicit LogCapture(const QString& prefix = QString());
    ~LogCapture();
    QStringList lines() const;
    bool contains(const QString& text) const { return !lines().filter(text).isEmpty(); }
};

// Scripts library results from a JSON object {"fn": [results...], ...}.
void applyScript(const QByteArray& json);
// n good frames of w x h for a scripted getVideoFrame or getVideoFrameMatEx.
QJsonArray frameScript(int n, int w = 8, int h = 6);
// The size of the JPEG image in bytes; a null size when it is not one.
QSize jpegSize(const QByteArray& bytes);
// Whether a reply has the "Begin<name>...End<name>" form.
bool isFramedReplyOf(const QString& reply, const QString& name);
// What a "Begin<name>...End<name>" reply carries; a null QString when the reply is not one.
QString between(const QString& reply, const QString& name);

// The capture thread's preview size and open camera code, which it keeps to itself.
class CaptureImgThreadTestAccess {
public:
    static QSize previewSize()
    {
        const CaptureImgThread* t = CaptureImgThread::instance();
        return QSize(t->previewWidth(), t->previewHeight());
    }
    static int currentCamera() { return CaptureImgThread::instance()->currentCamera(); }
    static int queuedOperations() { return CaptureImgThread::instance()->queuedOperations(); }
    // The start retries' pauses, a failed frame's and the recovery's, in milliseconds.
    static void setDelays(int firstRetryMs, int secondRetryMs, int failureMs, int recoveryMs)
    {
        CaptureImgThread::setDelays(firstRetryMs, secondRetryMs, failureMs, recoveryMs);
    }
};
