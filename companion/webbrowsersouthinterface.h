// Webbrowsersouthinterface: the client of the browser helper, which shows the counter pages on
// the customer's screen. It starts the helper through its script, sends it one frame per page
// and passes the helper's answers on to the current page.
#pragma once

#include <QLocalSocket>
#include <QObject>
#include <QString>

class Webbrowsersouthinterface : public QObject {
    Q_OBJECT
public:
    static Webbrowsersouthinterface* instance();

    // Starts the helper's script and connects; true when connected.
    bool start();
    // Drops the connection, if there is one.
    void stopWeb();
    // A type 1 frame (the URL alone) or a type 2 frame (URL and page data); false when not
    // connected or a 4-byte field was not accepted whole.
    bool openURL(QString url);
    bool openURL(QString url, QString data);

    bool isConnected() const { return m_socket->state() == QLocalSocket::ConnectedState; }

    static const QString kServerName;
    static const QString kScript;

public slots:
    void slot_readyRead();

private:
    explicit Webbrowsersouthinterface(QObject* parent);
    bool writeInt(qint32 value);
    bool writeText(const QString& text);

    QLocalSocket* m_socket;
};
