#include "app/configini.h"

#include <QCoreApplication>
#include <QDebug>
#include <QSettings>
#include <QVariant>

QString ConfigIni::defaultPath()
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/server.ini");
}

ConfigIni::ConfigIni() : ConfigIni(defaultPath()) {}

ConfigIni::ConfigIni(const QString& path)
{
    QSettings settings(path, QSettings::IniFormat);

    const QVariant portValue = settings.value(QStringLiteral("port"), 1818);
    bool portOk = false;
    const int portNumber = portValue.toInt(&portOk);
    if (!portOk || portNumber < 0 || portNumber > 65535)
        qInfo() << "settings" << path << ": key \"port\" is not a port number:" << portValue.toString()
                << "; read as" << static_cast<quint16>(portNumber);
    port = static_cast<quint16>(portNumber);

    browser = settings.value(QStringLiteral("browser"), QStringLiteral("uos-browser")).toString();

    const QVariant sizeValue = settings.value(QStringLiteral("padsize"), QSize(1280, 800));
    padsize = sizeValue.toSize();
    if (!padsize.isValid())
        qInfo() << "settings" << path << ": key \"padsize\" is not a size:" << sizeValue.toString()
                << "; the page window gets no size";

    // Deliberate: the counter pages always run in gnome-www-browser, whatever the file names,
    // and the file is corrected to say so.
    browser = QStringLiteral("gnome-www-browser");

    settings.setValue(QStringLiteral("port"), static_cast<int>(port));
    settings.setValue(QStringLiteral("browser"), browser);
    settings.setValue(QStringLiteral("padsize"), padsize);
    settings.sync();
}
