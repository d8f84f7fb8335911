#include "companion/webbrowser.h"
#include "companion/browserlaunch.h"
#include "companion/companionwait.h"
#include "dispatch/messagerun.h"

#include <QDebug>
#include <QGuiApplication>
#include <QProcess>
#include <QScreen>
#include <QWebSocket>

WebBrowser* WebBrowser::instance()
{
    // Created on first use, after the application object, so the settings file is found beside
    // the program; it lives until the process ends.
    static WebBrowser browser;
    return &browser;
}

WebBrowser::WebBrowser() : m_process(new QProcess(this)) {}

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

void WebBrowser::openURL(QString url, QString data)
{
    closeURL();
    m_pageData = std::move(data);
    QList<QRect> screens;
    for (const QScreen* s : QGuiApplication::screens())
        screens << s->geometry();
    const int pad = browserlaunch::padScreen(screens);
    if (pad >= 0)
        qDebug() << __LINE__ << __FUNCTION__ << "webbrowser" << "pad screen" << pad;
    const QStringList args = browserlaunch::arguments(screens, m_config.padsize, url,
                                                      QStringLiteral("/tmp/veltrobrowser12345"));
    qDebug() << __LINE__ << __FUNCTION__ << "webbrowser" << m_config.browser << args;
    m_process->start(m_config.browser, args, QIODevice::ReadWrite);
    m_process->waitForStarted(companion::waitMs(30000));
}

void WebBrowser::closeURL()
{
    m_process->terminate();
    m_process->waitForFinished(companion::waitMs(30000));
    m_process->close();
}
