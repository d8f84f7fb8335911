// SignSouthInterface: the client of the electronic-signature service. It lives on the main
// thread and forwards the service's replies to every page on sig_msg.
#pragma once

#include <QByteArray>
#include <QObject>

class SignSouthInterface : public QObject {
    Q_OBJECT
public:
    static SignSouthInterface* instance();

signals:
    void sig_msg(QByteArray);

private:
    SignSouthInterface() = default;
};
