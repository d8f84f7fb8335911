// WebBrowser: the in-process launcher of the counter-terminal pages' browser. It keeps the
// data of the last page it opened and hands it to any page that asks with a message "@...".
#pragma once

#include "app/configini.h"

#include <QObject>
#include <QString>

#include <utility>

class QProcess;
class QWebSocket;

class WebBrowser : public QObject {
    Q_OBJECT
public:
    static WebBrowser* instance();

    // A text message from a page: one that begins with "@" gets the stored page data back.
    void recvMessage(QString message, QWebSocket* socket);

    // Closes any browser it started, keeps data for "@" and starts the configured browser on url.
    void openURL(QString url, QString data);
    // Ends the browser it started, if any.
    void closeURL();

    QString pageData() const { return m_pageData; }
    // Keeps the data of the page being opened, for the page to fetch with "@".
    void setPageData(QString data) { m_pageData = std::move(data); }
    const ConfigIni& settings() const { return m_config; }
    QProcess* process() const { return m_process; }

private:
    WebBrowser();
    ConfigIni m_config;
    QString m_pageData;
    QProcess* m_process;
};
