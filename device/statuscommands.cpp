// Device presence, identifiers, serial and versions. None takes arguments.
#include "devicelib/cardreader.h"
#include "devicelib/doccamera.h"
#include "dispatch/messagerun.h"
#include "dispatch/replies.h"

#include <cstdlib>
#include <cstring>

namespace {

using HeapText = char* (*)();

// Frames a heap text of the library and releases it after sending.
QString framedHeapText(const QString& name, HeapText fn)
{
    char* text = fn();
    const QString r = reply::send(reply::framed(name, text ? QString::fromUtf8(text) : QString()));
    std::free(text);
    return r;
}

}  // namespace

QString MessageRun::GetDeviceStatus_callback(QString, QString, MessageRun*)
{
    // The identifier list is ours once copied, like every other heap text of the library.
    char* ids = ::sGetDevicesId();
    const QString idText = ids ? QString::fromUtf8(ids) : QString();
    std::free(ids);
    QString text = QStringLiteral("BeginGetDeviceStatus");
    static const char* const kCameraIds[] = {"usb#vid_2b19&pid_0200", "usb#vid_2b16&pid_6689", "usb#vid_2b16&pid_bcd2"};
    bool camera = false;
    for (const char* id : kCameraIds)
        camera = camera || idText.contains(QLatin1String(id));
    text += camera ? QStringLiteral("高拍仪已连接") : QStringLiteral("高拍仪未连接");
    text += ::GetDeviceStatus_dc() ? QStringLiteral("|社保卡模块已连接") : QStringLiteral("|社保卡模块未连接");
    text += QStringLiteral("EndGetDeviceStatus");
    return reply::send(text);
}

QString MessageRun::sEnumUSBDevice_callback(QString name, QString, MessageRun*)
{
    return framedHeapText(name, ::sEnumUSBDevice);
}

QString MessageRun::sGetSerialNum_callback(QString name, QString, MessageRun*)
{
    return framedHeapText(name, ::sGetSerialNum);
}

QString MessageRun::sGetDevicesId_callback(QString name, QString, MessageRun*)
{
    return framedHeapText(name, ::sGetDevicesId);
}

QString MessageRun::sServerVersion_callback(QString name, QString, MessageRun*)
{
    char buffer[1000];
    std::memset(buffer, 0, sizeof buffer);
    ::doccameraVeriosn(buffer, sizeof buffer);
    buffer[sizeof buffer - 1] = '\0';
    return reply::send(reply::framed(name, QString::fromUtf8(buffer)));
}

QString MessageRun::getVersion_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framed(name, QStringLiteral("V1.0.2")));
}

QString MessageRun::version_callback(QString name, QString, MessageRun*)
{
    return reply::send(reply::framed(name, QStringLiteral("linux_kylin_arm64")));
}
