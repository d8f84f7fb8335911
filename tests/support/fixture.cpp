#include "fixture.h"

#include "devicelib/portable/core.h"
#include "dispatch/messagerun.h"
#include "transport/websocketservermanager.h"

#include <QBuffer>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QImageReader>
#include <QMutex>
#include <QMutexLocker>
#include <QFile>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>

Page::Page()
{
    connect(&ws, &QWebSocket::textMessageReceived, this, [this](const QString& m) { got << m; });
}

bool Page::open(quint16 port)
{
    ws.open(QUrl(QStringLiteral("ws://127.0.0.1:%1").arg(port)));
    return waitFor([this] { return ws.state() == QAbstractSocket::ConnectedState; });
}

QString Page::next(int timeoutMs)
{
    waitFor([this] { return !got.isEmpty(); }, timeoutMs);
    return got.isEmpty() ? QString() : got.takeFirst();
}

QStringList Page::drain(int quietMs)
{
    int seen = -1;
    while (seen != got.size()) {
        seen = got.size();
        QTest::qWait(quietMs);
    }
    const QStringList r = got;
    got.clear();
    return r;
}

ServerPage::ServerPage(WebSocketServerManager& mgr)
{
    connect(&ws, &QWebSocket::textMessageReceived, [this](const QString& m) {
        if (m.startsWith(QLatin1String("BeginbStopPlay")))
            got.removeAll(m);
    });
    const int before = mgr.clientCount();
    open(mgr.serverPort());
    waitFor([&] { return mgr.clientCount() > before; });
}

PagePair::PagePair() : m_server(QStringLiteral("test"), QWebSocketServer::NonSecureMode)
{
    m_server.listen(QHostAddress::LocalHost, 0);
    QSignalSpy accepted(&m_server, &QWebSocketServer::newConnection);
    open(m_server.serverPort());
    if (accepted.count() > 0 || accepted.wait(5000))
        m_serverSide = m_server.nextPendingConnection();
    makeCurrent();
}

PagePair::~PagePair()
{
    if (gpWebSocket == m_serverSide)
        gpWebSocket = nullptr;
    ws.abort();
    delete m_serverSide;
}

bool PagePair::isConnected() const
{
    return m_serverSide && ws.state() == QAbstractSocket::ConnectedState;
}

void PagePair::makeCurrent()
{
    gpWebSocket = m_serverSide;
}

QString runCommand(MessageRun& run, PagePair& page, const QString& text, int timeoutMs)
{
    run.recv_msg(text, page.serverSide());
    return page.next(timeoutMs);
}

Trace::Trace()
{
    m_path = m_dir.filePath(QStringLiteral("trace.jsonl"));
    portable::setTraceFile(m_path);
}

Trace::~Trace()
{
    portable::setTraceFile(QString());
}

QList<QJsonObject> Trace::calls() const
{
    QList<QJsonObject> r;
    QFile f(m_path);
    if (!f.open(QIODevice::ReadOnly))
        return r;
    for (const QByteArray& line : f.readAll().split('\n')) {
        if (!line.isEmpty())
            r << QJsonDocument::fromJson(line).object();
    }
    return r;
}

QStringList Trace::functions() const
{
    QStringList r;
    for (const QJsonObject& o : calls())
        r << o.value(QStringLiteral("fn")).toString();
    return r;
}

QList<QJsonObject> Trace::callsOf(const QString& fn) const
{
    QList<QJsonObject> r;
    for (const QJsonObject& o : calls())
        if (o.value(QStringLiteral("fn")).toString() == fn)
            r << o;
    return r;
}

void Trace::clear()
{
    QFile f(m_path);
    f.open(QIODevice::WriteOnly | QIODevice::Truncate);
}

bool waitFor(const std::function<bool()>& done, int timeoutMs)
{
    QElapsedTimer t;
    t.start();
    while (!done() && t.elapsed() < timeoutMs)
        QTest::qWait(2);
    return done();
}

QByteArray readFile(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

bool writeFile(const QString& path, const QByteArray& content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(content) == content.size();
}

namespace {
QMutex g_logMutex;
QStringList g_logLines;
QString g_logPrefix;
QtMessageHandler g_previousHandler = nullptr;

void recordLog(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    {
        QMutexLocker lock(&g_logMutex);
        if (text.startsWith(g_logPrefix))
            g_logLines << text;
    }
    if (g_previousHandler)
        g_previousHandler(type, context, text);
}
}  // namespace

LogCapture::LogCapture(const QString& prefix)
{
    QMutexLocker lock(&g_logMutex);
    g_logLines.clear();
    g_logPrefix = prefix;
    g_previousHandler = qInstallMessageHandler(recordLog);
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(g_previousHandler);
}

QStringList LogCapture::lines() const
{
    QMutexLocker lock(&g_logMutex);
    return g_logLines;
}

void applyScript(const QByteArray& json)
{
    const QJsonObject o = QJsonDocument::fromJson(json).object();
    for (auto it = o.begin(); it != o.end(); ++it)
        portable::setScript(it.key(), it.value().toArray());
}

QJsonArray frameScript(int n, int w, int h)
{
    QJsonArray a;
    for (int i = 0; i < n; ++i)
        a.append(QJsonObject{{"ret", true}, {"out", QJsonArray{QJsonObject{{"w", w}, {"h", h}}}}});
    return a;
}

QSize jpegSize(const QByteArray& bytes)
{
    QBuffer buffer;
    buffer.setData(bytes);
    QImageReader reader(&buffer);
    return reader.format() == "jpeg" ? reader.read().size() : QSize();
}

QString between(const QString& reply, const QString& name)
{
    const QString head = "Begin" + name, tail = "End" + name;
    if (!reply.startsWith(head) || !reply.endsWith(tail))
        return QString();
    return reply.mid(head.size(), reply.size() - head.size() - tail.size());
}

bool isFramedReplyOf(const QString& reply, const QString& name)
{
    return reply.startsWith(QStringLiteral("Begin") + name) && reply.endsWith(QStringLiteral("End") + name);
}
