// USB identification: the devices the kernel lists under /sys/bus/usb/devices, plus the ones
// the device profile presents as attached (so a machine without the hardware still reports
// the document camera and the card reader).
//
// DEVICE_USB_SYSFS replaces the device-tree root (tests build a fake tree there).
#include "devicelib/doccamera.h"
#include "devicelib/portable/core.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <algorithm>

namespace portable {
namespace {

struct UsbDevice {
    QString vid;    // four lower-case hex digits
    QString pid;
    QString name;   // product name, else manufacturer, else empty
};

QString sysfsRoot()
{
    const QString root = qEnvironmentVariable("DEVICE_USB_SYSFS");
    return root.isEmpty() ? QStringLiteral("/sys/bus/usb/devices") : root;
}

QString readAttribute(const QString& dir, const char* name)
{
    QFile f(dir + QLatin1Char('/') + QLatin1String(name));
    if (!f.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromUtf8(f.read(256)).trimmed();
}

bool isHexId(const QString& s)
{
    static const QRegularExpression re(QStringLiteral("^[0-9a-fA-F]{4}$"));
    return re.match(s).hasMatch();
}

// ";" separates the entries of the lists, so a name must not carry one.
QString cleanName(QString name)
{
    return name.replace(QLatin1Char(';'), QLatin1Char(',')).simplified();
}

QList<UsbDevice> realDevices()
{
    QList<UsbDevice> r;
    const QString root = sysfsRoot();
    QDir d(root);
    if (!d.exists()) {
        logLine(QStringLiteral("USB: the device tree %1 cannot be read; listing the profile's devices only").arg(root));
        return r;
    }
    // Interfaces ("1-1:1.0") have no idVendor and drop out here; names sort so the list is stable.
    QStringList entries = d.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::System);
    std::sort(entries.begin(), entries.end());
    for (const QString& e : entries) {
        const QString dir = root + QLatin1Char('/') + e;
        const QString vid = readAttribute(dir, "idVendor");
        const QString pid = readAttribute(dir, "idProduct");
        if (vid.isEmpty() && pid.isEmpty())
            continue;
        if (!isHexId(vid) || !isHexId(pid)) {
            logLine(QStringLiteral("USB: %1 has an unreadable identifier (%2:%3); skipped").arg(dir, vid, pid));
            continue;
        }
        QString name = readAttribute(dir, "product");
        if (name.isEmpty())
            name = readAttribute(dir, "manufacturer");
        r.append({vid.toLower(), pid.toLower(), cleanName(name)});
    }
    return r;
}

QList<UsbDevice> profileDevices()
{
    QList<UsbDevice> r;
    const QJsonArray list = profileValue(QStringLiteral("usb"), QJsonArray()).toArray();
    for (int i = 0; i < list.size(); ++i) {
        const QJsonObject o = list[i].toObject();
        const QString vid = o.value(QStringLiteral("vid")).toString();
        const QString pid = o.value(QStringLiteral("pid")).toString();
        if (!list[i].isObject() || !isHexId(vid) || !isHexId(pid)) {
            logLine(QStringLiteral("device profile %1: key \"usb[%2]\" needs \"vid\" and \"pid\" as four hex digits; entry skipped")
                        .arg(profileSource())
                        .arg(i));
            continue;
        }
        r.append({vid.toLower(), pid.toLower(), cleanName(o.value(QStringLiteral("name")).toString())});
    }
    return r;
}

// Every real device, then each profile device whose vid:pid is not already there.
QList<UsbDevice> allDevices()
{
    QList<UsbDevice> r = realDevices();
    for (const UsbDevice& p : profileDevices()) {
        const bool known = std::any_of(r.begin(), r.end(), [&](const UsbDevice& d) { return d.vid == p.vid && d.pid == p.pid; });
        if (!known)
            r.append(p);
    }
    return r;
}

Text enumText()
{
    QStringList entries;
    for (const UsbDevice& d : allDevices()) {
        const QString id = d.vid + QLatin1Char(':') + d.pid;
        entries << (d.name.isEmpty() ? id : id + QLatin1Char(' ') + d.name);
    }
    return entries.join(QLatin1Char(';')).toStdString();
}

// The identifiers, each once: two devices of one kind share an identifier.
Text idText()
{
    QStringList ids;
    for (const UsbDevice& d : allDevices()) {
        const QString id = QStringLiteral("usb#vid_%1&pid_%2").arg(d.vid, d.pid);
        if (!ids.contains(id))
            ids << id;
    }
    return ids.join(QLatin1Char(';')).toStdString();
}

}  // namespace
}  // namespace portable

using namespace portable;

extern "C" {

char* sGetDevicesId(void)
{
    return heapText(traced<Text>("sGetDevicesId", {}, [] { return idText(); }));
}

char* sEnumUSBDevice(void)
{
    return heapText(traced<Text>("sEnumUSBDevice", {}, [] { return enumText(); }));
}

}  // extern "C"
