#include "transport/handshakeguard.h"

#include <QRegularExpression>

namespace handshake {

RequestHead parseHead(const QByteArray& bytes)
{
    RequestHead head;
    const int end = bytes.indexOf("\r\n\r\n");
    if (end < 0)
        return head;
    head.complete = true;
    const QList<QByteArray> lines = bytes.left(end).split('\n');
    for (int i = 1; i < lines.size(); ++i) {   // line 0 is the request line
        const QByteArray line = lines.at(i).trimmed();
        const int colon = line.indexOf(':');
        if (colon <= 0)
            continue;
        const QByteArray name = line.left(colon).trimmed().toLower();
        const QString value = QString::fromLatin1(line.mid(colon + 1).trimmed());
        if (name == "host" && !head.hasHost) {
            head.hasHost = true;
            head.host = value;
        } else if (name == "origin" && !head.hasOrigin) {
            head.hasOrigin = true;
            head.origin = value;
        }
    }
    return head;
}

bool hostAllowed(const QString& host, const QList<QHostAddress>& own)
{
    // Split off an optional port: "name:port", "[v6]:port" or a bare name.
    static const QRegularExpression form(QStringLiteral("^(\\[[0-9A-Fa-f:.]+\\]|[^:\\[\\]]+)(:[0-9]{1,5})?$"));
    const QRegularExpressionMatch m = form.match(host);
    if (!m.hasMatch())
        return false;
    QString name = m.captured(1).toLower();
    if (name == QLatin1String("localhost") || name == QLatin1String("127.0.0.1") || name == QLatin1String("[::1]"))
        return true;
    if (name.startsWith(QLatin1Char('[')))
        name = name.mid(1, name.size() - 2);
    QHostAddress address;
    if (!address.setAddress(name))
        return false;   // any other name may be rebound by whoever owns it
    for (const QHostAddress& a : own) {
        if (a == QHostAddress(QHostAddress::Any) || a == QHostAddress(QHostAddress::AnyIPv4)
            || a == QHostAddress(QHostAddress::AnyIPv6))
            continue;
        if (a.isEqual(address, QHostAddress::TolerantConversion))
            return true;
    }
    return false;
}

bool originAllowed(bool hasOrigin, const QString& origin, const QStringList& allowed)
{
    if (allowed.isEmpty())
        return true;
    if (!hasOrigin)
        return allowed.contains(QStringLiteral("none"));
    return allowed.contains(origin);   // whole text: never a prefix or a substring
}

QByteArray refusal(int status, const char* reason)
{
    return "HTTP/1.1 " + QByteArray::number(status) + ' ' + reason
           + "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
}

}  // namespace handshake
