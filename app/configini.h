// ConfigIni: the browser helper's settings beside the program ("server.ini"), read once and
// written straight back so that a missing file or key is created with its value.
#pragma once

#include <QSize>
#include <QString>

class ConfigIni {
public:
    // Reads (and writes back) the settings file beside the program.
    ConfigIni();
    // The same for a settings file elsewhere.
    explicit ConfigIni(const QString& path);

    // The application directory followed by "/server.ini".
    static QString defaultPath();

    quint16 port;
    QString browser;
    QSize padsize;
};
