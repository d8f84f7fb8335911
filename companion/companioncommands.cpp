// Signing and counter-page commands. The signature service and the browser helper never run
// together: each page command drops the signature client, each signing command the browser's.
#include "companion/signsouthinterface.h"
#include "companion/webbrowser.h"
#include "companion/webbrowsersouthinterface.h"
#include "dispatch/args.h"
#include "dispatch/messagerun.h"
#include "dispatch/replies.h"

#include <QCoreApplication>
#include <QDebug>

namespace {

using SignRequest = void (SignSouthInterface::*)(QString, QString, QString, QString, int);

// DoGWQ_StartSign(pdfpath,xmlpath,location,retain,timeout): the page writes the location with
// "." between its numbers (1.100.200.50); the service gets them with "," (1,100,200,50).
QString sign(const QString& name, const QString& args, SignRequest request)
{
    Webbrowsersouthinterface::instance()->stopWeb();
    SignSouthInterface* client = SignSouthInterface::instance();
    bool ok = client->start();
    const Args a = Args::split(args);
    if (ok && a.count() < 5) {
        client->stop();
        ok = false;
    }
    QString location = a.text(2);
    location.replace(QLatin1Char('.'), QLatin1Char(','));
    if (ok && location.split(QLatin1Char(',')).size() < 4) {
        qDebug() << __LINE__ << __FUNCTION__ << "companioncommands" << name << "location needs 4 numbers:" << a.text(2);
        ok = false;
    }
    if (ok)
        (client->*request)(a.text(0), a.text(1), location, a.text(3), a.toInt(4));
    reply::send(reply::framedBool(name, ok));
    return QString();
}

// A counter page opened with the whole argument text as its data, which "@" then answers.
QString page(const QString& name, const QString& file, const QString& data)
{
    SignSouthInterface::instance()->stop();
    WebBrowser::instance()->setPageData(data);
    Webbrowsersouthinterface* helper = Webbrowsersouthinterface::instance();
    const QString url = QCoreApplication::applicationDirPath() + QStringLiteral("/webSite/") + file;
    return reply::send(reply::framedBool(name, helper->start() && helper->openURL(url, data)));
}

}  // namespace

QString MessageRun::DoGWQ_StartSign_callback(QString name, QString args, MessageRun*)
{
    return sign(name, args, &SignSouthInterface::DoGWQ_StartSign);
}

QString MessageRun::DoGWQ_StartSignEx_callback(QString name, QString args, MessageRun*)
{
    return sign(name, args, &SignSouthInterface::DoGWQ_StartSignEx);
}

QString MessageRun::DoGWQ_StartInfo_callback(QString name, QString args, MessageRun*)
{
    return page(name, QStringLiteral("infoExchange.html"), args);
}

QString MessageRun::DoGWQ_StartEvaluator_callback(QString name, QString args, MessageRun*)
{
    return page(name, QStringLiteral("evaluate.html"), args);
}

QString MessageRun::GWQ_TellerInfo_callback(QString name, QString args, MessageRun*)
{
    return page(name, QStringLiteral("teller.html"), args);
}

QString MessageRun::GWQ_CallNumber_callback(QString name, QString args, MessageRun*)
{
    return page(name, QStringLiteral("callNo.html"), args);
}

QString MessageRun::GWQ_PaymentInfo_callback(QString name, QString args, MessageRun*)
{
    return page(name, QStringLiteral("pay.html"), args);
}

// OpenURL(url): the whole argument text is the URL, opened without page data.
QString MessageRun::OpenURL_callback(QString name, QString args, MessageRun*)
{
    SignSouthInterface::instance()->stop();
    Webbrowsersouthinterface* helper = Webbrowsersouthinterface::instance();
    return reply::send(reply::framedBool(name, helper->start() && helper->openURL(args)));
}

QString MessageRun::WebbrowserExit_callback(QString name, QString, MessageRun*)
{
    SignSouthInterface::instance()->stop();
    Webbrowsersouthinterface::instance()->stopWeb();
    return reply::send(reply::framedTrue(name));
}
