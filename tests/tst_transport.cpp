// The WebSocket transport, through a real server on a free loopback port and real pages:
// routing of "@", "#" and commands, the current client, broadcasts, disconnects, and the
// safeguards that keep a page that stops reading from costing the others.
#include "fixture.h"

#include "camera/captureimgthread.h"
#include "camera/stoprecthread.h"
#include "companion/signsouthinterface.h"
#include "dispatch/messagerun.h"
#include "identity/facematchthread.h"
#include "identity/livingbodydetectthread.h"
#include "identity/readidcardthread.h"
#include "transport/websocketservermanager.h"

#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>
#include <QThread>
#include <QWebSocket>

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <vector>

namespace {

// A page of the manager: it counts as connected once the manager has taken it on.
class ClientPage : public Page {
public:
    bool open(WebSocketServerManager& mgr)
    {
        const int before = mgr.clientCount();
        return Page::open(mgr.serverPort()) && waitFor([&] { return mgr.clientCount() > before; });
    }

    // Sends a command and waits for its reply, as a page does before it counts as current.
    QString command(const QString& text)
    {
        ws.sendTextMessage(text);
        return next();
    }

    bool isCurrent() const { return gpWebSocket && gpWebSocket->peerPort() == ws.localPort(); }
};

// A page that did the WebSocket handshake by hand and then reads only when told to: the page
// of a browser tab that hangs. Its receive buffer is kept small so the server's queue fills.
class RawPage {
public:
    ~RawPage()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }

    bool open(quint16 port)
    {
        m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
        if (m_fd < 0)
            return false;
        const int small = 4096;
        ::setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        ::fcntl(m_fd, F_SETFL, ::fcntl(m_fd, F_GETFL) | O_NONBLOCK);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::connect(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        if (!waitFor([&] {
                pollfd p{m_fd, POLLOUT, 0};
                return ::poll(&p, 1, 0) == 1;
            }))
            return false;
        const QByteArray request = QStringLiteral("GET / HTTP/1.1\r\nHost: 127.0.0.1:%1\r\nUpgrade: websocket\r\n"
                                                  "Connection: Upgrade\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
                                                  "Sec-WebSocket-Version: 13\r\n\r\n")
                                       .arg(port)
                                       .toLatin1();
        if (::send(m_fd, request.constData(), size_t(request.size()), 0) != request.size())
            return false;
        if (!waitFor([&] {
                readAvailable();
                return m_in.contains("\r\n\r\n");
            }))
            return false;
        const int end = m_in.indexOf("\r\n\r\n") + 4;
        const QByteArray head = m_in.left(end);
        m_in.remove(0, end);
        return head.startsWith("HTTP/1.1 101");
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
        ::send(m_fd, frame.constData(), size_t(frame.size()), 0);
    }

    // Reads what the kernel holds now and returns the complete text messages in it. The server
    // never fragments a message this small, so each frame is one message.
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
            if ((quint8(m_in[0]) & 0x0f) == 0x1)
                messages << QString::fromUtf8(m_in.mid(pos, int(len)));
            m_in.remove(0, pos + int(len));
        }
        return messages;
    }

private:
    void readAvailable()
    {
        char buf[65536];
        ssize_t n;
        while ((n = ::recv(m_fd, buf, sizeof buf, 0)) > 0)
            m_in.append(buf, int(n));
    }

    int m_fd = -1;
    QByteArray m_in;
};

// The server side of a page's connection, found among this process's descriptors by its ports.
int serverSideDescriptor(quint16 serverPort, quint16 pagePort)
{
    int found = -1;
    DIR* dir = ::opendir("/proc/self/fd");
    if (!dir)
        return found;
    while (dirent* e = ::readdir(dir)) {
        const int fd = ::atoi(e->d_name);
        sockaddr_in local{};
        sockaddr_in peer{};
        socklen_t ll = sizeof local;
        socklen_t pl = sizeof peer;
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &ll) == 0
            && ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &pl) == 0 && local.sin_family == AF_INET
            && ntohs(local.sin_port) == serverPort && ntohs(peer.sin_port) == pagePort)
            found = fd;
    }
    ::closedir(dir);
    return found;
}

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

// Stopping the preview makes the camera thread tell every page how the stop went.
QStringList withoutStopAnswers(QStringList messages)
{
    messages.removeAll(QStringLiteral("BeginbStopPlaytrueEndbStopPlay"));
    messages.removeAll(QStringLiteral("BeginbStopPlayfalseEndbStopPlay"));
    return messages;
}

}  // namespace

class TestTransport : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() { qRegisterMetaType<QWebSocket*>(); }
    void init()
    {
        gpWebSocket = nullptr;
        m_mgr = std::make_unique<WebSocketServerManager>(QStringLiteral("boreaTcp"), QWebSocketServer::NonSecureMode);
        QVERIFY(m_mgr->websocke_server_start(QHostAddress::LocalHost, 0));
        QVERIFY(m_mgr->serverPort() != 0);
    }

    void cleanup()
    {
        m_mgr.reset();
        QCOMPARE(gpWebSocket, nullptr);
    }

    void startAndStop()
    {
        WebSocketServerManager& mgr = *m_mgr;
        const quint16 port = mgr.serverPort();
        // A second start leaves the running server as it is.
        QVERIFY(mgr.websocke_server_start(QHostAddress::LocalHost, 0));
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

        // Stopping twice is harmless; the server can listen again.
        mgr.websocke_server_stop();
        QVERIFY(mgr.websocke_server_start(QHostAddress::LocalHost, 0));
        ClientPage b;
        QVERIFY(b.open(mgr));
        QVERIFY(isFramedReplyOf(b.command(QStringLiteral("getVersion()")), QStringLiteral("getVersion")));
    }

    void commandsReachTheDispatcherAndMakeTheSenderCurrent()
    {
        WebSocketServerManager& mgr = *m_mgr;
        ClientPage a;
        ClientPage b;
        QVERIFY(a.open(mgr) && b.open(mgr));

        QVERIFY(isFramedReplyOf(a.command(QStringLiteral("getVersion()")), QStringLiteral("getVersion")));
        QVERIFY(a.isCurrent());
        QVERIFY(isFramedReplyOf(b.command(QStringLiteral("sGetTempPath()")), QStringLiteral("sGetTempPath")));
        QVERIFY(b.isCurrent());

        // A late reply to A's command goes to whoever asked last.
        MessageRun::send_msg(QStringLiteral("BeginlImageMatch80EndlImageMatch"));
        QCOMPARE(b.next(), QStringLiteral("BeginlImageMatch80EndlImageMatch"));
        QCOMPARE(a.drain(), QStringList());

        // An unknown command still makes its sender current, and gets no reply.
        a.ws.sendTextMessage(QStringLiteral("noSuchCommand()"));
        QVERIFY(waitFor([&] { return a.isCurrent(); }));
        QCOMPARE(a.drain(), QStringList());
    }

    // Page B sends a message that never reaches the dispatcher nor changes the current client:
    // "@" goes to the browser helper, "#" is relayed to the current page, binary is ignored.
    void routingOfAtHashAndBinary_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<bool>("binary");
        QTest::addColumn<QChar>("current");   // 'a', 'b' (the sender) or '-' (none)
        QTest::addColumn<QStringList>("toA");
        QTest::addColumn<QStringList>("toB");   // not checked for "@": the helper answers B itself

        const QStringList none;
        QTest::newRow("bare at") << "@" << false << QChar('a') << none << none;
        QTest::newRow("at that looks like a command") << "@getVersion()" << false << QChar('a') << none << none;
        QTest::newRow("at with page data") << "@{\"page\":\"evaluate\"}" << false << QChar('a') << none << none;
        QTest::newRow("at without current client") << "@getVersion()" << false << QChar('-') << none << none;
        QTest::newRow("relay from another page") << "#xyz" << false << QChar('a') << QStringList{"xyz"} << none;
        QTest::newRow("relay from the current page") << "#xyz" << false << QChar('b') << none << QStringList{"xyz"};
        QTest::newRow("relay drops only the first mark") << "##x" << false << QChar('a') << QStringList{"#x"} << none;
        QTest::newRow("empty relay") << "#" << false << QChar('a') << QStringList{""} << none;
        QTest::newRow("relayed command text is not run") << "#getVersion()" << false << QChar('a')
                                                         << QStringList{"getVersion()"} << none;
        QTest::newRow("relay without current client") << "#xyz" << false << QChar('-') << none << none;
        QTest::newRow("binary command") << "getVersion()" << true << QChar('a') << none << none;
        QTest::newRow("binary relay") << "#xyz" << true << QChar('a') << none << none;
    }

    void routingOfAtHashAndBinary()
    {
        QFETCH(QString, message);
        QFETCH(bool, binary);
        QFETCH(QChar, current);
        QFETCH(QStringList, toA);
        QFETCH(QStringList, toB);
        WebSocketServerManager& mgr = *m_mgr;
        ClientPage a;
        ClientPage b;
        QVERIFY(a.open(mgr) && b.open(mgr));
        ClientPage* cur = current == 'a' ? &a : current == 'b' ? &b : nullptr;
        if (cur)
            QVERIFY(isFramedReplyOf(cur->command(QStringLiteral("getVersion()")), QStringLiteral("getVersion")));

        QSignalSpy dispatched(mgr.messageRun(), &MessageRun::handle_msg_signal);
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

        // The current client is still the one it was.
        MessageRun::send_msg(QStringLiteral("probe"));
        if (cur)
            QCOMPARE(cur->next(), QStringLiteral("probe"));
        else
            QCOMPARE(gpWebSocket, nullptr);
        QCOMPARE(a.drain(), QStringList());
        QCOMPARE(b.drain(), QStringList());
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
        row("recording stopped", StopRec, false, "BeginbStopRectrueEndbStopRec");
        row("frame from a thread", Capture, true, "AAAA");
        row("face score from a thread", FaceMatch, true, "BeginlImageMatch75EndlImageMatch");
        row("card from a thread", ReadIdCard, true, "BeginsIDCardReaderEndsIDCardReader");
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
        // One of them current, to show the broadcast is not a reply.
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
        QTest::newRow("another page drops") << false << true;
        QTest::newRow("the current page closes") << true << false;
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
        QSignalSpy handed(&mgr, &WebSocketServerManager::send_recv_msg);
        QSignalSpy dispatched(mgr.messageRun(), &MessageRun::handle_msg_signal);
        if (abrupt)
            leaver->ws.abort();
        else
            leaver->ws.close();
        QVERIFY(waitFor([&] { return mgr.clientCount() == 2; }));

        QCOMPARE(gpWebSocket, nullptr);
        QCOMPARE(handed.count(), 2);
        QCOMPARE(handed.at(0).at(0).toString(), QStringLiteral("bStopPlay"));
        QCOMPARE(handed.at(0).at(1).value<QWebSocket*>(), nullptr);
        QCOMPARE(handed.at(1).at(0).toString(), QStringLiteral("bStopPlay4"));
        QCOMPARE(handed.at(1).at(1).value<QWebSocket*>(), nullptr);
        // The manager's hand-over is a real call of the dispatcher.
        QCOMPARE(dispatched.count(), 2);
        QCOMPARE(dispatched.at(0).at(0).toString(), QStringLiteral("bStopPlay"));
        QCOMPARE(dispatched.at(1).at(0).toString(), QStringLiteral("bStopPlay4"));
        // Where the camera commands are in the table, the stop reaches the device.
        const auto& commands = mgr.messageRun()->callbacks();
        if (commands.contains(QStringLiteral("bStopPlay4")))
            QVERIFY(trace.functions().contains(QStringLiteral("bStopPlay4")));
        if (commands.contains(QStringLiteral("bStopPlay")))
            QVERIFY(waitFor([&] { return trace.functions().contains(QStringLiteral("bStopPlay")); }));

        // Until someone sends a command, replies reach nobody; broadcasts still reach the rest.
        leaver.reset();
        MessageRun::send_msg(QStringLiteral("dropped"));
        emitFrom(Capture, "frame-after-leave");
        QCOMPARE(withoutStopAnswers(a.drain()), QStringList{QStringLiteral("frame-after-leave")});
        QCOMPARE(withoutStopAnswers(b.drain()), QStringList{QStringLiteral("frame-after-leave")});
        QVERIFY(isFramedReplyOf(b.command(QStringLiteral("getVersion()")), QStringLiteral("getVersion")));
        QVERIFY(b.isCurrent());
    }

    void threadMessagesAccumulatePerConnection_data()
    {
        QTest::addColumn<int>("pages");
        QTest::newRow("one page") << 1;
        QTest::newRow("three pages") << 3;
    }

    void threadMessagesAccumulatePerConnection()
    {
        QFETCH(int, pages);
        WebSocketServerManager& mgr = *m_mgr;
        std::vector<std::unique_ptr<ClientPage>> all;
        for (int i = 0; i < pages; ++i) {
            all.push_back(std::make_unique<ClientPage>());
            QVERIFY(all.back()->open(mgr));
        }
        ClientPage& first = *all.front();
        QVERIFY(isFramedReplyOf(first.command(QStringLiteral("getVersion()")), QStringLiteral("getVersion")));

        emit mgr.signal_thread_MessageReceived(QStringLiteral("t"));
        // Each connection ever made added one more delivery to the current page.
        QCOMPARE(first.drain(), QStringList(QVector<QString>(pages, QStringLiteral("t")).toList()));
        for (int i = 1; i < pages; ++i)
            QCOMPARE(all[size_t(i)]->drain(), QStringList());
    }

    void pageSocketsSendWithoutDelay()
    {
        WebSocketServerManager& mgr = *m_mgr;
        ClientPage a;
        QVERIFY(a.open(mgr));
        const int fd = serverSideDescriptor(mgr.serverPort(), a.ws.localPort());
        QVERIFY(fd >= 0);
        int value = 0;
        socklen_t len = sizeof value;
        QCOMPARE(::getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &value, &len), 0);
        QVERIFY(value != 0);
    }

    void pageThatStopsReadingMissesOnlyPreviewFrames()
    {
        WebSocketServerManager& mgr = *m_mgr;
        QCOMPARE(mgr.previewBacklogLimit(), WebSocketServerManager::kDefaultPreviewBacklogLimit);
        mgr.setPreviewBacklogLimit(1024 * 1024);

        ClientPage good;
        QVERIFY(good.open(mgr));
        RawPage hung;
        QVERIFY(hung.open(mgr.serverPort()));
        QVERIFY(waitFor([&] { return mgr.clientCount() == 2; }));

        // Far more frames than the limit and every kernel buffer on the way can hold. The good
        // page reads each frame before the next one comes, as a page that keeps up does.
        const int frames = 400;
        const QByteArray body(64 * 1024, 'A');
        for (int i = 0; i < frames; ++i) {
            emitFrom(Capture, QByteArray::number(i) + ':' + body);
            QVERIFY2(waitFor([&] { return good.got.size() > i; }), qPrintable(QString::number(i)));
        }
        QCOMPARE(good.got.size(), frames);
        for (int i = 0; i < frames; ++i)
            QVERIFY(good.got.at(i).startsWith(QString::number(i) + QLatin1Char(':')));
        good.got.clear();

        // The hung page asks for something: its reply is queued behind the frames, never skipped.
        hung.sendText("getVersion()");
        QVERIFY(waitFor([&] { return gpWebSocket && gpWebSocket->peerPort() == hung.localPort(); }));
        emitFrom(Capture, "BeginbStartPlaytrueEndbStartPlay");
        emitFrom(Capture, "frame-while-behind");
        emitFrom(StopRec, "BeginbStopRectrueEndbStopRec");

        // The page wakes up and reads everything it was sent.
        QStringList received;
        QVERIFY(waitFor([&] { received << hung.readMessages();
            return received.contains(QStringLiteral("BeginbStopRectrueEndbStopRec"));
        }, 60000));
        const QRegularExpression frame(QStringLiteral("^(\\d+):"));
        int last = -1;
        int hungFrames = 0;
        for (const QString& m : received) {
            const auto match = frame.match(m);
            if (!match.hasMatch())
                continue;
            const int n = match.captured(1).toInt();
            QVERIFY(n > last);  // in order, none twice
            last = n;
            ++hungFrames;
        }
        QVERIFY(hungFrames > 0);
        QVERIFY2(hungFrames < frames, qPrintable(QString::number(hungFrames)));
        QVERIFY(std::any_of(received.begin(), received.end(),
                            [](const QString& m) { return isFramedReplyOf(m, QStringLiteral("getVersion")); }));
        QVERIFY(received.contains(QStringLiteral("BeginbStartPlaytrueEndbStartPlay")));
        QVERIFY(!received.contains(QStringLiteral("frame-while-behind")));

        // The other page missed nothing.
        QVERIFY(waitFor([&] { return good.got.size() >= 3; }));
        QCOMPARE(good.got, (QStringList{QStringLiteral("BeginbStartPlaytrueEndbStartPlay"),
                                        QStringLiteral("frame-while-behind"), QStringLiteral("BeginbStopRectrueEndbStopRec")}));

        // Once it has caught up, the hung page gets frames again.
        bool resumed = false;
        for (int i = 0; i < 100 && !resumed; ++i) {
            emitFrom(Capture, "frame-after-catch-up");
            QTest::qWait(20);
            resumed = hung.readMessages().contains(QStringLiteral("frame-after-catch-up"));
        }
        QVERIFY(resumed);
    }

private:
    std::unique_ptr<WebSocketServerManager> m_mgr;
};

QTEST_MAIN(TestTransport)
#include "tst_transport.moc"
