#include "app/security.h"

#include <QDebug>
#include <QSettings>
#include <QVariant>

namespace {

// Qt's INI reader turns "a,b" into a list and "a" into a text; a quoted "a,b" stays one text.
QStringList listValue(const QVariant& v)
{
    QStringList raw = v.type() == QVariant::StringList ? v.toStringList() : v.toString().split(QLatin1Char(','));
    QStringList out;
    for (QString s : raw) {
        s = s.trimmed();
        if (!s.isEmpty())
            out << s;
    }
    return out;
}

void badKey(const QString& path, const char* key, const QVariant& v, const char* keeps)
{
    qInfo().noquote() << QStringLiteral("settings %1: key \"security/%2\" has a bad value \"%3\"; using %4")
                             .arg(path, QLatin1String(key), v.toString(), QLatin1String(keeps));
}

// A whole number above zero, or the key keeps its default.
void readPositive(const QSettings& ini, const QString& path, const char* key, const char* keeps, qint64* value)
{
    const QVariant v = ini.value(QLatin1String(key));
    if (!v.isValid())
        return;
    bool ok = false;
    const qint64 n = v.toString().trimmed().toLongLong(&ok);
    if (ok && n > 0)
        *value = n;
    else
        badKey(path, key, v, keeps);
}

SecuritySettings& active()
{
    static SecuritySettings settings;
    return settings;
}

}  // namespace

const SecuritySettings& activeSecurity()
{
    return active();
}

void setActiveSecurity(const SecuritySettings& settings)
{
    active() = settings;
}

SecuritySettings SecuritySettings::load(const QString& iniPath)
{
    SecuritySettings s;
    QSettings ini(iniPath, QSettings::IniFormat);
    ini.beginGroup(QStringLiteral("security"));

    const QVariant listen = ini.value(QStringLiteral("listen"));
    if (listen.isValid()) {
        const QString text = listen.toString().trimmed();
        QHostAddress a;
        if (text.isEmpty() || text.compare(QLatin1String("loopback"), Qt::CaseInsensitive) == 0)
            s.listen = Listen::Loopback;
        else if (text.compare(QLatin1String("any"), Qt::CaseInsensitive) == 0)
            s.listen = Listen::Any;
        else if (a.setAddress(text)) {
            s.listen = Listen::Address;
            s.address = a;
        } else
            badKey(iniPath, "listen", listen, "the loopback addresses");
    }

    s.origins = listValue(ini.value(QStringLiteral("origins")));
    s.fileRoots = listValue(ini.value(QStringLiteral("fileRoots")));

    readPositive(ini, iniPath, "maxMessageBytes", "64 MiB", &s.maxMessageBytes);
    qint64 clients = s.maxClients;
    readPositive(ini, iniPath, "maxClients", "64", &clients);
    s.maxClients = int(qMin<qint64>(clients, 1 << 20));
    return s;
}

QList<QHostAddress> SecuritySettings::listenAddresses() const
{
    switch (listen) {
    case Listen::Any: return {QHostAddress(QHostAddress::Any)};
    case Listen::Address: return {address};
    case Listen::Loopback: break;
    }
    return {QHostAddress(QHostAddress::LocalHost), QHostAddress(QHostAddress::LocalHostIPv6)};
}
