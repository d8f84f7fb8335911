// SignSouthInterface: the client of the electronic-signature service. It lives on the main
// thread, starts the service through its script, sends one framed JSON request per signing job
// and forwards the service's replies to every page on sig_msg.
#pragma once

#include <QByteArray>
#include <QLocalSocket>
#include <QObject>
#include <QString>

class SignSouthInterface : public QObject {
    Q_OBJECT
public:
    static SignSouthInterface* instance();

    // Starts the service's script and connects; true when connected.
    bool start();
    // Drops the connection, if there is one.
    void stop();
    // One request of type 1 (sign the PDF) or type 2 (signature only).
    void DoGWQ_StartSign(QString pdfpath, QString xmlpath, QString location, QString retain, int timeout);
    void DoGWQ_StartSignEx(QString pdfpath, QString xmlpath, QString location, QString retain, int timeout);

    bool isConnected() const { return m_socket->state() == QLocalSocket::ConnectedState; }

    static const QString kServerName;
    static const QString kScript;

signals:
    void sig_msg(QByteArray);

public slots:
    void slot_stateChanged(QLocalSocket::LocalSocketState state);
    void slot_readyRead();

private:
    explicit SignSouthInterface(QObject* parent);
    void send(qint32 type, const QString& pdfpath, const QString& xmlpath, const QString& location,
              const QString& retain, int timeout);

    QLocalSocket* m_socket;
};
