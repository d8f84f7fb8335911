// The browser helper: shows the counter pages the device server asks for on the customer's
// screen. It reads frames on the local socket "SOUTHINTERFACE_BROWSER" (type 1: a URL; type 2: a
// page path and its data, handed to the page in the URL fragment), opens each in chromium and
// answers "BeginWebBrowser...EndWebBrowser".
#include "companion/browserlaunch.h"
#include "companion/singleservice.h"

#include <QDebug>
#include <QDir>
#include <QGuiApplication>
#include <QHash>
#include <QLocalServer>
#include <QLocalSocket>
#include <QPointer>
#include <QProcess>
#include <QScreen>
#include <QStandardPaths>
#include <QTimer>
#include <QUrl>

#include <cstring>

namespace {

const qint32 kMaxField = 1024 * 1024;
const int kFrameDeadlineMs = 10000;
const int kKillAfterMs = 5000;

struct Frame {
    qint32 type = 0;
    QByteArray url, data;
};

enum class Parse { Incomplete, Done, Bad };

// One frame from the front of buf, consumed when whole.
Parse takeFrame(QByteArray& buf, Frame* f, QString* why)
{
    int at = 0;
    const auto int32 = [&](qint32* v) {
        if (buf.size() < at + 4)
            return false;
        std::memcpy(v, buf.constData() + at, 4);
        at += 4;
        return true;
    };
    // A length and its bytes; false when not all there yet or the length is refused.
    const auto text = [&](QByteArray* out, bool* bad) {
        qint32 n = 0;
        if (!int32(&n))
            return false;
        if (n < 0 || n > kMaxField) {
            *why = QStringLiteral("length %1 refused").arg(n);
            *bad = true;
            return false;
        }
        if (buf.size() < at + n)
            return false;
        *out = buf.mid(at, n);
        at += n;
        return true;
    };
    if (!int32(&f->type))
        return Parse::Incomplete;
    if (f->type != 1 && f->type != 2) {
        *why = QStringLiteral("unknown frame type %1").arg(f->type);
        return Parse::Bad;
    }
    bool bad = false;
    if (!text(&f->url, &bad) || (f->type == 2 && !text(&f->data, &bad)))
        return bad ? Parse::Bad : Parse::Incomplete;
    buf.remove(0, at);
    return Parse::Done;
}

class BrowserHelper : public QObject {
public:
    bool listen()
    {
        m_lock = singleservice::listen(m_server, QStringLiteral("SOUTHINTERFACE_BROWSER"));
        if (!m_lock)
            return false;
        connect(&m_server, &QLocalServer::newConnection, this, &BrowserHelper::accept);
        qInfo().noquote() << "browser helper listening on" << m_server.fullServerName();
        return true;
    }

private:
    struct Client {
        QByteArray buf;
        QTimer* deadline = nullptr;
    };

    void accept()
    {
        while (QLocalSocket* s = m_server.nextPendingConnection()) {
            Client& c = m_clients[s];
            c.deadline = new QTimer(s);
            c.deadline->setSingleShot(true);
            connect(c.deadline, &QTimer::timeout, s, [this, s] { dropPartial(s, QStringLiteral("frame not complete after 10 s")); });
            connect(s, &QLocalSocket::readyRead, s, [this, s] { read(s); });
            connect(s, &QLocalSocket::disconnected, this, [this, s] { leave(s); });
        }
    }

    void read(QLocalSocket* s)
    {
        Client& c = m_clients[s];
        const QByteArray more = s->readAll();
        if (c.buf.isEmpty() && !more.isEmpty())
            c.deadline->start(kFrameDeadlineMs);
        c.buf += more;
        for (;;) {
            Frame f;
            QString why;
            const Parse p = takeFrame(c.buf, &f, &why);
            if (p == Parse::Incomplete)
                break;
            if (p == Parse::Bad) {
                dropPartial(s, why);
                return;
            }
            open(s, f);
            if (c.buf.isEmpty()) {
                c.deadline->stop();
                break;
            }
            c.deadline->start(kFrameDeadlineMs);
        }
    }

    void dropPartial(QLocalSocket* s, const QString& why)
    {
        Client& c = m_clients[s];
        qInfo().noquote() << "frame dropped:" << why << "(" << c.buf.size() << "bytes)";
        c.buf.clear();
        c.deadline->stop();
        answer(s, QStringLiteral("error: ") + why);
    }

    void leave(QLocalSocket* s)
    {
        if (!m_clients.value(s).buf.isEmpty())
            dropPartial(s, QStringLiteral("client left in the middle of a frame"));
        m_clients.remove(s);
        if (m_owner == s)
            closeBrowser();
        s->deleteLater();
    }

    static void answer(QLocalSocket* s, const QString& text)
    {
        if (s->state() == QLocalSocket::ConnectedState)
            s->write((QStringLiteral("BeginWebBrowser") + text + QStringLiteral("EndWebBrowser")).toUtf8());
    }

    void closeBrowser()
    {
        if (!m_browser)
            return;
        QProcess* old = m_browser;
        m_browser = nullptr;
        m_owner = nullptr;
        connect(old, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), old, &QObject::deleteLater);
        if (old->state() == QProcess::NotRunning) {
            old->deleteLater();
            return;
        }
        old->terminate();
        QTimer::singleShot(kKillAfterMs, old, &QProcess::kill);
    }

    void open(QLocalSocket* s, const Frame& f)
    {
        closeBrowser();
        QString url = QString::fromUtf8(f.url);
        if (f.type == 2) {
            url = QUrl::fromLocalFile(url).toString(QUrl::FullyEncoded) + QLatin1Char('#')
                + QString::fromLatin1(QUrl::toPercentEncoding(QString::fromUtf8(f.data)));
        }
        const QString program = QStandardPaths::findExecutable(QStringLiteral("chromium"));
        if (program.isEmpty()) {
            answer(s, QStringLiteral("error: chromium not found in PATH"));
            return;
        }
        QList<QRect> screens;
        for (const QScreen* screen : QGuiApplication::screens())
            screens << screen->geometry();
        const int pad = browserlaunch::padScreen(screens);
        const QSize size = pad >= 0 ? screens[pad].size() : QSize(1280, 800);
        auto* browser = new QProcess(this);
        browser->setProcessChannelMode(QProcess::ForwardedChannels);
        browser->start(program, browserlaunch::arguments(screens, size, url, QDir::tempPath() + QStringLiteral("/rvo-counter-browser")));
        if (!browser->waitForStarted(kFrameDeadlineMs)) {
            answer(s, QStringLiteral("error: ") + browser->errorString());
            browser->deleteLater();
            return;
        }
        m_browser = browser;
        m_owner = s;
        qInfo().noquote() << "opened" << url;
        answer(s, QStringLiteral("opened ") + url);
    }

    QLocalServer m_server;
    std::unique_ptr<QLockFile> m_lock;
    QHash<QLocalSocket*, Client> m_clients;
    QPointer<QProcess> m_browser;
    QLocalSocket* m_owner = nullptr;
};

}  // namespace

int main(int argc, char** argv)
{
    QGuiApplication app(argc, argv);
    BrowserHelper helper;
    if (!helper.listen())
        return 0;
    return app.exec();
}
