#include "fixture.h"

#include "devicelib/portable/core.h"
#include "dispatch/messagerun.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>

PagePair::PagePair() : m_server(QStringLiteral("test"), QWebSocketServer::NonSecureMode)
{
    m_server.listen(QHostAddress::LocalHost, 0);
    connect(&m_page, &QWebSocket::textMessageReceived, this, [this](const QString& m) { m_received << m; });
    QSignalSpy accepted(&m_server, &QWebSocketServer::newConnection);
    m_page.open(QUrl(QStringLiteral("ws://127.0.0.1:%1").arg(m_server.serverPort())));
    if (accepted.wait(5000) || accepted.count() > 0)
        m_serverSide = m_server.nextPendingConnection();
    QElapsedTimer t;
    t.start();
    while (m_page.state() != QAbstractSocket::ConnectedState && t.elapsed() < 5000)
        QTest::qWait(5);
    makeCurrent();
}

PagePair::~PagePair()
{
    if (gpWebSocket == m_serverSide)
        gpWebSocket = nullptr;
    m_page.abort();
    delete m_serverSide;
}

bool PagePair::isConnected() const
{
    return m_serverSide && m_page.state() == QAbstractSocket::ConnectedState;
}

void PagePair::makeCurrent()
{
    gpWebSocket = m_serverSide;
}

QString PagePair::next(int timeoutMs)
{
    QElapsedTimer t;
    t.start();
    while (m_received.isEmpty() && t.elapsed() < timeoutMs)
        QTest::qWait(2);
    if (m_received.isEmpty())
        return QString();
    return m_received.takeFirst();
}

QStringList PagePair::drain(int quietMs)
{
    int seen = -1;
    while (seen != m_received.size()) {
        seen = m_received.size();
        QTest::qWait(quietMs);
    }
    QStringList r = m_received;
    m_received.clear();
    return r;
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
