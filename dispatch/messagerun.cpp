#include "dispatch/messagerun.h"

#include "dispatch/replies.h"

#include <QDebug>
#include <QTimer>
#include <QWebSocket>

QWebSocket* gpWebSocket = nullptr;

namespace {
MessageRun::PageSender& pageSender()
{
    // Main thread only, like every socket; set and cleared by the transport.
    static MessageRun::PageSender sender;
    return sender;
}
}  // namespace

MessageRun::MessageRun(QObject* parent) : QObject(parent)
{
    // The timer-driven frame push is wired but never started: the capture thread pushes the
    // preview. It stays so that a page-facing timer push can be switched on in one place.
    m_previewTimer = new QTimer(this);
    connect(m_previewTimer, SIGNAL(timeout()), this, SLOT(OnSengImgMessage()));
    connect(this, SIGNAL(handle_msg_signal(QString,QObject* )), this, SLOT(handle_msg_slot(QString,QObject* )));
    connect(this, &MessageRun::sig_sendmsg, this, &MessageRun::send_msg);
    InitCallBackMap();
}

MessageRun::~MessageRun() = default;

void MessageRun::InitCallBackMap()
{
#define COMMAND(cmd) m_callbacks.insert(QStringLiteral(#cmd), &MessageRun::cmd##_callback);
#include "dispatch/commands.def"
#undef COMMAND
}

void MessageRun::recv_msg(QString msg, QWebSocket* socket)
{
    Q_UNUSED(socket);
    emit handle_msg_signal(msg, nullptr);
}

void MessageRun::parse(const QString& msg, QString* name, QString* args)
{
    *name = msg;
    args->clear();
    const int i = msg.indexOf(QLatin1Char('('));
    if (i < 0)
        return;
    // Everything after the first "(" less the message's last character, whatever it is.
    const int len = msg.length() - i - 2;
    *args = len >= 0 ? msg.mid(i + 1, len) : msg.mid(i + 1);
    *name = msg.left(i);
}

void MessageRun::handle_msg_slot(QString msg, QObject*)
{
    qDebug() << msg;
    QString name;
    QString args;
    parse(msg, &name, &args);
    const auto it = m_callbacks.constFind(name);
    if (it == m_callbacks.constEnd())
        return;
    (*it)(name, args, this);
}

void MessageRun::send_msg(QString text)
{
    if (!gpWebSocket)
        return;
    sendToPage(gpWebSocket, text);
}

void MessageRun::setPageSender(PageSender sender)
{
    pageSender() = std::move(sender);
}

void MessageRun::sendToPage(QWebSocket* socket, const QString& text)
{
    if (!socket)
        return;
    if (pageSender())
        pageSender()(socket, text);
    else
        socket->sendTextMessage(text);
}

void MessageRun::send_json_msg(bool ok, QString funcname, QString data)
{
    send_msg(reply::jsonEvent(ok, funcname, data));
}

void MessageRun::sendmsg_thread(QString text)
{
    emit sig_sendmsg(text);
}

void MessageRun::slot_zazfpRead(bool bOK, QString fileName)
{
    // The fingerprint reader reports its image through its own callback; nothing to do here.
    Q_UNUSED(bOK);
    Q_UNUSED(fileName);
}

QString reply::send(const QString& text)
{
    MessageRun::send_msg(text);
    return text;
}
