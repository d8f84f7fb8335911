// Upload commands: their argument rules through the call trace, and real uploads to a small
// HTTP(S) receiver of the test's own, down to the bytes of the multipart body.
#include "devicelib/doccamera.h"
#include "devicelib/portable/core.h"
#include "dispatch/messagerun.h"
#include "fixture.h"

#include <QApplication>
#include <QJsonDocument>
#include <QLabel>
#include <QMessageBox>
#include <QMutex>
#include <QProcess>
#include <QSslSocket>
#include <QTcpServer>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <atomic>

namespace {

QByteArray headerOf(const QByteArray& message, const QByteArray& name)
{
    for (const QByteArray& line : message.left(message.indexOf("\r\n\r\n")).split('\n'))
        if (line.toLower().startsWith(name.toLower() + ":"))
            return line.mid(name.size() + 1).trimmed();
    return QByteArray();
}
QByteArray quoted(const QByteArray& text, const QByteArray& key)
{
    const int from = text.indexOf(key + "=\"") + key.size() + 2;
    return from < key.size() + 2 ? QByteArray() : text.mid(from, text.indexOf('"', from) - from);
}
// What a request brought: its Authorization header, then each part as "name=value", the file's
// as "name[filename|type]=bytes".
QList<QByteArray> seenIn(const QByteArray& request)
{
    QList<QByteArray> seen;
    if (!headerOf(request, "Authorization").isEmpty())
        seen << "Authorization: " + headerOf(request, "Authorization");
    const QByteArray boundary = "\r\n--" + headerOf(request, "Content-Type").split('=').last();
    const QByteArray body = "\r\n" + request.mid(request.indexOf("\r\n\r\n") + 4);
    for (int at = body.indexOf(boundary); at >= 0 && body.mid(at + boundary.size(), 2) == "\r\n";) {
        const int start = at + boundary.size() + 2;
        at = body.indexOf(boundary, start);
        const QByteArray part = body.mid(start, at - start), head = part.left(part.indexOf("\r\n\r\n"));
        const QByteArray file = head.contains("filename=") ? "[" + quoted(head, "filename") + "|" + headerOf(head + "\r\n\r\n", "Content-Type") + "]" : "";
        seen << quoted(head, "; name") + file + "=" + part.mid(head.size() + 4);
    }
    return seen;
}
// An HTTP/1.1 receiver on its own thread (plain uploads hold the main thread), one connection at a
// time; each request gets the answer once hold is off. With a certificate folder it speaks TLS.
class Receiver : public QThread {
public:
    Receiver(const QString& certDir, const QByteArray& status, const QByteArray& body)
        : m_certDir(certDir), m_answer(status.isEmpty() ? QByteArray() : "HTTP/1.1 " + status + "\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" + body)
    {
        start();
        while (m_port < 0)
            QThread::yieldCurrentThread();
    }
    ~Receiver() override { m_stop = true; wait(); }
    QString url() const { return QStringLiteral("%1://127.0.0.1:%2/up").arg(m_certDir.isEmpty() ? "http" : "https").arg(m_port); }
    QList<QByteArray> requests() const { QMutexLocker lock(&m_mutex); return m_requests; }
    std::atomic<bool> hold{false};
private:
    struct Server : QTcpServer {   // hands over the descriptor, so that TLS can start on it
        qintptr next = -1;
        void incomingConnection(qintptr fd) override { next = fd; }
    };
    void run() override
    {
        Server server;
        m_port = server.listen(QHostAddress::LocalHost) ? server.serverPort() : 0;   // 0: the uploads fail
        while (!m_stop) {
            if (!server.waitForNewConnection(20) || server.next < 0)
                continue;
            QSslSocket s;
            s.setSocketDescriptor(std::exchange(server.next, -1));
            if (!m_certDir.isEmpty()) {
                s.setLocalCertificate(m_certDir + "/cert.pem");
                s.setPrivateKey(m_certDir + "/key.pem");
                s.startServerEncryption();
            }
            QByteArray in;
            auto live = [&] { return !m_stop && s.state() == QAbstractSocket::ConnectedState; };
            auto whole = [&] { return in.contains("\r\n\r\n") && in.size() >= in.indexOf("\r\n\r\n") + 4 + headerOf(in, "Content-Length").toInt(); };
            for (; live() && !whole(); in += s.readAll())
                s.waitForReadyRead(20);
            if (!live())
                continue;
            { QMutexLocker lock(&m_mutex); m_requests << in; }
            while (live() && (hold || m_answer.isEmpty()))
                s.waitForDisconnected(20);
            if (live())
                s.write(m_answer);
            while (live() && s.bytesToWrite() > 0)
                s.waitForBytesWritten(20);
            s.disconnectFromHost();
        }
    }
    QString m_certDir;
    QByteArray m_answer;   // empty: it never answers
    std::atomic<int> m_port{-1};
    std::atomic<bool> m_stop{false};
    mutable QMutex m_mutex;
    QList<QByteArray> m_requests;
};
// One upload through a command: {url} is the receiver's, {file} a file of the row's name, {dir} a
// folder, {closed} a URL nobody listens on, {https} the receiver's over TLS; {tls} in the profile is
// the certificate folder.
struct Upload {
    QString command, file;
    QByteArray status, body;    // the receiver's answer (status line with any extra headers); none: it never answers
    QString reply;
    QList<QByteArray> seen;     // what reached the receiver (seenIn); empty: nothing did
    QString log;
    bool removed = false;       // the file is gone afterwards
    QByteArray profile = QByteArray();
};

const QString kDialog = QStringLiteral("dialog 图片上传中。。。|1");
const QByteArray kImage("\xff\xd8\x00\r\n--boundary-like\r\n\x01 image bytes \xff\xd9", 35);
QByteArray filePart(const QByteArray& field, const QByteArray& name, const QByteArray& type) { return field + "[" + name + "|" + type + "]=" + kImage; }

}  // namespace

Q_DECLARE_METATYPE(Upload)

class TestUpload : public QObject {
    Q_OBJECT
    MessageRun run;
    PagePair m_page;
    QTemporaryDir m_dir;
    const QString m_tls = m_dir.filePath("tls");
    QStringList m_seen;                 // the dialogs and result boxes shown, as the clerk saw them
    std::function<void()> m_onDialog = [] {};   // what the clerk does when a progress dialog shows
    QString file(const QString& name) { return writeFile(m_dir.filePath(name), kImage) ? m_dir.filePath(name) : QString(); }
    QString send(const QString& command) { return runCommand(run, m_page, command, 15000); }
    // Plays the clerk: notes each dialog as it shows, and answers each result box.
    bool eventFilter(QObject* o, QEvent* e) override
    {
        auto* box = qobject_cast<QMessageBox*>(o);
        auto* dialog = qobject_cast<QDialog*>(o);
        const auto onTop = Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint;
        if (e->type() == QEvent::Show && box) {
            m_seen << QStringLiteral("box %1|%2|%3|%4").arg(box->windowTitle(), box->text()).arg(box->icon()).arg(box->windowType() == Qt::Dialog && box->windowFlags().testFlag(Qt::WindowStaysOnTopHint) && box->isModal());
            QTimer::singleShot(0, box, [box] { box->done(QMessageBox::Ok); });
        } else if (e->type() == QEvent::Show && dialog && dialog->findChild<QLabel*>()) {
            m_seen << QStringLiteral("dialog %1|%2").arg(dialog->findChild<QLabel*>()->text()).arg((dialog->windowFlags() & onTop) == onTop && dialog->isModal());
            m_onDialog();
        }
        return false;
    }
private slots:
    void initTestCase()
    {
        for (const char* v : {"http_proxy", "https_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY"})
            qunsetenv(v);
        QVERIFY(m_page.isConnected() && QSslSocket::supportsSsl() && QDir().mkpath(m_tls));
        QProcess openssl;   // a server certificate that is its own CA
        openssl.start("openssl", {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1",
                                  "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", m_tls + "/key.pem", "-out", m_tls + "/cert.pem"});
        QVERIFY(openssl.waitForFinished(60000) && openssl.exitCode() == 0);
        qApp->installEventFilter(this);
    }
    void init() { portable::loadProfileText(QByteArray()); m_page.makeCurrent(); m_seen.clear(); }
    void cleanup() { m_onDialog = [] {}; }
    void argumentRules_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("call");   // the library call as traced: function and args; "" for none
        QTest::addColumn<QString>("reply");
        QTest::addColumn<QStringList>("seen");   // dialogs and boxes shown
        // The library answers "ok", true, or sUpLoadImageEx5 "body" with true ("(," makes it false).
        const QString s = "sUpLoadImage(%1)", ex5 = "sUpLoadImageEx5(u,f,5,k=v,%1)", ok = "BeginsUpLoadImageokEndsUpLoadImage", body = "BeginsUpLoadImageEx5bodyEndsUpLoadImageEx5";
        QTest::newRow("two parts") << s.arg("a,b") << R"(sUpLoadImage["a","b","",false,""])" << ok << QStringList();
        QTest::newRow("flag 2") << s.arg("a,b,c,d,2") << R"(sUpLoadImage["a","b","c",true,"d"])" << ok << QStringList();
        QTest::newRow("int flag TRUE is off") << s.arg("a,b,c,d,TRUE") << R"(sUpLoadImage["a","b","c",false,"d"])" << ok << QStringList();
        QTest::newRow("one part") << s.arg("a") << "" << "BeginsUpLoadImagefalseEndsUpLoadImage" << QStringList();
        QTest::newRow("Ex6 drops the sixth argument") << "sUpLoadImageEx6(a,b,c,d,1,e)" << R"(sUpLoadImage["a","b","c",true,"d"])" << "BeginsUpLoadImageEx6okEndsUpLoadImageEx6" << QStringList();
        QTest::newRow("Ex2") << "sUpLoadImageEx2(u,f,7,k=v)" << R"(sUpLoadImageEx2["u","f",7,"k=v"])" << "BeginsUpLoadImageEx2okEndsUpLoadImageEx2" << QStringList();
        QTest::newRow("Ex2 three parts") << "sUpLoadImageEx2(u,f,7)" << "" << "BeginsUpLoadImageEx2falseEndsUpLoadImageEx2" << QStringList();
        QTest::newRow("bUpLoadImage three parts") << "bUpLoadImage(a,b,c)" << "" << "BeginbUpLoadImagefalseEndbUpLoadImage" << QStringList();
        QTest::newRow("seconds not a number") << "bUpLoadImage(u,f,x,)" << R"(bUpLoadImage["u","f",0,""])" << "BeginbUpLoadImagetrueEndbUpLoadImage" << QStringList();
        QTest::newRow("Ex5 switch TRUE reads 0") << ex5.arg("TRUE,tok,,0,") << R"(sUpLoadImageEx5["u","f",5,"k=v","tok","","<out>"])" << body << QStringList();
        QTest::newRow("Ex5 switch 1, dialog TRUE") << ex5.arg("1,tok,pic,TRUE,0") << R"(sUpLoadImageEx5["u","f",5,"k=v","","pic","<out>"])" << body << QStringList{kDialog};
        QTest::newRow("Ex5 both shown") << ex5.arg("0,,,xtruex,1") << R"(sUpLoadImageEx5["u","f",5,"k=v","","","<out>"])" << body << QStringList{kDialog, "box 提示信息|   上传成功!     |0|1"};
        QTest::newRow("Ex5 eight parts") << ex5.arg("0,t,n,1") << "" << "BeginsUpLoadImageEx5falseEndsUpLoadImageEx5" << QStringList{kDialog};
        QTest::newRow("Ex5 failure box") << "sUpLoadImageEx5(,,,,,,,0,True)" << R"(sUpLoadImageEx5["","",0,"","","","<out>"])" << body << QStringList{"box 提示信息|   上传失败!     |0|1"};
    }
    void argumentRules()
    {
        QFETCH(QString, command);
        QFETCH(QString, call);
        QFETCH(QString, reply);
        QFETCH(QStringList, seen);
        applyScript(R"({"sUpLoadImage": ["ok"], "sUpLoadImageEx2": ["ok"], "bUpLoadImage": [true]})");
        portable::setScript("sUpLoadImageEx5", QJsonArray{QJsonObject{{"ret", !command.contains("(,")}, {"out", QJsonArray{"body"}}}});
        Trace trace;
        LogCapture log("upload:");
        QCOMPARE(send(command), reply);
        QCOMPARE(m_seen, seen);
        QCOMPARE(log.contains("upload: progress dialog shown") && log.contains("upload: progress dialog closed"), seen.contains(kDialog));
        QCOMPARE(trace.calls().size(), int(!call.isEmpty()));
        for (const QJsonObject& c : trace.calls())
            QCOMPARE(c["fn"].toString() + QJsonDocument(c["args"].toArray()).toJson(QJsonDocument::Compact), call);
    }
    void uploads_data()
    {
        QTest::addColumn<Upload>("row");
        const QByteArray e500 = "500 Internal Server Error", big(50 << 20, 'b'), jpg = filePart("file", "a.jpg", "image/jpeg");
        const QString noText = "BeginsUpLoadImageEx2EndsUpLoadImageEx2", noBool = "BeginbUpLoadImagefalseEndbUpLoadImage";
        const QString none = "BeginsUpLoadImageEndsUpLoadImage", secure = "BeginsUpLoadImagesecureEndsUpLoadImage";
        QTest::newRow("fields decoded, in order") << Upload{"sUpLoadImage({url},{file},a=1&b=%E4%B8%AD+x%26&&c&=z&d=%zz%41,photo,0)", "scan 1.JPG", "200 OK", QByteArray("stored:42\0junk", 14), "BeginsUpLoadImagestored:42EndsUpLoadImage", {"a=1", "b=中+x&", "c=", "d=%zzA", filePart("photo", "scan 1.JPG", "image/jpeg")}, "status 200"};
        QTest::newRow("removed after a 2xx") << Upload{"sUpLoadImage({url},{file},,,1)", "x.png", "201 Created", "ok", "BeginsUpLoadImageokEndsUpLoadImage", {filePart("file", "x.png", "image/png")}, "status 201", true};
        QTest::newRow("kept after a 500") << Upload{"sUpLoadImage({url},{file},,,1)", "x.bmp", e500, "disk full", "BeginsUpLoadImagedisk fullEndsUpLoadImage", {filePart("file", "x.bmp", "image/bmp")}, "status 500"};
        QTest::newRow("Ex2, 500 body") << Upload{"sUpLoadImageEx2({url},{file},5,k=v)", "a.pdf", e500, "no", "BeginsUpLoadImageEx2noEndsUpLoadImageEx2", {"k=v", filePart("file", "a.pdf", "application/pdf")}, "status 500"};
        QTest::newRow("bool, 500") << Upload{"bUpLoadImage({url},{file},5,)", "a.tiff", e500, "", noBool, {filePart("file", "a.tiff", "image/tiff")}, "status 500"};
        QTest::newRow("bool, 204") << Upload{"bUpLoadImage({url},{file},0,)", "a.raw", "204 No Content", "", "BeginbUpLoadImagetrueEndbUpLoadImage", {filePart("file", "a.raw", "application/octet-stream")}, "status 204"};
        QTest::newRow("Ex5 token") << Upload{"sUpLoadImageEx5({url},{file},5,k=v,0,tk,img,0,0)", "b.jpeg", "200 OK", "{\"id\":7}", "BeginsUpLoadImageEx5{\"id\":7}EndsUpLoadImageEx5", {"Authorization: Bearer tk", "k=v", filePart("img", "b.jpeg", "image/jpeg")}, "status 200"};
        QTest::newRow("Ex5 no token") << Upload{"sUpLoadImageEx5({url},{file},5,,1,tk,,0,0)", "b.tif", "200 OK", "ok", "BeginsUpLoadImageEx5okEndsUpLoadImageEx5", {filePart("file", "b.tif", "image/tiff")}, "status 200"};
        QTest::newRow("long URL, big answer") << Upload{"sUpLoadImageEx2({url}" + QString(99970, 'u') + ",{file},5,)", "a.jpg", e500, big, "BeginsUpLoadImageEx2" + QString(8 << 20, 'b') + "EndsUpLoadImageEx2", {jpg}, "longer than 8388608 bytes"};
        QTest::newRow("big answer, bool") << Upload{"bUpLoadImage({url},{file},5,)", "a.jpg", "200 OK", big, "BeginbUpLoadImagetrueEndbUpLoadImage", {jpg}, "longer than 8388608 bytes"};
        QTest::newRow("file URL") << Upload{"sUpLoadImageEx2(file://{file},{file},5,)", "a.jpg", "200 OK", "x", noText, {}, "only http and https"};
        QTest::newRow("ftp URL") << Upload{"bUpLoadImage(ftp://127.0.0.1/x,{file},5,)", "a.jpg", "200 OK", "x", noBool, {}, "only http and https"};
        QTest::newRow("file is a folder") << Upload{"sUpLoadImage({url},{dir})", "a.jpg", "200 OK", "x", none, {}, "not a regular file"};
        QTest::newRow("no such file") << Upload{"sUpLoadImage({url},{file}.missing)", "a.jpg", "200 OK", "x", none, {}, "does not exist"};
        QTest::newRow("redirect to a file URL") << Upload{"sUpLoadImageEx2({url},{file},5,)", "a.jpg", "302 Found\r\nLocation: file:///etc/passwd", "x", noText, {jpg}, "no answer"};
        QTest::newRow("never answers, Ex2") << Upload{"sUpLoadImageEx2({url},{file},1,)", "a.jpg", "", "", noText, {jpg}, "timed out"};
        QTest::newRow("refused") << Upload{"bUpLoadImage({closed},{file},5,)", "a.jpg", "", "", noBool, {}, "no answer"};
        QTest::newRow("https, own CA") << Upload{"sUpLoadImage({https},{file})", "a.jpg", "200 OK", "secure", secure, {jpg}, "status 200", false, R"({"upload": {"caFile": "{tls}/cert.pem"}})"};
        QTest::newRow("https, unknown certificate") << Upload{"sUpLoadImage({https},{file})", "a.jpg", "200 OK", "secure", none, {}, "certificate"};
        QTest::newRow("https, verify off") << Upload{"sUpLoadImage({https},{file})", "a.jpg", "200 OK", "secure", secure, {jpg}, "upload.verify is false", false, R"({"upload": {"verify": false}})"};
        QTest::newRow("https, bad key type") << Upload{"sUpLoadImage({https},{file})", "a.jpg", "200 OK", "secure", none, {}, "key \"upload.verify\" has the wrong type", false, R"({"upload": {"verify": "no"}})"};
    }
    void uploads()
    {
        QFETCH(Upload, row);
        LogCapture log("devicelib:");
        portable::loadProfileText(row.profile.replace("{tls}", m_tls.toUtf8()));
        Receiver receiver(row.command.contains("{https}") ? m_tls : QString(), row.status, row.body);
        QTcpServer closed;
        const QString closedUrl = closed.listen(QHostAddress::LocalHost) ? QStringLiteral("http://127.0.0.1:%1/").arg(closed.serverPort()) : QString();
        closed.close();
        const QString path = file(row.file);
        QCOMPARE(send(row.command.replace("{url}", receiver.url()).replace("{https}", receiver.url()).replace("{file}", path).replace("{dir}", m_dir.path()).replace("{closed}", closedUrl)), row.reply);
        const QByteArray request = receiver.requests().value(0);
        QCOMPARE(receiver.requests().size(), int(!row.seen.isEmpty()));
        QCOMPARE(seenIn(request), row.seen);
        const QString url = row.command.section('(', 1).section(',', 0, 0);   // sent as the page wrote it
        if (!request.isEmpty())
            QCOMPARE(request.left(request.indexOf("\r\n")), "POST " + url.mid(url.indexOf('/', 8)).toUtf8() + " HTTP/1.1");
        QVERIFY2(log.contains(row.log), qPrintable(log.lines().join('\n')));
        QCOMPARE(QFile::exists(path), !row.removed);
    }
    void ex5ServesOtherPagesMeanwhile()
    {
        // Pages reach the dispatcher as through the transport: the sender becomes the current page.
        QWebSocketServer server("upload", QWebSocketServer::NonSecureMode);
        QVERIFY(server.listen(QHostAddress::LocalHost));
        connect(&server, &QWebSocketServer::newConnection, this, [&] {
            QWebSocket* s = server.nextPendingConnection();
            s->setParent(&server);   // the server's pages go with it
            connect(s, &QWebSocket::textMessageReceived, s, [this, s](const QString& m) { gpWebSocket = s; run.recv_msg(m, s); });
        });
        Page a, b;
        QVERIFY(a.open(server.serverPort()) && b.open(server.serverPort()));
        Receiver receiver(QString(), "200 OK", "done");
        receiver.hold = true;
        m_onDialog = [&] { b.ws.sendTextMessage("sUpLoadImageEx2(u,f)"); };
        // The document server answers once the other page was served.
        connect(&b.ws, &QWebSocket::textMessageReceived, this, [&] { receiver.hold = false; });
        LogCapture log("upload:");
        a.ws.sendTextMessage(QStringLiteral("sUpLoadImageEx5(%1,%2,10,,0,,,1,1)").arg(receiver.url(), file("c.jpg")));
        QVERIFY(waitFor([&] { return b.got.size() == 2 && log.contains("result box"); }, 20000));
        QCOMPARE(b.got, (QStringList{"BeginsUpLoadImageEx2falseEndsUpLoadImageEx2", "BeginsUpLoadImageEx5doneEndsUpLoadImageEx5"}));
        QCOMPARE(a.got, QStringList());
        QCOMPARE(log.lines(), (QStringList{"upload: progress dialog shown", "upload: progress dialog closed", "upload: result box:    上传成功!     "}));
    }
    void httpReplySlot()
    {
        run.http_reply_slot(0, "late");
        QCOMPARE(m_page.next(), QStringLiteral("BeginsUpLoadImageEx2lateEndsUpLoadImageEx2"));
        gpWebSocket = nullptr;
        run.http_reply_slot(0, "dropped");
        QCOMPARE(m_page.drain(), QStringList());
    }
};

QTEST_MAIN(TestUpload)
#include "tst_upload.moc"
