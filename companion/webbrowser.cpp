#include "companion/webbrowser.h"
#include "dispatch/messagerun.h"

#include <QDebug>
#include <QWebSocket>

WebBrowser* WebBrowser::instance()
{
    // Created on first use, after the application object, so the settings file is found beside
    // the program; it lives until the process ends.
    static WebBrowser browser;
    return &browser;
}

WebBrowser::WebBrowser() = default;

void WebBrowser::recvMessage(QString message, QWebSocket* socket)
{
    if (!message.startsWith(QLatin1Char('@')))
        return;
    if (!socket) {
        qDebug() << __LINE__ << __FUNCTION__ << "webbrowser" << "page data asked for without a connection";
        return;
    }
    qDebug() << __LINE__ << __FUNCTION__ << "webbrowser" << "page data to" << socket->peerPort()
             << m_pageData.size() << "characters";
    MessageRun::sendToPage(socket, m_pageData);
}
