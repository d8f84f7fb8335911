// The signing service: the customer signs on the pad screen and the signature goes into the
// contract PDF. It reads requests on the local socket "SOUTHINTERFACE_ELECSIGNSERVER" (type 1:
// sign the PDF; type 2: the signature only) and answers each with a length-prefixed JSON.
#include "companion/browserlaunch.h"
#include "companion/singleservice.h"
#include "elecsign/signpanel.h"
#include "elecsign/stamp.h"

#include <QApplication>
#include <QBuffer>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalServer>
#include <QLocalSocket>
#include <QPointer>
#include <QScreen>
#include <QTimer>

#include <cstring>

namespace {

enum Code { Signed = 0, Failed = 1, TimedOut = 2, Cancelled = 3 };
const qint32 kMaxRequest = 1024 * 1024;

class SignService : public QObject {
public:
    bool listen()
    {
        m_lock = singleservice::listen(m_server, QStringLiteral("SOUTHINTERFACE_ELECSIGNSERVER"));
        if (!m_lock)
            return false;
        connect(&m_server, &QLocalServer::newConnection, this, &SignService::accept);
        qInfo().noquote() << "signing service listening on" << m_server.fullServerName();
        return true;
    }

private:
    struct Job {
        qint32 type = 0;
        QJsonObject request;
        stamp::Place place;
        QPointer<QLocalSocket> client;
    };

    void accept()
    {
        while (QLocalSocket* s = m_server.nextPendingConnection()) {
            connect(s, &QLocalSocket::readyRead, s, [this, s] { read(s); });
            connect(s, &QLocalSocket::disconnected, this, [this, s] {
                m_buffers.remove(s);
                if (m_job.client == s)
                    finish(Cancelled, QStringLiteral("the client left"));
                s->deleteLater();
            });
        }
    }

    void read(QLocalSocket* s)
    {
        QByteArray& buf = m_buffers[s];
        buf += s->readAll();
        while (buf.size() >= 8) {
            qint32 type = 0, length = 0;
            std::memcpy(&type, buf.constData(), 4);
            std::memcpy(&length, buf.constData() + 4, 4);
            if (length < 0 || length > kMaxRequest) {
                buf.clear();
                reply(s, Failed, QStringLiteral("request length %1 refused").arg(length), {});
                return;
            }
            if (buf.size() < 8 + length)
                return;
            const QByteArray body = buf.mid(8, length);
            buf.remove(0, 8 + length);
            handle(s, type, body);
        }
    }

    void handle(QLocalSocket* s, qint32 type, const QByteArray& body)
    {
        QJsonParseError err;
        const QJsonDocument doc = QJsonDocument::fromJson(body, &err);
        if (type != 1 && type != 2)
            return reply(s, Failed, QStringLiteral("unknown request type %1").arg(type), {});
        if (!doc.isObject())
            return reply(s, Failed, QStringLiteral("broken JSON: %1").arg(err.errorString()), {});
        if (m_panel)
            finish(Cancelled, QStringLiteral("a new request came"));
        Job job;
        job.type = type;
        job.request = doc.object();
        job.client = s;
        QString why;
        if (type == 1) {
            const QString pdf = job.request.value(QStringLiteral("pdfpath")).toString();
            if (!stamp::parsePlace(job.request.value(QStringLiteral("location")).toString(), &job.place, &why)
                || !stamp::check(pdf, job.place, &why))
                return reply(s, Failed, why, job.request);
        }
        m_job = job;
        if (qgetenv("ELECSIGN_AUTOSIGN") == "1") {
            SignPanel generated;
            generated.signGenerated();
            return confirmed(generated.signature(), generated.strokes());
        }
        showPanel();
    }

    void showPanel()
    {
        m_panel = new SignPanel();
        m_panel->setAttribute(Qt::WA_DeleteOnClose);
        connect(m_panel, &SignPanel::confirmed, this, [this] { confirmed(m_panel->signature(), m_panel->strokes()); });
        // The customer's pad: the smallest screen, chosen as the browser's is.
        QList<QRect> screens;
        for (const QScreen* s : QGuiApplication::screens())
            screens << s->geometry();
        if (!screens.isEmpty())
            m_panel->setGeometry(screens.value(browserlaunch::padScreen(screens), screens.first()));
        m_panel->showFullScreen();
        const int timeout = m_job.request.value(QStringLiteral("timeout")).toInt();
        if (timeout > 0)
            QTimer::singleShot(timeout * 1000, m_panel, [this] { finish(TimedOut, QStringLiteral("no signature in time")); });
    }

    void confirmed(const QImage& signature, const QJsonArray& strokes)
    {
        QByteArray png;
        QBuffer buffer(&png);
        buffer.open(QIODevice::WriteOnly);
        signature.save(&buffer, "PNG");
        m_signature = QString::fromLatin1(png.toBase64());
        m_strokes = strokes;
        if (m_job.type == 2)
            return finish(Signed, QStringLiteral("signed"));
        const QString pdf = m_job.request.value(QStringLiteral("pdfpath")).toString();
        const bool retain = m_job.request.value(QStringLiteral("retain")).toString() == QLatin1String("1");
        const QFileInfo fi(pdf);
        m_signedPath = retain ? fi.absolutePath() + QLatin1Char('/') + fi.completeBaseName() + QStringLiteral("_signed.pdf") : pdf;
        QString why;
        if (!stamp::apply(pdf, m_signedPath, signature, m_job.place, &why))
            return finish(Failed, why);
        finish(Signed, QStringLiteral("signed"));
    }

    void finish(Code code, const QString& msg)
    {
        if (m_panel) {
            SignPanel* panel = m_panel;
            m_panel = nullptr;
            panel->close();
        }
        if (m_job.client)
            reply(m_job.client, code, msg, m_job.request);
        m_job = Job();
        m_signature.clear();
        m_strokes = QJsonArray();
        m_signedPath.clear();
    }

    void reply(QLocalSocket* s, Code code, const QString& msg, const QJsonObject& request)
    {
        qInfo().noquote() << "answer" << code << msg;
        if (s->state() != QLocalSocket::ConnectedState)
            return;
        QJsonObject o;
        o.insert(QStringLiteral("code"), int(code));
        o.insert(QStringLiteral("msg"), msg);
        o.insert(QStringLiteral("pdfpath"), request.value(QStringLiteral("pdfpath")).toString());
        o.insert(QStringLiteral("signedpath"), code == Signed ? m_signedPath : QString());
        o.insert(QStringLiteral("signature"), code == Signed ? m_signature : QString());
        o.insert(QStringLiteral("strokes"), code == Signed ? m_strokes : QJsonArray());
        QByteArray json = QJsonDocument(o).toJson(QJsonDocument::Compact);
        // The device server forwards only answers of more than 100 bytes.
        if (json.size() <= 100)
            json.append(QByteArray(101 - json.size(), ' '));
        const qint32 length = json.size();
        s->write(reinterpret_cast<const char*>(&length), 4);
        s->write(json);
        s->flush();
    }

    QLocalServer m_server;
    std::unique_ptr<QLockFile> m_lock;
    QHash<QLocalSocket*, QByteArray> m_buffers;
    Job m_job;
    QPointer<SignPanel> m_panel;
    QString m_signature, m_signedPath;
    QJsonArray m_strokes;
};

}  // namespace

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    app.setQuitOnLastWindowClosed(false);
    SignService service;
    if (!service.listen())
        return 0;
    return app.exec();
}
