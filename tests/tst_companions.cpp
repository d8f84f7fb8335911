// The signature and browser-helper clients against services played by this test on local
// sockets in a private TMPDIR: the frames they send, byte for byte, and where the answers go.
#include "fixture.h"

#include "companion/browserlaunch.h"
#include "companion/signsouthinterface.h"
#include "companion/webbrowser.h"
#include "companion/webbrowsersouthinterface.h"
#include "dispatch/messagerun.h"
#include "transport/websocketservermanager.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QLocalServer>
#include <QLocalSocket>
#include <QTest>

#include <atomic>
#include <cerrno>
#include <memory>
#include <thread>

#include <poll.h>
#include <unistd.h>

namespace {

QByteArray int32(qint32 v) { return QByteArray(reinterpret_cast<const char*>(&v), 4); }
QByteArray field(const QByteArray& bytes) { return int32(bytes.size()) + bytes; }

// A companion service: takes each new connection and keeps what the latest one sent.
class FakeService : public QObject {
public:
    explicit FakeService(const QString& name)
    {
        QLocalServer::removeServer(name);
        server.listen(name);
        connect(&server, &QLocalServer::newConnection, this, [this] {
            peer = server.nextPendingConnection();
            got.clear();
            connect(peer, &QLocalSocket::readyRead, this, [this, p = peer] { if (p == peer) got += p->readAll(); });
        });
    }
    // What the latest connection sent once size bytes are in; an empty frame is looked for briefly.
    QByteArray receive(int size) { waitFor([&] { return got.size() >= qMax(size, 1); }, size ? 3000 : 300); return got; }
    QLocalServer server;
    QLocalSocket* peer = nullptr;
    QByteArray got;
};

QString json(const char* location, const char* pdf, const char* retain, int timeout)
{
    return QStringLiteral("{\n    \"location\": \"%1\",\n    \"pdfpath\": \"%2\",\n    \"retain\": \"%3\",\n"
                          "    \"timeout\": %4,\n    \"xmlpath\": \"b.xml\"\n}\n")
        .arg(QLatin1String(location), QString::fromUtf8(pdf), QLatin1String(retain)).arg(timeout);
}

}  // namespace

class TestCompanions : public QObject {
    Q_OBJECT

    QTemporaryDir m_tmp;
    std::unique_ptr<WebSocketServerManager> m_mgr;
    std::unique_ptr<FakeService> m_sign, m_browser;
    std::unique_ptr<ServerPage> m_teller, m_other;

private slots:
    void initTestCase()
    {
        // Socket names follow TMPDIR; the waits are cut short before the clients first read them.
        qputenv("TMPDIR", m_tmp.path().toUtf8());
        qputenv("RVO_COMPANION_WAIT_MS", "200");
        m_sign = std::make_unique<FakeService>(SignSouthInterface::kServerName);
        m_browser = std::make_unique<FakeService>(Webbrowsersouthinterface::kServerName);
        QVERIFY(m_sign->server.fullServerName().startsWith(m_tmp.path()));
        m_mgr = std::make_unique<WebSocketServerManager>(QStringLiteral("boreaTcp"), QWebSocketServer::NonSecureMode);
        QVERIFY(m_mgr->websocke_server_start(QHostAddress::LocalHost, 0));
        m_teller = std::make_unique<ServerPage>(*m_mgr);
        m_other = std::make_unique<ServerPage>(*m_mgr);
    }
    void cleanupTestCase() { m_teller.reset(), m_other.reset(), m_mgr.reset(); }

    // The frames each command sends, byte for byte; the other companion's client is dropped first.
    void frames_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QByteArray>("frame");
        QTest::addColumn<bool>("connected");
        const auto sign = [](qint32 type, const QString& j) { return int32(type) + field(j.toUtf8()); };
        const QByteArray site = (QCoreApplication::applicationDirPath() + "/webSite/").toUtf8();
        const auto page = [&](const char* file, const QByteArray& data) { return int32(2) + field(site + file) + field(data); };
        QTest::newRow("sign") << "DoGWQ_StartSign(a.pdf,b.xml,1.2.3.4,1,30)" << sign(1, json("1,2,3,4", "a.pdf", "1", 30)) << true;
        QTest::newRow("Ex, timeout not a number") << "DoGWQ_StartSignEx(a.pdf,b.xml,1.2.3.4,0,x)"
                                                  << sign(2, json("1,2,3,4", "a.pdf", "0", 0)) << true;
        QTest::newRow("five numbers, UTF-8 path") << "DoGWQ_StartSign(合同.pdf,b.xml,2.10.20.30.40,1,0)"
                                                  << sign(1, json("2,10,20,30,40", "合同.pdf", "1", 0)) << true;
        QTest::newRow("three numbers: kept connected") << "DoGWQ_StartSign(a.pdf,b.xml,1.2.3,1,30)" << QByteArray() << true;
        QTest::newRow("four fields: disconnected") << "DoGWQ_StartSign(a.pdf,b.xml,1.2.3.4,1)" << QByteArray() << false;
        QTest::newRow("teller") << "GWQ_TellerInfo(no=12,name=Li)" << page("teller.html", "no=12,name=Li") << true;
        QTest::newRow("call") << "GWQ_CallNumber(no=7,window=3)" << page("callNo.html", "no=7,window=3") << true;
        QTest::newRow("pay, parentheses and JSON") << "GWQ_PaymentInfo({\"amount\":\"1(2)\"})" << page("pay.html", "{\"amount\":\"1(2)\"}") << true;
        QTest::newRow("info, UTF-8") << "DoGWQ_StartInfo(姓名=李四)" << page("infoExchange.html", "姓名=李四") << true;
        QTest::newRow("evaluate, no data") << "DoGWQ_StartEvaluator()" << page("evaluate.html", "") << true;
        QTest::newRow("OpenURL, whole text") << "OpenURL(http://h/p?a=1,b=(2))" << int32(1) + field("http://h/p?a=1,b=(2)") << true;
    }
    void frames()
    {
        QFETCH(QString, command);
        QFETCH(QByteArray, frame);
        QFETCH(bool, connected);
        const QString name = command.left(command.indexOf('('));
        const bool signing = name.startsWith("DoGWQ_StartSign");
        m_teller->ask(signing ? "GWQ_CallNumber(no=1)" : "DoGWQ_StartSign(a.pdf,b.xml,1.2.3.4,1,30)");
        QVERIFY(SignSouthInterface::instance()->isConnected() != signing);
        QCOMPARE(m_teller->ask(command), QStringLiteral("Begin%1%2End%1").arg(name, frame.isEmpty() ? "false" : "true"));
        QCOMPARE((signing ? m_sign : m_browser)->receive(frame.size()), frame);
        QCOMPARE(SignSouthInterface::instance()->isConnected(), signing && connected);
        QCOMPARE(Webbrowsersouthinterface::instance()->isConnected(), !signing);
        if (!signing && frame.startsWith(int32(2))) {
            // "@" answers with the page's data, and only the page that asked
            const QString answer = m_other->ask(QStringLiteral("@x"));
            QVERIFY(!answer.isNull() && answer == command.mid(name.size() + 1).chopped(1));
            QVERIFY(m_teller->drain().isEmpty());
        }
    }

    // The service's answers: length-prefixed, forwarded to every page only past 100 bytes,
    // even with no page current; a broken one is dropped with a log line and the next arrives.
    void signingReplies_data()
    {
        QTest::addColumn<QByteArray>("sent");
        QTest::addColumn<QByteArray>("forwarded");
        QTest::addColumn<QString>("log");  // "disconnected": the service leaves after sending
        const QByteArray p100(100, 'a'), p101(101, 'b'), big(10 * 1024 * 1024, 'c');
        QTest::newRow("100 bytes dropped") << field(p100) << QByteArray() << "";
        QTest::newRow("101 bytes") << field(p101) << p101 << "";
        QTest::newRow("10 MB at once") << field(big) << big << "";
        QTest::newRow("length never reached") << int32(500) + p101 << QByteArray() << "fell silent";
        QTest::newRow("over 64 MiB refused") << int32(64 * 1024 * 1024 + 1) + p101 << QByteArray() << "refused";
        QTest::newRow("negative refused") << int32(-5) + p101 << QByteArray() << "refused";
        QTest::newRow("closed mid-frame") << int32(300) + p101 << QByteArray() << "disconnected";
    }
    void signingReplies()
    {
        QFETCH(QByteArray, sent);
        QFETCH(QByteArray, forwarded);
        QFETCH(QString, log);
        const bool closes = log == QLatin1String("disconnected");
        LogCapture captured;
        QCOMPARE(m_teller->ask(QStringLiteral("DoGWQ_StartSign(a.pdf,b.xml,1.2.3.4,1,30)")),
                 QStringLiteral("BeginDoGWQ_StartSigntrueEndDoGWQ_StartSign"));
        m_sign->receive(8 + json("1,2,3,4", "a.pdf", "1", 30).size());
        gpWebSocket = nullptr;
        // Written from another thread, as a separate service would: the reader holds this one.
        // The thread gives up on its own after 30 s, so it can always be joined.
        std::atomic<bool> done{false};
        qint64 at = 0;
        std::thread writer([fd = int(m_sign->peer->socketDescriptor()), &sent, &at, &done] {
            QElapsedTimer clock;
            clock.start();
            while (at < sent.size() && !clock.hasExpired(30000)) {
                pollfd p{fd, POLLOUT, 0};
                ::poll(&p, 1, 1000);
                const ssize_t n = ::write(fd, sent.constData() + at, size_t(sent.size() - at));
                if (n < 0 && errno != EAGAIN && errno != EINTR)
                    break;
                at += std::max<ssize_t>(0, n);
            }
            done = true;
        });
        waitFor([&] { return done.load(); }, 35000);
        writer.join();
        QCOMPARE(at, qint64(sent.size()));
        if (closes)
            m_sign->peer->disconnectFromServer();
        if (!log.isEmpty())
            QVERIFY(waitFor([&] { return captured.contains(log); }));
        for (ServerPage* page : {m_teller.get(), m_other.get()}) {
            if (!forwarded.isEmpty())
                QCOMPARE(page->next(10000).toLatin1(), forwarded);
            QVERIFY(page->drain().isEmpty());
        }
        if (!log.isEmpty() && !closes) {
            m_sign->peer->write(field(QByteArray(120, 'z')));
            for (ServerPage* page : {m_teller.get(), m_other.get()})
                QCOMPARE(page->next(), QString(120, 'z'));
        }
    }

    // The helper's answers go to the current page only, cut at the first zero byte.
    void helperAnswers_data()
    {
        QTest::addColumn<QByteArray>("sent");
        QTest::addColumn<QString>("teller");
        QTest::newRow("text") << QByteArray("BeginWebBrowseropened xEndWebBrowser") << "BeginWebBrowseropened xEndWebBrowser";
        QTest::newRow("cut at zero") << QByteArray("abc\0def", 7) << "abc";
    }
    void helperAnswers()
    {
        QFETCH(QByteArray, sent);
        QFETCH(QString, teller);
        QCOMPARE(m_teller->ask(QStringLiteral("OpenURL(x)")), QStringLiteral("BeginOpenURLtrueEndOpenURL"));
        m_other->ask(QStringLiteral("@"));  // asking does not make a page current
        waitFor([&] { return m_browser->peer != nullptr; });
        m_browser->peer->write(sent);
        QCOMPARE(m_teller->next(), teller);
        QVERIFY(m_other->drain().isEmpty());
    }

    void exitAlwaysTrue()
    {
        m_browser->server.close();
        QCOMPARE(m_teller->ask(QStringLiteral("OpenURL(x)")), QStringLiteral("BeginOpenURLfalseEndOpenURL"));
        QCOMPARE(m_teller->ask(QStringLiteral("WebbrowserExit()")), QStringLiteral("BeginWebbrowserExittrueEndWebbrowserExit"));
        QLocalServer::removeServer(Webbrowsersouthinterface::kServerName);
        QVERIFY(m_browser->server.listen(Webbrowsersouthinterface::kServerName));
    }

    void screenChoice_data()
    {
        QTest::addColumn<QList<QRect>>("screens");
        QTest::addColumn<int>("pad");
        QTest::addColumn<QString>("head");
        QTest::newRow("one screen") << QList<QRect>{{0, 0, 1920, 1080}} << -1 << "--window-size=1280,800 --new-window u";
        QTest::newRow("three, smallest last") << QList<QRect>{{0, 0, 1920, 1080}, {1920, 0, 1600, 900}, {3520, 0, 1280, 800}}
                                              << 2 << "--kiosk --window-position=3520,0 --window-size=1280,800";
        QTest::newRow("three, not lower in both") << QList<QRect>{{0, 0, 1280, 800}, {1280, 0, 1024, 900}, {2304, 0, 1400, 700}}
                                                  << 0 << "--kiosk --window-position=0,0 --window-size=1280,800";
        QTest::newRow("three, tie keeps earlier") << QList<QRect>{{0, 0, 1920, 1080}, {1920, 0, 800, 600}, {2720, 0, 800, 600}}
                                                  << 1 << "--kiosk --window-position=1920,0";
    }
    void screenChoice()
    {
        QFETCH(QList<QRect>, screens);
        QFETCH(int, pad);
        QFETCH(QString, head);
        QCOMPARE(browserlaunch::padScreen(screens), pad);
        const QStringList args = browserlaunch::arguments(screens, QSize(1280, 800), "u", "/tmp/veltrobrowser12345");
        QVERIFY2(args.join(' ').startsWith(head), qPrintable(args.join(' ')));
    }
};

QTEST_MAIN(TestCompanions)
#include "tst_companions.moc"
