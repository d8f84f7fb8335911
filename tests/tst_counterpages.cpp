// The counter pages in headless Chromium, driven over its DevTools socket: each shows the data
// it is opened with, asks the server with "@" when opened without any, and the customer's
// rating reaches the teller's page.
#include "fixture.h"

#include "companion/webbrowser.h"
#include "transport/websocketservermanager.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QProcess>
#include <QStandardPaths>
#include <QTest>
#include <QUrl>

#include <memory>

#ifndef RVO_SITE_DIR
#error "RVO_SITE_DIR must name the counter pages' folder"
#endif

namespace {

// One DevTools connection to the browser; pages are targets attached in flat mode.
class DevTools : public QObject {
public:
    bool open(const QString& url)
    {
        connect(&ws, &QWebSocket::textMessageReceived, this, [this](const QString& m) {
            const QJsonObject o = QJsonDocument::fromJson(m.toUtf8()).object();
            replies.insert(o.value("id").toInt(), o);  // events have no id: 0, never asked for
        });
        ws.open(QUrl(url));
        return waitFor([this] { return ws.state() == QAbstractSocket::ConnectedState; });
    }
    QJsonObject call(const QString& method, const QJsonObject& params, const QString& session = QString())
    {
        const int id = ++lastId;
        const QJsonObject o{{"id", id}, {"method", method}, {"params", params}, {"sessionId", session}};
        ws.sendTextMessage(QString::fromUtf8(QJsonDocument(o).toJson(QJsonDocument::Compact)));
        waitFor([&] { return replies.contains(id); }, 10000);
        return replies.take(id).value("result").toObject();
    }
    // Opens url in a new tab; the session to talk to it.
    QString page(const QString& url)
    {
        const QString target = call("Target.createTarget", {{"url", url}}).value("targetId").toString();
        return call("Target.attachToTarget", {{"targetId", target}, {"flatten", true}}).value("sessionId").toString();
    }
    QString eval(const QString& session, const QString& expression)
    {
        const QJsonObject r = call("Runtime.evaluate", {{"expression", expression}, {"returnByValue", true}}, session);
        return r.value("result").toObject().value("value").toString();
    }
    // Evaluates until the page gives want (the last value otherwise).
    QString until(const QString& session, const QString& expression, const QString& want)
    {
        QString got;
        return waitFor([&] { return (got = eval(session, expression)) == want; }, 8000), got;
    }

    QWebSocket ws;
    QHash<int, QJsonObject> replies;
    int lastId = 0;
};

QString pageUrl(const QString& file, const QString& query, const QString& data)
{
    QString url = QUrl::fromLocalFile(QStringLiteral(RVO_SITE_DIR "/") + file).toString(QUrl::FullyEncoded) + query;
    if (!data.isEmpty())
        url += QLatin1Char('#') + QString::fromLatin1(QUrl::toPercentEncoding(data));
    return url;
}

const char* kShown = "[...document.querySelectorAll('main [id]:not(table):not(button), main td')].map(e => (e.src || e.textContent).trim()).join('|')";

}  // namespace

class TestCounterPages : public QObject {
    Q_OBJECT

    QTemporaryDir m_profile;
    QProcess m_browser;
    DevTools m_tools;
    std::unique_ptr<WebSocketServerManager> m_mgr;

private slots:
    void initTestCase()
    {
        const QString chromium = QStandardPaths::findExecutable("chromium");
        if (chromium.isEmpty())
            QSKIP("chromium is not installed");
        m_browser.start(chromium, {"--headless", "--no-sandbox", "--disable-gpu", "--remote-debugging-port=0",
                                   "--user-data-dir=" + m_profile.path(), "about:blank"});
        const QString portFile = m_profile.path() + "/DevToolsActivePort";
        QVERIFY(waitFor([&] { return readFile(portFile).count('\n') >= 1; }, 15000));
        const QList<QByteArray> lines = readFile(portFile).split('\n');
        QVERIFY(m_tools.open(QStringLiteral("ws://127.0.0.1:%1%2").arg(QString(lines[0]), QString(lines[1]))));
        m_mgr = std::make_unique<WebSocketServerManager>(QStringLiteral("boreaTcp"), QWebSocketServer::NonSecureMode);
        QVERIFY(m_mgr->websocke_server_start(QHostAddress::LocalHost, 0));
    }
    void cleanupTestCase()
    {
        m_mgr.reset();
        if (m_browser.state() != QProcess::NotRunning) {
            m_browser.terminate();
            if (!m_browser.waitForFinished(5000))
                m_browser.kill();
        }
    }

    // Each page shows the data it is opened with. The answering pages are opened without data
    // and ask the server with "@"; the customer's answer reaches the teller's page.
    void pages_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("data");
        QTest::addColumn<QString>("shown");
        QTest::addColumn<QString>("click");
        QTest::addColumn<QString>("told");
        QTest::newRow("callNo") << "callNo.html" << "no=12,window=3" << "12|3" << "" << "";
        QTest::newRow("pay, JSON") << "pay.html" << R"({"amount":"30.5","items":[{"name":"工本费","amount":10}]})"
                                   << "工本费|¥ 10.00|¥ 30.50" << "" << "";
        QTest::newRow("infoExchange") << "infoExchange.html" << "姓名=李四,电话=13800000000" << "姓名|李四|电话|13800000000|" << "" << "";
        QTest::newRow("teller, photo") << "teller.html" << R"({"no":"8","name":"王五","photo":"data:image/png;base64,iVBORw0KGgo="})"
                                       << "data:image/png;base64,iVBORw0KGgo=|王五|8" << "" << "";
        QTest::newRow("evaluate") << "evaluate.html" << "no=3,name=赵六" << "赵六|3|" << "" << "";
        QTest::newRow("rating, asked with @") << "evaluate.html" << "no=3,name=赵六" << "赵六|3|" << "[data-evaluate=\"4\"]"
                                              << R"({"evaluate":4})";
        QTest::newRow("information rejected, asked with @") << "infoExchange.html" << "no=3" << "no|3|" << "#reject"
                                                            << R"({"infoExchange":"reject"})";
    }
    void pages()
    {
        QFETCH(QString, file);
        QFETCH(QString, data);
        QFETCH(QString, shown);
        QFETCH(QString, click);
        QFETCH(QString, told);
        std::unique_ptr<ServerPage> teller;
        QString query;
        if (!click.isEmpty()) {
            // Any page leaving clears the current page: the last row's pages are gone first.
            QVERIFY(waitFor([&] { return m_mgr->clientCount() == 0; }));
            teller = std::make_unique<ServerPage>(*m_mgr);
            QCOMPARE(teller->ask("WebbrowserExit()"), QStringLiteral("BeginWebbrowserExittrueEndWebbrowserExit"));
            WebBrowser::instance()->setPageData(data);
            query = QStringLiteral("?ws=ws://127.0.0.1:%1").arg(m_mgr->serverPort());
        }
        const QString session = m_tools.page(pageUrl(file, query, teller ? QString() : data));
        QCOMPARE(m_tools.until(session, kShown, shown), shown);
        if (teller) {
            m_tools.eval(session, QStringLiteral("document.querySelector('%1').click()").arg(click));
            QCOMPARE(teller->next(8000), told);
        }
        m_tools.call("Page.close", {}, session);
    }
};

QTEST_MAIN(TestCounterPages)
#include "tst_counterpages.moc"
