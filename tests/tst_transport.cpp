// The WebSocket transport through a real server on a free port and real pages: routing of "@",
// "#" and commands, the current client, broadcasts, disconnects, the slow-page safeguard, and
// who may connect at all (addresses, Host, Origin, page limit, message size).
#include "fixture.h"

#include "camera/captureimgthread.h"
#include "camera/stoprecthread.h"
#include "companion/signsouthinterface.h"
#include "dispatch/messagerun.h"
#include "identity/facematchthread.h"
#include "identity/livingbodydetectthread.h"
#include "identity/readidcardthread.h"
#include "transport/handshakeguard.h"
#include "transport/websocketservermanager.h"

#include <QNetworkInterface>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QTest>
#include <QThread>
#include <QWebSocket>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <vector>

namespace {

// Stopping the preview (every disconnect does) makes the camera thread tell every page how the
// stop went, at a moment of its choosing: pages of these tests look past those answers.
bool isStopAnswer(const QString& m)
{
    return m == QLatin1String("BeginbStopPlaytrueEndbStopPlay") || m == QLatin1String("BeginbStopPlayfalseEndbStopPlay");
}

class ClientPage : public Page {
public:
    ClientPage()
    {
        connect(&ws, &QWebSocket::textMessageReceived, [this](const QString& m) {
            if (isStopAnswer(m))
                got.removeAll(m);
        });
    }
    bool open(WebSocketServerManager& mgr)
    {
        const int before = mgr.clientCount();
        return Page::open(mgr.serverPort()) && waitFor([&] { return mgr.clientCount() > before; });
    }
    QString command(const QString& text)
    {
        ws.sendTextMessage(text);
        return next();
    }
    bool isCurrent() const { return gpWebSocket && gpWebSocket->peerPort() == ws.localPort(); }
};

// A page that shakes hands by hand (any Host and Origin) and reads only when told to, with a
// small receive buffer: a browser tab that hangs.
class RawPage {
public:
    ~RawPage()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }

    // The status code the server answered the upgrade with (101 when it became a WebSocket).
    int open(const QHostAddress& to, quint16 port, const QByteArray& extraHeaders = QByteArray(),
             const QByteArray& host = QByteArray())
    {
        const bool v6 = to.protocol() == QAbstractSocket::IPv6Protocol;
        m_fd = ::socket(v6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0);
        const int small = 4096;
        ::setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        ::fcntl(m_fd, F_SETFL, ::fcntl(m_fd, F_GETFL) | O_NONBLOCK);
        sockaddr_in a4{};
        sockaddr_in6 a6{};
        if (v6) {
            a6.sin6_family = AF_INET6;
            a6.sin6_port = htons(port);
            const Q_IPV6ADDR ip = to.toIPv6Address();
            memcpy(&a6.sin6_addr, &ip, 16);
            ::connect(m_fd, reinterpret_cast<sockaddr*>(&a6), sizeof a6);
        } else {
            a4.sin_family = AF_INET;
            a4.sin_port = htons(port);
            a4.sin_addr.s_addr = htonl(to.toIPv4Address());
            ::connect(m_fd, reinterpret_cast<sockaddr*>(&a4), sizeof a4);
        }
        if (!waitFor([&] { pollfd p{m_fd, POLLOUT, 0}; return ::poll(&p, 1, 0) == 1; }, 2000))
            return -1;
        int err = 0;
        socklen_t len = sizeof err;
        if (::getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err != 0)
            return -1;   // nobody listens there
        const QByteArray request = "GET / HTTP/1.1\r\nHost: "
                                   + (host.isNull() ? "127.0.0.1:" + QByteArray::number(port) : host)
                                   + "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                                     "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n"
                                   + extraHeaders + "\r\n";
        ::send(m_fd, request.constData(), size_t(request.size()), MSG_NOSIGNAL);
        if (!waitFor([&] { readAvailable(); return m_in.contains("\r\n\r\n") || m_closed; }))
            return -1;
        const int end = m_in.indexOf("\r\n\r\n");
        if (end < 0)
            return 0;
        const QByteArray head = m_in.left(end + 4);
        m_in.remove(0, end + 4);
        return head.mid(9, 3).toInt();
    }

    quint16 localPort() const
    {
        sockaddr_in addr{};
        socklen_t len = sizeof addr;
        ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len);
        return ntohs(addr.sin_port);
    }

    // A client frame must be masked; a zero mask leaves the payload as it is.
    void sendText(const QByteArray& utf8)
    {
        const QByteArray frame = QByteArray(1, char(0x81)) + char(0x80 | utf8.size()) + QByteArray(4, '\0') + utf8;
        ::send(m_fd, frame.constData(), size_t(frame.size()), MSG_NOSIGNAL);
    }
    // Announces one text frame of `size` bytes and sends `sent` of them.
    void sendHugeFrameStart(quint64 size, int sent)
    {
        QByteArray frame = QByteArray(1, char(0x81)) + char(0x80 | 127);
        for (int i = 7; i >= 0; --i)
            frame += char((size >> (8 * i)) & 0xff);
        frame += QByteArray(4, '\0') + QByteArray(sent, 'x');
        ::send(m_fd, frame.constData(), size_t(frame.size()), MSG_NOSIGNAL);
    }

    // Complete text messages received so far; the close frame's code once one came.
    QStringList readMessages()
    {
        readAvailable();
        QStringList messages;
        while (m_in.size() >= 2) {
            qint64 len = quint8(m_in[1]) & 0x7f;
            int pos = 2;
            if (len >= 126) {
                pos = len == 126 ? 4 : 10;
                if (m_in.size() < pos)
                    break;
                len = 0;
                for (int i = 2; i < pos; ++i)
                    len = (len << 8) | quint8(m_in[i]);
            }
            if (m_in.size() < pos + len)
                break;
            const int opcode = quint8(m_in[0]) & 0x0f;
            if (opcode == 0x1)
                messages << QString::fromUtf8(m_in.mid(pos, int(len)));
            else if (opcode == 0x8 && len >= 2)
                closeCode = (quint8(m_in[pos]) << 8) | quint8(m_in[pos + 1]);
            m_in.remove(0, pos + int(len));
        }
        return messages;
    }

    int closeCode = 0;

private:
    void readAvailable()
    {
        char buf[65536];
        ssize_t n;
        while ((n = ::recv(m_fd, buf, sizeof buf, 0)) > 0)
            m_in.append(buf, int(n));
        if (n == 0)
            m_closed = true;
    }

    int m_fd = -1;
    bool m_closed = false;
    QByteArray m_in;
};

enum Emitter { Capture, Sign, ReadIdCard, FaceMatch, LivingBody, StopRec };

void emitFrom(int who, const QByteArray& bytes)
{
    switch (who) {
    case Capture: emit CaptureImgThread::instance()->sig_msg(bytes); break;
    case Sign: emit SignSouthInterface::instance()->sig_msg(bytes); break;
    case ReadIdCard: emit ReadIdCardThread::instance()->sig_msg(bytes); break;
    case FaceMatch: emit FaceMatchThread::instance()->sig_msg(bytes); break;
    case LivingBody: emit LivingBodyDetectThread::instance()->sig_msg(bytes); break;
    case StopRec: emit StopRecThread::instance()->sig_msg(bytes); break;
    }
}

qint64 residentKiB()
{
    QFile f(QStringLiteral("/proc/self/status"));
    f.open(QIODevice::ReadOnly);
    const QRegularExpression re(QStringLiteral("VmRSS:\\s+(\\d+)"));
    return re.match(QString::fromLatin1(f.readAll())).captured(1).toLongLong();
}

// An address of this machine that is not a loopback one; null when it has none.
QHostAddress outsideAddress()
{
    for (const QHostAddress& a : QNetworkInterface::allAddresses()) {
        if (!a.isLoopback() && a.protocol() == QAbstractSocket::IPv4Protocol)
            return a;
    }
    return QHostAddress();
}

}  // namespace

class TestTransport : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() { qRegisterMetaType<QWebSocket*>(); }
    void init() { QVERIFY(start(SecuritySettings())); }
    void cleanup()
    {
        m_mgr.reset();
        QCOMPARE(gpWebSocket, nullptr);
    }

    void startAndStop()
    {
        WebSocketServerManager& mgr = *m_mgr;
        const quint16 port = mgr.serverPort();
        QVERIFY(mgr.websocke_server_start(QHostAddress::LocalHost, 0));   // already running: no change
        QCOMPARE(mgr.serverPort(), port);

        ClientPage a;
        QVERIFY(a.open(mgr));
        QSignalSpy stops(&mgr, &WebSocketServerManager::send_recv_msg);
        QSignalSpy closed(&mgr, &WebSocketServerManager::signal_close);
        mgr.websocke_server_stop();
        QVERIFY(!mgr.running());
        QVERIFY(waitFor([&] { return closed.count() == 1; }));
        QCOMPARE(mgr.clientCount(), 0);
        QVERIFY(stops.count() >= 2);
        QCOMPARE(stops.at(0).at(0).toString(), QStringLiteral("bStopPlay"));
        QCOMPARE(stops.at(1).at(0).toString(), QStringLiteral("bStopPlay4"));
        QVERIFY(waitFor([&] { return a.ws.state() == QAbstractSocket::UnconnectedState; }));

        mgr.websocke_server_stop();
        QVERIFY(mgr.websocke_server_start(QHostAddress::LocalHost, 0));
        ClientPage b;
        QVERIFY(b.open(mgr));
        QVERIFY(isFramedReplyOf(b.command(QStringLiteral("getVersion()")), QStringLiteral("getVersion")));
    }

    void commandsReachTheDispatcherAndMakeTheSenderCurrent()
    {
        ClientPage a;
        ClientPage b;
        QVERIFY(a.open(*m_mgr) && b.open(*m_mgr));
        QVERIFY(isFramedReplyOf(a.command(QStringLiteral("getVersion()")), QStringLiteral("getVersion")));
        QVERIFY(a.isCurrent());
        QVERIFY(isFramedReplyOf(b.command(QStringLiteral("sGetTempPath()")), QStringLiteral("sGetTempPath")));
        QVERIFY(b.isCurrent());

        // A late reply goes to whoever asked last, through the transport's accounting.
        MessageRun::send_msg(QStringLiteral("BeginlImageMatch80EndlImageMatch"));
        QCOMPARE(b.next(), QStringLiteral("BeginlImageMatch80EndlImageMatch"));
        QCOMPARE(a.drain(), QStringList());

        // An unknown command still makes its sender current, and gets no reply.
        a.ws.sendTextMessage(QStringLiteral("noSuchCommand()"));
        QVERIFY(waitFor([&] { return a.isCurrent(); }));
        QCOMPARE(a.drain(), QStringList());
    }

    // Page B sends a message that neither reaches the dispatcher nor changes the current client.
    void routingOfAtHashAndBinary_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<bool>("binary");
        QTest::addColumn<QChar>("current");   // 'a', 'b' (the sender) or '-' (none)
        QTest::addColumn<QStringList>("toA");
        QTest::addColumn<QStringList>("toB");   // not checked for "@": the helper answers B itself

        const QStringList none;
        QTest::newRow("at like a command") << "@getVersion()" << false << QChar('a') << none << none;
        QTest::newRow("at without current") << "@getVersion()" << false << QChar('-') << none << none;
        QTest::newRow("relay from another page") << "#xyz" << false << QChar('a') << QStringList{"xyz"} << none;
        QTest::newRow("relay from the current page") << "#xyz" << false << QChar('b') << none << QStringList{"xyz"};
        QTest::newRow("relay drops one mark") << "##x" << false << QChar('a') << QStringList{"#x"} << none;
        QTest::newRow("empty relay") << "#" << false << QChar('a') << QStringList{""} << none;
        QTest::newRow("relayed command not run") << "#getVersion()" << false << QChar('a') << QStringList{"getVersion()"} << none;
        QTest::newRow("relay without current") << "#xyz" << false << QChar('-') << none << none;
        QTest::newRow("binary command") << "getVersion()" << true << QChar('a') << none << none;
    }

    void routingOfAtHashAndBinary()
    {
        QFETCH(QString, message);
        QFETCH(bool, binary);
        QFETCH(QChar, current);
        QFETCH(QStringList, toA);
        QFETCH(QStringList, toB);
        ClientPage a;
        ClientPage b;
        QVERIFY(a.open(*m_mgr) && b.open(*m_mgr));
        ClientPage* cur = current == 'a' ? &a : current == 'b' ? &b : nullptr;
        if (cur)
            QVERIFY(isFramedReplyOf(cur->command(QStringLiteral("getVersion()")), QStringLiteral("getVersion")));

        QSignalSpy dispatched(m_mgr->messageRun(), &MessageRun::handle_msg_signal);
        if (binary)
            b.ws.sendBinaryMessage(message.toUtf8());
        else
            b.ws.sendTextMessage(message);
        if (!toA.isEmpty() || !toB.isEmpty())
            QVERIFY(waitFor([&] { return !a.got.isEmpty() || !b.got.isEmpty(); }));
        QCOMPARE(a.drain(), toA);
        const QStringList gotB = b.drain();
        if (!message.startsWith('@'))
            QCOMPARE(gotB, toB);
        QCOMPARE(dispatched.count(), 0);

        MessageRun::send_msg(QStringLiteral("probe"));
        if (cur)
            QCOMPARE(cur->next(), QStringLiteral("probe"));
        else
            QCOMPARE(gpWebSocket, nullptr);
    }

    void broadcastReachesEveryPage_data()
    {
        QTest::addColumn<int>("emitter");
        QTest::addColumn<bool>("fromWorkerThread");
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("text");
        const auto row = [](const char* name, Emitter who, bool thread, const QByteArray& bytes, QString text = {}) {
            QTest::newRow(name) << int(who) << thread << bytes << (text.isNull() ? QString::fromUtf8(bytes) : text);
        };
        row("preview frame", Capture, false, "/9j/4AAQSkZJRg==");
        row("signature result", Sign, false, "{\"result\":0}");
        row("card text in UTF-8", ReadIdCard, false, QString::fromUtf8("BeginsIDCardReader张三EndsIDCardReader").toUtf8());
        row("cut at the first NUL", FaceMatch, false, QByteArray("BeginlImageMatch80\0junk", 23), "BeginlImageMatch80");
        row("liveness", LivingBody, false, "BeginbLivingBodyDetecttrueEndbLivingBodyDetect");
        row("recording stopped from a thread", StopRec, true, "BeginbStopRectrueEndbStopRec");
        row("frame from a thread", Capture, true, "AAAA");
    }

    void broadcastReachesEveryPage()
    {
        QFETCH(int, emitter);
        QFETCH(bool, fromWorkerThread);
        QFETCH(QByteArray, bytes);
        QFETCH(QString, text);
        ClientPage pages[3];
        for (ClientPage& p : pages)
            QVERIFY(p.open(*m_mgr));
        QVERIFY(isFramedReplyOf(pages[0].command(QStringLiteral("getVersion()")), QStringLiteral("getVersion")));

        if (fromWorkerThread) {
            std::unique_ptr<QThread> worker(QThread::create([emitter, bytes] { emitFrom(emitter, bytes); }));
            worker->start();
            QVERIFY(worker->wait(5000));
        } else {
            emitFrom(emitter, bytes);
        }
        for (ClientPage& p : pages) {
            QCOMPARE(p.next(), text);
            QCOMPARE(p.drain(), QStringList());
        }
    }

    void disconnectStopsThePreview_data()
    {
        QTest::addColumn<bool>("currentLeaves");
        QTest::addColumn<bool>("abrupt");
        QTest::newRow("another page closes") << false << false;
        QTest::newRow("the current page drops") << true << true;
    }

    void disconnectStopsThePreview()
    {
        QFETCH(bool, currentLeaves);
        QFETCH(bool, abrupt);
        WebSocketServerManager& mgr = *m_mgr;
        ClientPage a;
        ClientPage b;
        auto leaver = std::make_unique<ClientPage>();
        QVERIFY(a.open(mgr) && b.open(mgr) && leaver->open(mgr));
        ClientPage& current = currentLeaves ? *leaver : a;
        QVERIFY(isFramedReplyOf(current.command(QStringLiteral("getVersion()")), QStringLiteral("getVersion")));

        Trace trace;
        QSignalSpy dispatched(mgr.messageRun(), &MessageRun::handle_msg_signal);
        if (abrupt)
            leaver->ws.abort();
        else
            leaver->ws.close();
        QVERIFY(waitFor([&] { return mgr.clientCount() == 2; }));
        QCOMPARE(gpWebSocket, nullptr);
        QCOMPARE(dispatched.count(), 2);
        QCOMPARE(dispatched.at(0).at(0).toString(), QStringLiteral("bStopPlay"));
        QCOMPARE(dispatched.at(1).at(0).toString(), QStringLiteral("bStopPlay4"));
        QVERIFY(waitFor([&] { return trace.functions().contains(QStringLiteral("bStopPlay")); }));
        QVERIFY(trace.functions().contains(QStringLiteral("bStopPlay4")));

        // Until someone sends a command, replies reach nobody (nor do thread messages once the
        // page they were bound to left); broadcasts still reach the rest.
        leaver.reset();
        MessageRun::send_msg(QStringLiteral("dropped"));
        if (currentLeaves)
            emit mgr.signal_thread_MessageReceived(QStringLiteral("dropped too"));
        emitFrom(Capture, "frame-after-leave");
        QCOMPARE(a.drain(), QStringList{QStringLiteral("frame-after-leave")});
        QCOMPARE(b.drain(), QStringList{QStringLiteral("frame-after-leave")});
        QVERIFY(isFramedReplyOf(b.command(QStringLiteral("getVersion()")), QStringLiteral("getVersion")));
        QVERIFY(b.isCurrent());
    }

    void threadMessagesAccumulatePerConnection()
    {
        std::vector<std::unique_ptr<ClientPage>> all;
        for (int i = 0; i < 3; ++i) {
            all.push_back(std::make_unique<ClientPage>());
            QVERIFY(all.back()->open(*m_mgr));
        }
        QVERIFY(isFramedReplyOf(all[0]->command(QStringLiteral("getVersion()")), QStringLiteral("getVersion")));
        emit m_mgr->signal_thread_MessageReceived(QStringLiteral("t"));
        // Each connection ever made added one more delivery to the current page.
        QCOMPARE(all[0]->drain(), (QStringList{"t", "t", "t"}));
        QCOMPARE(all[1]->drain(), QStringList());
    }

    void pageThatStopsReadingMissesOnlyPreviewFrames()
    {
        WebSocketServerManager& mgr = *m_mgr;
        mgr.setPreviewBacklogLimit(1024 * 1024);
        ClientPage good;
        QVERIFY(good.open(mgr));
        RawPage hung;
        QCOMPARE(hung.open(QHostAddress(QHostAddress::LocalHost), mgr.serverPort()), 101);
        QVERIFY(waitFor([&] { return mgr.clientCount() == 2; }));

        // Far more frames than the limit and every kernel buffer on the way can hold; the good
        // page reads each before the next comes.
        const int frames = 400;
        const QByteArray body(64 * 1024, 'A');
        for (int i = 0; i < frames; ++i) {
            emitFrom(Capture, QByteArray::number(i) + ':' + body);
            QVERIFY(waitFor([&] { return good.got.size() > i; }));
        }
        good.got.clear();

        // The hung page's reply is queued behind the frames, never skipped; so are events.
        hung.sendText("getVersion()");
        QVERIFY(waitFor([&] { return gpWebSocket && gpWebSocket->peerPort() == hung.localPort(); }));
        emitFrom(Capture, "BeginbStartPlaytrueEndbStartPlay");
        emitFrom(Capture, "frame-while-behind");
        emitFrom(StopRec, "BeginbStopRectrueEndbStopRec");

        QStringList received;
        QVERIFY(waitFor([&] { received << hung.readMessages();
            return received.contains(QStringLiteral("BeginbStopRectrueEndbStopRec")); }, 60000));
        const QRegularExpression frame(QStringLiteral("^(\\d+):"));
        int last = -1;
        int hungFrames = 0;
        for (const QString& m : received) {
            const auto match = frame.match(m);
            if (!match.hasMatch())
                continue;
            QVERIFY(match.captured(1).toInt() > last);   // in order, none twice
            last = match.captured(1).toInt();
            ++hungFrames;
        }
        QVERIFY(hungFrames > 0 && hungFrames < frames);
        QVERIFY(received.filter(QStringLiteral("BegingetVersion")).size() == 1);
        QVERIFY(received.contains(QStringLiteral("BeginbStartPlaytrueEndbStartPlay")));
        QVERIFY(!received.contains(QStringLiteral("frame-while-behind")));
        QVERIFY(waitFor([&] { return good.got.size() >= 3; }));
        QCOMPARE(good.got, (QStringList{"BeginbStartPlaytrueEndbStartPlay", "frame-while-behind", "BeginbStopRectrueEndbStopRec"}));

        // Once it has caught up, the hung page gets frames again.
        bool resumed = false;
        for (int i = 0; i < 100 && !resumed; ++i) {
            emitFrom(Capture, "frame-after-catch-up");
            QTest::qWait(20);
            resumed = hung.readMessages().contains(QStringLiteral("frame-after-catch-up"));
        }
        QVERIFY(resumed);
    }

    // --- Who may connect -----------------------------------------------------------------

    void securitySettingsFromTheIniFile_data()
    {
        QTest::addColumn<QByteArray>("ini");
        QTest::addColumn<QString>("listen");   // the addresses, joined by " "
        QTest::addColumn<QStringList>("origins");
        QTest::addColumn<qint64>("maxBytes");
        QTest::addColumn<QString>("badKey");   // the key a log line must name, if any
        const QStringList none;
        QTest::newRow("defaults") << QByteArray() << "127.0.0.1 ::1" << none << qint64(64 << 20) << QString();
        QTest::newRow("hardened") << QByteArray("[security]\nlisten=any\norigins=https://a.example,file://\n"
                                                "maxMessageBytes=1024\nmaxClients=8\n")
                                  << "0.0.0.0" << QStringList{"https://a.example", "file://"} << qint64(1024) << QString();
        QTest::newRow("quoted list, one address") << QByteArray("[security]\nlisten=10.0.0.7\norigins=\"null,none\"\n")
                                                  << "10.0.0.7" << QStringList{"null", "none"} << qint64(64 << 20) << QString();
        QTest::newRow("bad listen") << QByteArray("[security]\nlisten=everywhere\n") << "127.0.0.1 ::1" << none
                                    << qint64(64 << 20) << "security/listen";
        QTest::newRow("bad size") << QByteArray("[security]\nmaxMessageBytes=-5\n") << "127.0.0.1 ::1" << none
                                  << qint64(64 << 20) << "security/maxMessageBytes";
    }

    void securitySettingsFromTheIniFile()
    {
        QFETCH(QByteArray, ini);
        QFETCH(QString, listen);
        QFETCH(QStringList, origins);
        QFETCH(qint64, maxBytes);
        QFETCH(QString, badKey);
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("server.ini"));
        QVERIFY(writeFile(path, ini));
        LogCapture log(QStringLiteral("settings "));
        const SecuritySettings s = SecuritySettings::load(path);
        QStringList addresses;
        for (const QHostAddress& a : s.listenAddresses())
            addresses << a.toString();
        QCOMPARE(addresses.join(' '), listen);
        QCOMPARE(s.origins, origins);
        QCOMPARE(s.maxMessageBytes, maxBytes);
        QCOMPARE(log.lines().size(), badKey.isEmpty() ? 0 : 1);
        if (!badKey.isEmpty())
            QVERIFY(log.contains(path) && log.contains(badKey));
        QCOMPARE(readFile(path), ini);   // never written
    }

    void hostAndOriginRules_data()
    {
        QTest::addColumn<QString>("host");
        QTest::addColumn<bool>("hostOk");
        QTest::newRow("localhost") << "localhost" << true;
        QTest::newRow("LOCALHOST with port") << "LOCALHOST:1818" << true;
        QTest::newRow("v4 loopback") << "127.0.0.1:1818" << true;
        QTest::newRow("v6 loopback") << "[::1]:1818" << true;
        QTest::newRow("own address") << "10.1.2.3" << true;
        QTest::newRow("wildcard") << "0.0.0.0:1818" << false;
        QTest::newRow("rebinding name") << "127.0.0.1.nip.io:1818" << false;
        QTest::newRow("other site") << "evil.example:1818" << false;
        QTest::newRow("other loopback") << "127.0.0.2" << false;
        QTest::newRow("bad port") << "localhost:x" << false;
        QTest::newRow("empty") << "" << false;
    }

    void hostAndOriginRules()
    {
        QFETCH(QString, host);
        QFETCH(bool, hostOk);
        const QList<QHostAddress> own{QHostAddress(QStringLiteral("10.1.2.3")), QHostAddress(QHostAddress::Any)};
        QCOMPARE(handshake::hostAllowed(host, own), hostOk);

        // Origins are compared whole; "none" admits a request without one.
        const QStringList list{QStringLiteral("https://teller.bank.example"), QStringLiteral("null")};
        QVERIFY(handshake::originAllowed(true, QStringLiteral("https://teller.bank.example"), list));
        QVERIFY(handshake::originAllowed(true, QStringLiteral("null"), list));
        QVERIFY(!handshake::originAllowed(true, QStringLiteral("https://teller.bank.example.evil"), list));
        QVERIFY(!handshake::originAllowed(true, QStringLiteral("https://teller.bank"), list));
        QVERIFY(!handshake::originAllowed(false, QString(), list));
        QVERIFY(handshake::originAllowed(false, QString(), list + QStringList{QStringLiteral("none")}));
        QVERIFY(handshake::originAllowed(true, QStringLiteral("anything"), QStringList()));
    }

    // Refused handshakes get their HTTP status, a log line with peer, Host and Origin, and run
    // nothing; the admitted ones work.
    void refusedHandshakesRunNothing_data()
    {
        QTest::addColumn<QByteArray>("host");
        QTest::addColumn<QByteArray>("origin");
        QTest::addColumn<int>("status");
        QTest::newRow("foreign host") << QByteArray("evil.example:1818") << QByteArray() << 403;
        QTest::newRow("rebinding host") << QByteArray("127.0.0.1.nip.io") << QByteArray() << 403;
        QTest::newRow("admitted origin") << QByteArray() << QByteArray("https://teller.bank.example") << 101;
        for (int i = 0; i < 40; ++i) {
            static const char* const kinds[] = {"https://teller.bank.example.", "http://teller.bank.example",
                                                "https://teller.bank.exampl", "file://", "null"};
            const QByteArray origin = QByteArray(kinds[i % 5]) + (i >= 5 ? QByteArray::number(i) : QByteArray());
            QTest::newRow(("hostile origin " + origin).constData()) << QByteArray() << origin << 403;
        }
        QTest::newRow("no origin") << QByteArray() << QByteArray("-") << 403;
    }

    void refusedHandshakesRunNothing()
    {
        QFETCH(QByteArray, host);
        QFETCH(QByteArray, origin);
        QFETCH(int, status);
        SecuritySettings s;
        s.origins = QStringList{QStringLiteral("https://teller.bank.example")};
        QVERIFY(start(s));
        QSignalSpy dispatched(m_mgr->messageRun(), &MessageRun::handle_msg_signal);
        LogCapture log(QStringLiteral("websocketservermanager: refused"));
        RawPage page;
        const QByteArray headers = origin.isEmpty() || origin == "-" ? QByteArray() : "Origin: " + origin + "\r\n";
        QCOMPARE(page.open(QHostAddress(QHostAddress::LocalHost), m_mgr->serverPort(), headers, host), status);
        page.sendText("bCreateDir(/tmp/refused-page-was-here)");
        if (status == 101) {
            QVERIFY(waitFor([&] { return dispatched.count() == 1; }));
            QCOMPARE(log.lines(), QStringList());
        } else {
            QTest::qWait(50);
            QCOMPARE(dispatched.count(), 0);
            QCOMPARE(log.lines().size(), 1);
            QVERIFY(log.contains(QStringLiteral("Origin \"%1\"").arg(QString::fromLatin1(origin.isEmpty() || origin == "-" ? QByteArray("(none)") : origin))));
            QCOMPARE(m_mgr->clientCount(), 0);
        }
    }

    // Loopback by default: an outside address of this machine gets no answer, unless "any".
    void listensWhereToldTo()
    {
        const QHostAddress outside = outsideAddress();
        if (outside.isNull())
            QSKIP("this machine has no address besides loopback");
        const quint16 port = m_mgr->serverPort();
        RawPage viaOutside;
        QCOMPARE(viaOutside.open(outside, port, QByteArray(), outside.toString().toLatin1()), -1);
        RawPage viaV6;
        QCOMPARE(viaV6.open(QHostAddress(QHostAddress::LocalHostIPv6), port, QByteArray(), "[::1]"), 101);

        SecuritySettings any;
        any.listen = SecuritySettings::Listen::Any;
        QVERIFY(start(any));
        RawPage again;
        QCOMPARE(again.open(outside, m_mgr->serverPort(), QByteArray(), outside.toString().toLatin1()), 101);
        RawPage rebound;   // listening everywhere does not make a foreign name ours
        QCOMPARE(rebound.open(outside, m_mgr->serverPort(), QByteArray(), "evil.example"), 403);
    }

    void pageLimit()
    {
        SecuritySettings s;
        s.maxClients = 2;
        QVERIFY(start(s));
        ClientPage a;
        ClientPage b;
        QVERIFY(a.open(*m_mgr) && b.open(*m_mgr));
        RawPage third;
        QCOMPARE(third.open(QHostAddress(QHostAddress::LocalHost), m_mgr->serverPort()), 503);
        QCOMPARE(m_mgr->clientCount(), 2);
        b.ws.close();
        QVERIFY(waitFor([&] { return m_mgr->clientCount() == 1; }));
        RawPage fourth;
        QCOMPARE(fourth.open(QHostAddress(QHostAddress::LocalHost), m_mgr->serverPort()), 101);
    }

    // A 100 MB message is refused from its header: only its page is closed, with 1009, and
    // the server does not buffer it.
    void oversizedMessageClosesOnlyItsPage()
    {
        ClientPage other;
        QVERIFY(other.open(*m_mgr));
        RawPage big;
        QCOMPARE(big.open(QHostAddress(QHostAddress::LocalHost), m_mgr->serverPort()), 101);
        QVERIFY(waitFor([&] { return m_mgr->clientCount() == 2; }));
        LogCapture log(QStringLiteral("websocketservermanager:"));
        const qint64 before = residentKiB();
        big.sendHugeFrameStart(100ull * 1000 * 1000, 1 << 20);
        QVERIFY(waitFor([&] { big.readMessages(); return big.closeCode != 0; }));
        QCOMPARE(big.closeCode, 1009);
        QVERIFY(waitFor([&] { return m_mgr->clientCount() == 1; }));
#if !defined(__SANITIZE_ADDRESS__)   // the sanitizer's allocator keeps freed memory in quarantine
        QVERIFY2(residentKiB() - before < 2048, qPrintable(QString::number(residentKiB() - before)));
#endif
        QVERIFY(log.contains(QStringLiteral("1009")));
        QVERIFY(isFramedReplyOf(other.command(QStringLiteral("getVersion()")), QStringLiteral("getVersion")));
    }

private:
    bool start(const SecuritySettings& s)
    {
        gpWebSocket = nullptr;
        m_mgr.reset();
        m_mgr = std::make_unique<WebSocketServerManager>(QStringLiteral("boreaTcp"), QWebSocketServer::NonSecureMode);
        m_mgr->setSecurity(s);
        return m_mgr->websocke_server_start(s.listenAddresses(), 0) && m_mgr->serverPort() != 0;
    }

    std::unique_ptr<WebSocketServerManager> m_mgr;
};

QTEST_MAIN(TestTransport)
#include "tst_transport.moc"
