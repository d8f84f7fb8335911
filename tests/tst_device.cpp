// Device status and identification commands, down to the library's USB enumeration.
#include "devicelib/portable/core.h"
#include "dispatch/messagerun.h"
#include "fixture.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QTest>

namespace {

// One device directory of a fake /sys/bus/usb/devices tree; empty attributes are not written.
void addDevice(const QString& root, const QString& name, const QByteArray& vid, const QByteArray& pid,
               const QByteArray& product, const QByteArray& manufacturer = QByteArray())
{
    const QString dir = root + "/" + name;
    QDir().mkpath(dir);
    const QList<QPair<const char*, QByteArray>> attributes{
        {"idVendor", vid}, {"idProduct", pid}, {"product", product}, {"manufacturer", manufacturer}};
    for (const auto& a : attributes) {
        if (!a.second.isEmpty())
            writeFile(dir + "/" + a.first, a.second + "\n");
    }
}

}  // namespace

class TestDevice : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_sysfs;
    std::unique_ptr<MessageRun> m_run;
    std::unique_ptr<PagePair> m_page;

    QString run(const QString& command) { return runCommand(*m_run, *m_page, command); }

    // The profile presents no devices of its own unless a test says so.
    static QByteArray profileWith(const QJsonArray& usb)
    {
        return QJsonDocument(QJsonObject{{"usb", usb}}).toJson();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_sysfs.isValid());
        const QString root = m_sysfs.path();
        addDevice(root, "usb1", "1d6b", "0002", "xHCI Host Controller", "Linux 6.1.0 xhci-hcd");
        addDevice(root, "1-1", "2B19", "0200", "Doc;Cam 5M");
        addDevice(root, "1-1:1.0", "", "", "");   // an interface: no identifiers
        addDevice(root, "1-2", "046d", "c52b", "", "Logitech");
        addDevice(root, "1-3", "0bda", "", "broken");   // half an identifier
        qputenv("DEVICE_USB_SYSFS", QFile::encodeName(root));
        m_run = std::make_unique<MessageRun>();
        m_page = std::make_unique<PagePair>();
        QVERIFY(m_page->isConnected());
    }

    void init()
    {
        qputenv("DEVICE_USB_SYSFS", QFile::encodeName(m_sysfs.path()));
        portable::loadProfileText(profileWith(QJsonArray()));
    }

    void deviceStatus_data()
    {
        QTest::addColumn<QJsonValue>("ids");     // scripted sGetDevicesId result
        QTest::addColumn<bool>("socialSecurity");
        QTest::addColumn<QString>("reply");
        const QString on = QStringLiteral("高拍仪已连接");
        const QString off = QStringLiteral("高拍仪未连接");
        const QString ssOn = QStringLiteral("|社保卡模块已连接");
        const QString ssOff = QStringLiteral("|社保卡模块未连接");
        auto framed = [](const QString& a, const QString& b) { return "BeginGetDeviceStatus" + a + b + "EndGetDeviceStatus"; };
        QTest::newRow("first camera id") << QJsonValue("usb#vid_1d6b&pid_0002;usb#vid_2b19&pid_0200") << true << framed(on, ssOn);
        QTest::newRow("second camera id") << QJsonValue("usb#vid_2b16&pid_6689") << false << framed(on, ssOff);
        QTest::newRow("third camera id") << QJsonValue("x;usb#vid_2b16&pid_bcd2;y") << true << framed(on, ssOn);
        QTest::newRow("upper case not recognised") << QJsonValue("USB#VID_2B19&PID_0200") << true << framed(off, ssOn);
        QTest::newRow("other devices only") << QJsonValue("usb#vid_046d&pid_c52b") << false << framed(off, ssOff);
        QTest::newRow("NULL id list") << QJsonValue() << true << framed(off, ssOn);
        QTest::newRow("empty id list") << QJsonValue("") << false << framed(off, ssOff);
    }

    void deviceStatus()
    {
        QFETCH(QJsonValue, ids);
        QFETCH(bool, socialSecurity);
        QFETCH(QString, reply);
        portable::setScript("sGetDevicesId", QJsonArray{ids});
        portable::setScript("GetDeviceStatus_dc", QJsonArray{socialSecurity});
        Trace trace;
        QCOMPARE(run("GetDeviceStatus()"), reply);
        QCOMPARE(trace.functions(), (QStringList{"sGetDevicesId", "GetDeviceStatus_dc"}));
    }

    void deviceStatusFromTheProfile()
    {
        // No camera in the tree's identifiers but the profile's; the module from the profile.
        qputenv("DEVICE_USB_SYSFS", QFile::encodeName(m_sysfs.path() + "/missing"));
        portable::loadProfileText("{\"usb\": [{\"vid\": \"2b16\", \"pid\": \"BCD2\", \"name\": \"Camera\"}], \"socialSecurityModule\": false}");
        QCOMPARE(run("GetDeviceStatus()"), QStringLiteral("BeginGetDeviceStatus高拍仪已连接|社保卡模块未连接EndGetDeviceStatus"));
        portable::loadProfileText(profileWith(QJsonArray()));
        QCOMPARE(run("GetDeviceStatus()"), QStringLiteral("BeginGetDeviceStatus高拍仪未连接|社保卡模块已连接EndGetDeviceStatus"));
    }

    void usbLists_data()
    {
        QTest::addColumn<QJsonArray>("profileUsb");
        QTest::addColumn<bool>("realTree");
        QTest::addColumn<QString>("enumText");
        QTest::addColumn<QString>("ids");
        const QString realEnum = "2b19:0200 Doc,Cam 5M;046d:c52b Logitech;1d6b:0002 xHCI Host Controller";
        const QString realIds = "usb#vid_2b19&pid_0200;usb#vid_046d&pid_c52b;usb#vid_1d6b&pid_0002";
        QTest::newRow("tree only") << QJsonArray() << true << realEnum << realIds;
        QTest::newRow("tree and profile")
            << QJsonArray{QJsonObject{{"vid", "0400"}, {"pid", "C35A"}, {"name", "Card Reader"}},
                          QJsonObject{{"vid", "2b19"}, {"pid", "0200"}, {"name", "Portable Camera"}}}
            << true << realEnum + ";0400:c35a Card Reader" << realIds + ";usb#vid_0400&pid_c35a";
        QTest::newRow("bad profile entries skipped")
            << QJsonArray{QJsonObject{{"vid", "04000"}, {"pid", "c35a"}}, QJsonObject{{"vid", "abcd"}}, QJsonValue("2b19:0200"),
                          QJsonObject{{"vid", "abcd"}, {"pid", "0001"}}}
            << true << realEnum + ";abcd:0001" << realIds + ";usb#vid_abcd&pid_0001";
        QTest::newRow("no tree, profile only")
            << QJsonArray{QJsonObject{{"vid", "2b19"}, {"pid", "0200"}, {"name", "Portable Camera"}},
                          QJsonObject{{"vid", "2b19"}, {"pid", "0200"}, {"name", "Twice"}}}
            << false << "2b19:0200 Portable Camera" << "usb#vid_2b19&pid_0200";
        QTest::newRow("nothing at all") << QJsonArray() << false << "" << "";
    }

    void usbLists()
    {
        QFETCH(QJsonArray, profileUsb);
        QFETCH(bool, realTree);
        QFETCH(QString, enumText);
        QFETCH(QString, ids);
        if (!realTree)
            qputenv("DEVICE_USB_SYSFS", QFile::encodeName(m_sysfs.path() + "/missing"));
        portable::loadProfileText(profileWith(profileUsb));
        QCOMPARE(run("sEnumUSBDevice()"), "BeginsEnumUSBDevice" + enumText + "EndsEnumUSBDevice");
        QCOMPARE(run("sGetDevicesId()"), "BeginsGetDevicesId" + ids + "EndsGetDevicesId");
    }

    void defaultProfilePresentsTheSimulatedDevices()
    {
        qputenv("DEVICE_USB_SYSFS", QFile::encodeName(m_sysfs.path() + "/missing"));
        portable::loadProfileText(QByteArray());
        const QString reply = run("sGetDevicesId()");
        QVERIFY2(reply.contains("usb#vid_2b19&pid_0200"), qPrintable(reply));
        QCOMPARE(run("GetDeviceStatus()"), QStringLiteral("BeginGetDeviceStatus高拍仪已连接|社保卡模块已连接EndGetDeviceStatus"));
    }

    void serialAndVersion_data()
    {
        QTest::addColumn<QByteArray>("profile");
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("reply");
        QTest::newRow("serial") << QByteArray("{\"library\": {\"serial\": \"SN-TEST-42\"}}") << "sGetSerialNum()"
                                << "BeginsGetSerialNumSN-TEST-42EndsGetSerialNum";
        QTest::newRow("serial ignores arguments") << QByteArray("{\"library\": {\"serial\": \"SN 7\"}}") << "sGetSerialNum(1,2)"
                                                  << "BeginsGetSerialNumSN 7EndsGetSerialNum";
        QTest::newRow("empty serial") << QByteArray("{\"library\": {\"serial\": \"\"}}") << "sGetSerialNum()"
                                      << "BeginsGetSerialNumEndsGetSerialNum";
        QTest::newRow("library version") << QByteArray("{\"library\": {\"version\": \"counter-lib 2.4.1 版\"}}") << "sServerVersion()"
                                         << "BeginsServerVersioncounter-lib 2.4.1 版EndsServerVersion";
        QTest::newRow("library writes nothing") << QByteArray("{\"script\": {\"doccameraVeriosn\": [null]}}") << "sServerVersion()"
                                                << "BeginsServerVersionEndsServerVersion";
        QTest::newRow("getVersion") << QByteArray() << "getVersion()" << "BegingetVersionV1.0.2EndgetVersion";
        QTest::newRow("getVersion(x)") << QByteArray() << "getVersion(x)" << "BegingetVersionV1.0.2EndgetVersion";
        QTest::newRow("version") << QByteArray() << "version()" << "Beginversionlinux_kylin_arm64Endversion";
        QTest::newRow("version(1,2)") << QByteArray() << "version(1,2)" << "Beginversionlinux_kylin_arm64Endversion";
    }

    void serialAndVersion()
    {
        QFETCH(QByteArray, profile);
        QFETCH(QString, command);
        QFETCH(QString, reply);
        portable::loadProfileText(profile);
        QCOMPARE(run(command), reply);
    }

    void longVersionIsCutAtACharacter()
    {
        // 600 two-byte characters do not fit the command's 1000-byte buffer: 499 of them do.
        const QString longVersion(600, QChar(0x00e9));
        portable::loadProfileText(QJsonDocument(QJsonObject{{"library", QJsonObject{{"version", longVersion}}}}).toJson());
        QCOMPARE(run("sServerVersion()"), "BeginsServerVersion" + longVersion.left(499) + "EndsServerVersion");
    }
};

QTEST_GUILESS_MAIN(TestDevice)
#include "tst_device.moc"
