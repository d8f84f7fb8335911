// MessageRun: turns one command text from a page into one call of its command callback, and
// carries replies back to the current client.
#pragma once

#include <QMap>
#include <QObject>
#include <QString>

#include <functional>

class QTimer;
class QWebSocket;

// The current client: the page that sent the latest command; null after any page leaves.
// Written only by the transport, read by the reply path. Main thread only.
extern QWebSocket* gpWebSocket;

class MessageRun : public QObject {
    Q_OBJECT
public:
    using Callback = QString (*)(QString name, QString args, MessageRun* self);

    explicit MessageRun(QObject* parent = nullptr);
    ~MessageRun() override;

    // Sends text to the current client; dropped when there is none.
    static void send_msg(QString text);
    // The transport's send path, which every text to a page takes (it counts what each page
    // owes). Without one (a dispatcher on its own, in tests) texts go straight to the socket.
    using PageSender = std::function<void(QWebSocket*, const QString&)>;
    static void setPageSender(PageSender sender);
    static void sendToPage(QWebSocket* socket, const QString& text);
    // Composes a JSON event and sends it.
    static void send_json_msg(bool ok, QString funcname, QString data);
    // From any thread: the reply is queued to this object's thread, where send_msg runs.
    void sendmsg_thread(QString text);

    // The registry, for lookups and self-tests.
    const QMap<QString, Callback>& callbacks() const { return m_callbacks; }

    // Splits a command text into its name and argument text (exposed for tests).
    static void parse(const QString& msg, QString* name, QString* args);

signals:
    void handle_msg_signal(QString, QObject*);
    void sig_sendmsg(QString message);
    void sig_sync_close();

public slots:
    void recv_msg(QString msg, QWebSocket* socket);
    void handle_msg_slot(QString msg, QObject*);
    void OnSengImgMessage();
    // An upload answer that arrives later: sent as sUpLoadImageEx2's reply to the current client.
    void http_reply_slot(int retCode, QString text);
    void slot_zazfpRead(bool bOK, QString fileName);
    // The automatic scan's observer: the library invokes it for each shot it reports.
    void slot_iAutoshot(int n);

private:
    void InitCallBackMap();

#define COMMAND(cmd) static QString cmd##_callback(QString name, QString args, MessageRun* self);
#include "dispatch/commands.def"
#undef COMMAND

    QTimer* m_previewTimer = nullptr;
    bool m_imagePush = false;
    QMap<QString, Callback> m_callbacks;

    friend class MessageRunTestAccess;
};
