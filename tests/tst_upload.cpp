// Upload commands: their argument rules through the call trace, and real uploads to a small
// HTTP(S) receiver of the test's own, down to the bytes of the multipart body.
#include "devicelib/doccamera.h"
#include "devicelib/portable/core.h"
#include "dispatch/messagerun.h"
#include "fixture.h"

#include <QApplication>
#include <QDialog>
#include <QJsonDocument>
#include <QLabel>
#include <QMessageBox>
#include <QMutex>
#include <QProcess>
#include <QSemaphore>
#include <QSslKey>
#include <QSslSocket>
#include <QTcpServer>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

// An HTTP/1.1 receiver on its own thread (the plain upload commands hold the main thread for the
// whole transfer). Every request gets `answer` (raw status line, headers and body), none when it
// is empty, and not before hold is off. With a certificate folder it speaks TLS.
class Receiver : public QThread {
public:
    explicit Receiver(const QString& certDir = QString()) : m_certDir(certDir)
    {
        start();
        m_ready.acquire();
    }
    ~Receiver() override
    {
        quit();
        wait();
    }
    QByteArray url(const QByteArray& path = "/up") const
    {
        return (m_certDir.isEmpty() ? "http" : "https") + QByteArray("://127.0.0.1:") + QByteArray::number(m_port) + path;
    }
    void setAnswer(const QByteArray& status, const QByteArray& body, const QByteArray& headers = QByteArray())
    {
        QMutexLocker lock(&m_mutex);
        m_answer = status.isEmpty() ? QByteArray()
                                    : "HTTP/1.1 " + status + "\r\n" + headers + "Content-Length: " +
                                          QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
    }
    QList<QByteArray> requests() const
    {
        QMutexLocker lock(&m_mutex);
        return m_requests;
    }
    std::atomic<bool> hold{false};

private:
    class Server : public QTcpServer {
    public:
        explicit Server(Receiver* r) : m_r(r) {}
        void incomingConnection(qintptr fd) override
        {
            auto* s = new QSslSocket(this);
            s->setSocketDescriptor(fd);
            connect(s, &QSslSocket::disconnected, s, &QObject::deleteLater);
            if (!m_r->m_certDir.isEmpty()) {
                s->setLocalCertificate(m_r->m_certDir + "/cert.pem");
                s->setPrivateKey(m_r->m_certDir + "/key.pem");
                s->startServerEncryption();
            }
            auto* timer = new QTimer(s);
            connect(s, &QSslSocket::readyRead, s, [this, s, timer] {
                m_in[s] += s->readAll();
                const QByteArray& in = m_in[s];
                const int end = in.indexOf("\r\n\r\n");
                const QByteArray head = in.left(end).toLower();
                const int cl = head.indexOf("content-length:");
                if (end < 0 || in.size() < end + 4 + (cl < 0 ? 0 : head.mid(cl + 15, head.indexOf('\r', cl) - cl - 15).trimmed().toLongLong()))
                    return;
                QMutexLocker lock(&m_r->m_mutex);
                m_r->m_requests << m_in.take(s);
                timer->start(5);
            });
            connect(timer, &QTimer::timeout, s, [this, s, timer] {
                QMutexLocker lock(&m_r->m_mutex);
                if (m_r->hold || m_r->m_answer.isEmpty())
                    return;
                timer->stop();
                s->write(m_r->m_answer);
                s->disconnectFromHost();
            });
        }
        Receiver* m_r;
        QHash<QSslSocket*, QByteArray> m_in;
    };

    void run() override
    {
        Server server(this);
        server.listen(QHostAddress::LocalHost);
        m_port = server.serverPort();
        m_ready.release();
        exec();
    }

    QString m_certDir;
    quint16 m_port = 0;
    QSemaphore m_ready;
    mutable QMutex m_mutex;
    QByteArray m_answer;
    QList<QByteArray> m_requests;
};

QByteArray headerOf(const QByteArray& request, const QByteArray& name)
{
    for (const QByteArray& line : request.left(request.indexOf("\r\n\r\n")).split('\n'))
        if (line.toLower().startsWith(name.toLower() + ":"))
            return line.mid(name.size() + 1).trimmed();
    return QByteArray();
}

QByteArray quoted(const QByteArray& text, const QByteArray& key)
{
    const int i = text.indexOf(key + "=\"");
    return i < 0 ? QByteArray() : text.mid(i + key.size() + 2, text.indexOf('"', i + key.size() + 2) - i - key.size() - 2);
}

// The multipart body's parts, each as "name=value", the file's as "name[filename|type]=bytes".
QList<QByteArray> partsOf(const QByteArray& request)
{
    const QByteArray boundary = "\r\n--" + headerOf(request, "Content-Type").split('=').last();
    const QByteArray body = "\r\n" + request.mid(request.indexOf("\r\n\r\n") + 4);
    QList<QByteArray> parts;
    for (int at = body.indexOf(boundary); at >= 0 && body.mid(at + boundary.size(), 2) == "\r\n";) {
        const int start = at + boundary.size() + 2, next = body.indexOf(boundary, start);
        const QByteArray part = body.mid(start, next - start);
        const QByteArray head = part.left(part.indexOf("\r\n\r\n"));
        QByteArray name = quoted(head, "; name");
        if (head.contains("filename="))
            name += "[" + quoted(head, "filename") + "|" + headerOf(head + "\r\n\r\n", "Content-Type") + "]";
        parts << name + "=" + part.mid(head.size() + 4);
        at = next;
    }
    return parts;
}

const QString kDialog = QStringLiteral("dialog 图片上传中。。。|1");
const QByteArray kImage("\xff\xd8\x00\r\n--boundary-like\r\n\x01 image bytes \xff\xd9", 35);

}  // namespace

class TestUpload : public QObject {
    Q_OBJECT
    MessageRun run;
    std::unique_ptr<PagePair> m_page;
    QTemporaryDir m_dir;
    QStringList m_seen;              // the dialogs and result boxes shown, as the clerk saw them
    QTimer m_driver;
    std::function<void()> m_step;    // a test's own action on each tick of m_driver

    // Plays the clerk: notes each dialog as it shows, and answers each result box.
    bool eventFilter(QObject* o, QEvent* e) override
    {
        auto* box = qobject_cast<QMessageBox*>(o);
        auto* label = o->findChild<QLabel*>();
        if (e->type() != QEvent::Show)
            return false;
        if (box) {
            m_seen << QStringLiteral("box %1|%2|%3|%4").arg(box->windowTitle(), box->text()).arg(box->icon()).arg(box->windowType() == Qt::Dialog && box->windowFlags().testFlag(Qt::WindowStaysOnTopHint));
            QTimer::singleShot(0, box, [box] { box->done(QMessageBox::Ok); });
        } else if (qobject_cast<QDialog*>(o) && label) {
            const auto flags = Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint;
            m_seen << QStringLiteral("dialog %1|%2").arg(label->text()).arg((static_cast<QDialog*>(o)->windowFlags() & flags) == flags && static_cast<QDialog*>(o)->isModal());
        }
        return false;
    }

    QString file(const QString& name, const QByteArray& bytes = kImage)
    {
        writeFile(m_dir.filePath(name), bytes);
        return m_dir.filePath(name);
    }
    QString send(const QString& command) { return runCommand(run, *m_page, command, 15000); }

private slots:
    void initTestCase()
    {
        for (const char* v : {"http_proxy", "https_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY"})
            qunsetenv(v);
        m_page = std::make_unique<PagePair>();
        QVERIFY(m_page->isConnected());
        qApp->installEventFilter(this);
        connect(&m_driver, &QTimer::timeout, this, [this] {
            if (m_step)
                m_step();
        });
        m_driver.start(10);
    }

    void init()
    {
        portable::loadProfileText(QByteArray());
        m_page->makeCurrent();
        m_seen.clear();
        m_step = nullptr;
    }

    void cleanup() { m_step = nullptr; }

    void argumentRules_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("call");   // the library call as traced: function and args; "" for none
        QTest::addColumn<QString>("reply");
        QTest::addColumn<QStringList>("seen");   // dialogs and boxes shown
        // The library answers "ok", true, or sUpLoadImageEx5 "body" with true; "(," makes that false.
        const QString s = "sUpLoadImage(%1)", ex5 = "sUpLoadImageEx5(u,f,5,k=v,%1)";
        QTest::newRow("two parts") << s.arg("a,b") << R"(sUpLoadImage["a","b","",false,""])" << "BeginsUpLoadImageokEndsUpLoadImage" << QStringList();
        QTest::newRow("flag 2") << s.arg("a,b,c,d,2") << R"(sUpLoadImage["a","b","c",true,"d"])" << "BeginsUpLoadImageokEndsUpLoadImage" << QStringList();
        QTest::newRow("int flag TRUE is off") << s.arg("a,b,c,d,TRUE") << R"(sUpLoadImage["a","b","c",false,"d"])" << "BeginsUpLoadImageokEndsUpLoadImage" << QStringList();
        QTest::newRow("one part") << s.arg("a") << "" << "BeginsUpLoadImagefalseEndsUpLoadImage" << QStringList();
        QTest::newRow("Ex6 drops part 6") << "sUpLoadImageEx6(a,b,c,d,1,e)" << R"(sUpLoadImage["a","b","c",true,"d"])" << "BeginsUpLoadImageEx6okEndsUpLoadImageEx6" << QStringList();
        QTest::newRow("Ex2") << "sUpLoadImageEx2(u,f,7,k=v)" << R"(sUpLoadImageEx2["u","f",7,"k=v"])" << "BeginsUpLoadImageEx2okEndsUpLoadImageEx2" << QStringList();
        QTest::newRow("Ex2 three parts") << "sUpLoadImageEx2(u,f,7)" << "" << "BeginsUpLoadImageEx2falseEndsUpLoadImageEx2" << QStringList();
        QTest::newRow("bUpLoadImage three parts") << "bUpLoadImage(a,b,c)" << "" << "BeginbUpLoadImagefalseEndbUpLoadImage" << QStringList();
        QTest::newRow("bUpLoadImage seconds not a number") << "bUpLoadImage(u,f,x,)" << R"(bUpLoadImage["u","f",0,""])" << "BeginbUpLoadImagetrueEndbUpLoadImage" << QStringList();
        QTest::newRow("Ex5 switch 0 sends the token") << ex5.arg("0,tok,pic,0,0") << R"(sUpLoadImageEx5["u","f",5,"k=v","tok","pic","<out>"])" << "BeginsUpLoadImageEx5bodyEndsUpLoadImageEx5" << QStringList();
        QTest::newRow("Ex5 switch TRUE reads 0") << ex5.arg("TRUE,tok,,0,") << R"(sUpLoadImageEx5["u","f",5,"k=v","tok","","<out>"])" << "BeginsUpLoadImageEx5bodyEndsUpLoadImageEx5" << QStringList();
        QTest::newRow("Ex5 switch 1 drops it") << ex5.arg("1,tok,pic,TRUE,0") << R"(sUpLoadImageEx5["u","f",5,"k=v","","pic","<out>"])" << "BeginsUpLoadImageEx5bodyEndsUpLoadImageEx5" << QStringList{kDialog};
        QTest::newRow("Ex5 both shown") << ex5.arg("0,,,xtruex,1") << R"(sUpLoadImageEx5["u","f",5,"k=v","","","<out>"])" << "BeginsUpLoadImageEx5bodyEndsUpLoadImageEx5"
                                        << QStringList{kDialog, "box 提示信息|   上传成功!     |0|1"};
        QTest::newRow("Ex5 eight parts") << ex5.arg("0,t,n,1") << "" << "BeginsUpLoadImageEx5falseEndsUpLoadImageEx5" << QStringList{kDialog};
        QTest::newRow("Ex5 failure box") << "sUpLoadImageEx5(,,,,,,,0,True)" << R"(sUpLoadImageEx5["","",0,"","","","<out>"])" << "BeginsUpLoadImageEx5bodyEndsUpLoadImageEx5"
                                         << QStringList{"box 提示信息|   上传失败!     |0|1"};
    }

    void argumentRules()
    {
        QFETCH(QString, command);
        QFETCH(QString, call);
        QFETCH(QString, reply);
        QFETCH(QStringList, seen);
        applyScript(R"({"sUpLoadImage": ["ok"], "sUpLoadImageEx2": ["ok"], "bUpLoadImage": [true],
                        "sUpLoadImageEx5": [{"ret": true, "out": ["body"]}]})");
        if (command.contains("(,"))
            portable::setScript("sUpLoadImageEx5", QJsonArray{QJsonObject{{"ret", false}, {"out", QJsonArray{"body"}}}});
        Trace trace;
        LogCapture log("upload:");
        QCOMPARE(send(command), reply);
        QCOMPARE(m_seen, seen);
        QCOMPARE(log.contains("upload: progress dialog shown"), seen.contains(kDialog));
        QCOMPARE(log.contains("upload: progress dialog closed"), seen.contains(kDialog));
        QStringList calls;
        for (const QJsonObject& c : trace.calls())
            calls << c["fn"].toString() + QJsonDocument(c["args"].toArray()).toJson(QJsonDocument::Compact);
        QCOMPARE(calls, call.isEmpty() ? QStringList() : QStringList{call});
    }

    void httpUpload_data()
    {
        QTest::addColumn<QString>("command");   // %1 the receiver's URL, %2 the file
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<QByteArray>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("reply");
        QTest::addColumn<QList<QByteArray>>("parts");
        QTest::addColumn<QByteArray>("authorization");
        QTest::addColumn<bool>("fileKept");
        const QByteArray jpeg = "image/jpeg]=" + kImage;
        QTest::newRow("fields decoded, in order") << "sUpLoadImage(%1,%2,a=1&b=%E4%B8%AD+x%26&&c&=z&d=%zz%41,photo,0)" << "scan 1.JPG" << QByteArray("200 OK")
            << QByteArray("stored:42\0junk", 14) << "BeginsUpLoadImagestored:42EndsUpLoadImage"
            << QList<QByteArray>{"a=1", "b=中+x&", "c=", "d=%zzA", "photo[scan 1.JPG|" + jpeg} << QByteArray() << true;
        QTest::newRow("deleted after a 2xx") << "sUpLoadImage(%1,%2,,,1)" << "x.png" << QByteArray("201 Created") << QByteArray("ok")
            << "BeginsUpLoadImageokEndsUpLoadImage" << QList<QByteArray>{"file[x.png|image/png]=" + kImage} << QByteArray() << false;
        QTest::newRow("kept after a 500") << "sUpLoadImage(%1,%2,,,1)" << "x.bmp" << QByteArray("500 Internal Server Error") << QByteArray("disk full")
            << "BeginsUpLoadImagedisk fullEndsUpLoadImage" << QList<QByteArray>{"file[x.bmp|image/bmp]=" + kImage} << QByteArray() << true;
        QTest::newRow("Ex2 500 body") << "sUpLoadImageEx2(%1,%2,5,k=v)" << "a.pdf" << QByteArray("500 Internal Server Error") << QByteArray("no")
            << "BeginsUpLoadImageEx2noEndsUpLoadImageEx2" << QList<QByteArray>{"k=v", "file[a.pdf|application/pdf]=" + kImage} << QByteArray() << true;
        QTest::newRow("bool 500") << "bUpLoadImage(%1,%2,5,)" << "a.tiff" << QByteArray("500 Internal Server Error") << QByteArray()
            << "BeginbUpLoadImagefalseEndbUpLoadImage" << QList<QByteArray>{"file[a.tiff|image/tiff]=" + kImage} << QByteArray() << true;
        QTest::newRow("bool 204") << "bUpLoadImage(%1,%2,0,)" << "a.raw" << QByteArray("204 No Content") << QByteArray()
            << "BeginbUpLoadImagetrueEndbUpLoadImage" << QList<QByteArray>{"file[a.raw|application/octet-stream]=" + kImage} << QByteArray() << true;
        QTest::newRow("Ex5 token") << "sUpLoadImageEx5(%1,%2,5,k=v,0,tk,img,0,0)" << "b.jpeg" << QByteArray("200 OK") << QByteArray("{\"id\":7}")
            << "BeginsUpLoadImageEx5{\"id\":7}EndsUpLoadImageEx5" << QList<QByteArray>{"k=v", "img[b.jpeg|" + jpeg} << QByteArray("Bearer tk") << true;
        QTest::newRow("Ex5 no token") << "sUpLoadImageEx5(%1,%2,5,,1,tk,,0,0)" << "b.tif" << QByteArray("200 OK") << QByteArray("ok")
            << "BeginsUpLoadImageEx5okEndsUpLoadImageEx5" << QList<QByteArray>{"file[b.tif|image/tiff]=" + kImage} << QByteArray() << true;
    }

    void httpUpload()
    {
        QFETCH(QString, command);
        QFETCH(QString, fileName);
        QFETCH(QByteArray, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, reply);
        QFETCH(QList<QByteArray>, parts);
        QFETCH(QByteArray, authorization);
        QFETCH(bool, fileKept);
        Receiver receiver;
        receiver.setAnswer(status, body);
        const QString path = file(fileName);
        QCOMPARE(send(command.arg(QString(receiver.url()), path)), reply);
        QCOMPARE(receiver.requests().size(), 1);
        const QByteArray request = receiver.requests().first();
        QVERIFY(request.startsWith("POST /up HTTP/1.1\r\n"));
        QCOMPARE(partsOf(request), parts);
        QCOMPARE(headerOf(request, "Authorization"), authorization);
        QCOMPARE(QFile::exists(path), fileKept);
    }

    void failures_data()
    {
        QTest::addColumn<QString>("command");   // %1 the receiver's URL, %2 a file, %3 a folder, %4 a closed port
        QTest::addColumn<QByteArray>("answer");   // status line; empty: never answers
        QTest::addColumn<QByteArray>("headers");
        QTest::addColumn<QString>("reply");
        QTest::addColumn<int>("requests");
        QTest::addColumn<QString>("log");
        QTest::newRow("file URL") << "sUpLoadImageEx2(file://%2,%2,5,)" << QByteArray("200 OK") << QByteArray() << "BeginsUpLoadImageEx2EndsUpLoadImageEx2" << 0 << "only http and https";
        QTest::newRow("ftp URL") << "bUpLoadImage(ftp://127.0.0.1/x,%2,5,)" << QByteArray("200 OK") << QByteArray() << "BeginbUpLoadImagefalseEndbUpLoadImage" << 0 << "only http and https";
        QTest::newRow("file is a folder") << "sUpLoadImage(%1,%3)" << QByteArray("200 OK") << QByteArray() << "BeginsUpLoadImageEndsUpLoadImage" << 0 << "not a regular file";
        QTest::newRow("no such file") << "sUpLoadImage(%1,%2.missing)" << QByteArray("200 OK") << QByteArray() << "BeginsUpLoadImageEndsUpLoadImage" << 0 << "does not exist";
        QTest::newRow("redirect to a file URL") << "sUpLoadImageEx2(%1,%2,5,)" << QByteArray("302 Found") << QByteArray("Location: file:///etc/passwd\r\n")
                                                << "BeginsUpLoadImageEx2EndsUpLoadImageEx2" << 1 << "no answer";
        QTest::newRow("never answers, Ex2") << "sUpLoadImageEx2(%1,%2,1,)" << QByteArray() << QByteArray() << "BeginsUpLoadImageEx2EndsUpLoadImageEx2" << 1 << "timed out";
        QTest::newRow("never answers, Ex5") << "sUpLoadImageEx5(%1,%2,1,,0,,,0,0)" << QByteArray() << QByteArray() << "BeginsUpLoadImageEx5EndsUpLoadImageEx5" << 1 << "timed out";
        QTest::newRow("refused") << "bUpLoadImage(%4,%2,5,)" << QByteArray() << QByteArray() << "BeginbUpLoadImagefalseEndbUpLoadImage" << 0 << "no answer";
    }

    void failures()
    {
        QFETCH(QString, command);
        QFETCH(QByteArray, answer);
        QFETCH(QByteArray, headers);
        QFETCH(QString, reply);
        QFETCH(int, requests);
        QFETCH(QString, log);
        Receiver receiver;
        receiver.setAnswer(answer, "x", headers);
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const QString closedUrl = QStringLiteral("http://127.0.0.1:%1/x").arg(closed.serverPort());
        closed.close();
        LogCapture capture("devicelib:");
        command.replace("%1", receiver.url()).replace("%2", file("a.jpg")).replace("%3", m_dir.path()).replace("%4", closedUrl);
        QCOMPARE(send(command), reply);
        QCOMPARE(receiver.requests().size(), requests);
        QVERIFY2(capture.contains(log), qPrintable(capture.lines().join('\n')));
    }

    void longUrlAndBigAnswer_data()
    {
        QTest::addColumn<QByteArray>("status");
        QTest::addColumn<bool>("ok");
        QTest::newRow("200") << QByteArray("200 OK") << true;
        QTest::newRow("500") << QByteArray("500 Internal Server Error") << false;
    }

    void longUrlAndBigAnswer()
    {
        QFETCH(QByteArray, status);
        QFETCH(bool, ok);
        Receiver receiver;
        receiver.setAnswer(status, QByteArray(50 << 20, 'b'));
        const QByteArray url = receiver.url("/") + QByteArray(100000 - receiver.url("/").size(), 'u');
        const QByteArray path = file("big.jpg").toUtf8();
        LogCapture capture("devicelib:");
        char* text = ::sUpLoadImageEx2(url.constData(), path.constData(), 10, "");
        QVERIFY(text);
        QCOMPARE(std::strlen(text), size_t(8 << 20));
        std::free(text);
        QCOMPARE(::bUpLoadImage(url.constData(), path.constData(), 10, ""), ok);
        QVERIFY(capture.contains("longer than 8388608 bytes"));
        QCOMPARE(receiver.requests().first().left(receiver.requests().first().indexOf(" HTTP/1.1")), "POST " + url.mid(url.indexOf('/', 8)));
    }

    void https_data()
    {
        QTest::addColumn<QByteArray>("profile");
        QTest::addColumn<QString>("reply");
        QTest::addColumn<QString>("log");
        QTest::newRow("own CA") << QByteArray(R"({"upload": {"caFile": "%1/cert.pem"}})") << "BeginsUpLoadImagesecureEndsUpLoadImage" << "status 200";
        QTest::newRow("unknown certificate") << QByteArray() << "BeginsUpLoadImageEndsUpLoadImage" << "certificate";
        QTest::newRow("verify off") << QByteArray(R"({"upload": {"verify": false}})") << "BeginsUpLoadImagesecureEndsUpLoadImage" << "upload.verify is false";
        QTest::newRow("bad key type") << QByteArray(R"({"upload": {"verify": "no"}})") << "BeginsUpLoadImageEndsUpLoadImage" << "key \"upload.verify\" has the wrong type";
    }

    void https()
    {
        QFETCH(QByteArray, profile);
        QFETCH(QString, reply);
        QFETCH(QString, log);
        QVERIFY(QSslSocket::supportsSsl());
        const QString certDir = m_dir.filePath("tls");
        QDir().mkpath(certDir);
        QProcess openssl;
        if (!QFile::exists(certDir + "/cert.pem")) {
            openssl.start("openssl", {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1",
                                      "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", certDir + "/key.pem",
                                      "-out", certDir + "/cert.pem"});
            QVERIFY(openssl.waitForFinished(60000) && openssl.exitCode() == 0);
        }
        LogCapture capture("devicelib:");
        portable::loadProfileText(QString(profile).replace("%1", certDir).toUtf8());
        Receiver receiver(certDir);
        receiver.setAnswer("200 OK", "secure");
        QCOMPARE(send(QStringLiteral("sUpLoadImage(%1,%2)").arg(QString(receiver.url()), file("a.jpg"))), reply);
        QVERIFY2(capture.contains(log), qPrintable(capture.lines().join('\n')));
    }

    void ex5ServesOtherPagesMeanwhile()
    {
        // Pages reach the dispatcher as through the transport: the sender becomes the current page.
        QWebSocketServer server("upload", QWebSocketServer::NonSecureMode);
        QVERIFY(server.listen(QHostAddress::LocalHost));
        connect(&server, &QWebSocketServer::newConnection, this, [&] {
            QWebSocket* s = server.nextPendingConnection();
            connect(s, &QWebSocket::textMessageReceived, s, [this, s](const QString& m) {
                gpWebSocket = s;
                run.recv_msg(m, s);
            });
        });
        Page a, b;
        QVERIFY(a.open(server.serverPort()) && b.open(server.serverPort()));
        Receiver receiver;
        receiver.setAnswer("200 OK", "done");
        receiver.hold = true;
        m_step = [&] {
            if (m_seen.contains(kDialog) && b.ws.property("asked").isNull()) {
                b.ws.setProperty("asked", true);
                b.ws.sendTextMessage("sUpLoadImageEx2(u,f)");
            }
            receiver.hold = b.got.isEmpty();   // the server answers once the other page was served
        };
        LogCapture log("upload:");
        a.ws.sendTextMessage(QStringLiteral("sUpLoadImageEx5(%1,%2,10,,0,,,1,1)").arg(QString(receiver.url()), file("c.jpg")));
        QVERIFY(waitFor([&] { return b.got.size() == 2 && log.contains("result box"); }, 20000));
        QCOMPARE(b.got, (QStringList{"BeginsUpLoadImageEx2falseEndsUpLoadImageEx2", "BeginsUpLoadImageEx5doneEndsUpLoadImageEx5"}));
        QCOMPARE(a.got, QStringList());
        QCOMPARE(log.lines(), (QStringList{"upload: progress dialog shown", "upload: progress dialog closed", "upload: result box:    上传成功!     "}));
        gpWebSocket = nullptr;
    }

    void httpReplySlot()
    {
        run.http_reply_slot(0, "late");
        QCOMPARE(m_page->next(), QStringLiteral("BeginsUpLoadImageEx2lateEndsUpLoadImageEx2"));
        gpWebSocket = nullptr;
        run.http_reply_slot(0, "dropped");
        QCOMPARE(m_page->drain(), QStringList());
    }
};

QTEST_MAIN(TestUpload)
#include "tst_upload.moc"
