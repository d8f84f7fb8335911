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

// A profile presenting exactly these USB devices, and nothing else of its own.
QByteArray profileWith(const QJsonArray& usb, const QJsonObject& more = {})
{
    QJsonObject o = more;
    o.insert("usb", usb);
    return QJsonDocument(o).toJson();
}

}  // namespace

class TestDevice : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_sysfs;
    std::unique_ptr<MessageRun> m_run;
    std::unique_ptr<PagePair> m_page;

    QString run(const QString& command) { return runCommand(*m_run, *m_page, command); }
    void useTree(bool real) { qputenv("DEVICE_USB_SYSFS", QFile::encodeName(m_sysfs.path() + (real ? "" : "/missing"))); }

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
        m_run = std::make_unique<MessageRun>();
        m_page = std::make_unique<PagePair>();
        QVERIFY(m_page->isConnected());
    }

    void init()
    {
        useTree(true);
        portable::loadProfileText(profileWith({}));
    }

    // The status from a scripted id list and module answer: the camera is one of three ids.
    void deviceStatus_data()
    {
        QTest::addColumn<QJsonValue>("ids");
        QTest::addColumn<bool>("socialSecurity");
        QTest::addColumn<QString>("reply");
        auto framed = [](bool camera, bool module) {
            return QStringLiteral("BeginGetDeviceStatus高拍仪%1连接|社保卡模块%2连接EndGetDeviceStatus")
                .arg(camera ? "已" : "未", module ? "已" : "未");
        };
        QTest::newRow("first camera id") << QJsonValue("usb#vid_1d6b&pid_0002;usb#vid_2b19&pid_0200") << true << framed(true, true);
        QTest::newRow("second camera id") << QJsonValue("usb#vid_2b16&pid_6689") << false << framed(true, false);
        QTest::newRow("third camera id") << QJsonValue("x;usb#vid_2b16&pid_bcd2;y") << true << framed(true, true);
        QTest::newRow("upper case not recognised") << QJsonValue("USB#VID_2B19&PID_0200") << true << framed(false, true);
        QTest::newRow("other devices only") << QJsonValue("usb#vid_046d&pid_c52b") << false << framed(false, false);
        QTest::newRow("NULL id list") << QJsonValue() << true << framed(false, true);
        QTest::newRow("empty id list") << QJsonValue("") << false << framed(false, false);
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

    // Unscripted, with no USB tree: the camera and the module come from the profile alone.
    void deviceStatusFromTheProfile()
    {
        useTree(false);
        portable::loadProfileText(profileWith({QJsonObject{{"vid", "2b16"}, {"pid", "BCD2"}}}, {{"socialSecurityModule", false}}));
        QCOMPARE(run("GetDeviceStatus()"), QStringLiteral("BeginGetDeviceStatus高拍仪已连接|社保卡模块未连接EndGetDeviceStatus"));
        portable::loadProfileText(QByteArray());   // the default profile simulates both
        QCOMPARE(run("GetDeviceStatus()"), QStringLiteral("BeginGetDeviceStatus高拍仪已连接|社保卡模块已连接EndGetDeviceStatus"));
    }

    // The status command owns the device list once it has it: ten thousand calls leave nothing
    // behind (the sanitizer build runs this with no leak suppression for it).
    void deviceStatusReleasesTheList()
    {
        useTree(false);
        m_page->makeCurrent();
        for (int i = 0; i < 10000; ++i)
            m_run->recv_msg(QStringLiteral("GetDeviceStatus()"), m_page->serverSide());
        QVERIFY(waitFor([&] { return m_page->got.size() == 10000; }));
        const QString last = m_page->got.takeLast();
        m_page->got.clear();
        QVERIFY(isFramedReplyOf(last, QStringLiteral("GetDeviceStatus")));
    }

    // The USB lists, serial and versions: the reply carries the result between "Begin<name>" and
    // "End<name>", the name being the command's up to its parenthesis.
    void commands_data()
    {
        QTest::addColumn<QByteArray>("profile");
        QTest::addColumn<bool>("realTree");
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("result");
        // Both lists from one profile and tree.
        const auto usb = [](const char* tag, const QJsonArray& profileUsb, bool tree, const QString& enumText, const QString& ids) {
            QTest::newRow(qPrintable(QString(tag) + " enum")) << profileWith(profileUsb) << tree << "sEnumUSBDevice()" << enumText;
            QTest::newRow(qPrintable(QString(tag) + " ids")) << profileWith(profileUsb) << tree << "sGetDevicesId()" << ids;
        };
        const QString realEnum = "2b19:0200 Doc,Cam 5M;046d:c52b Logitech;1d6b:0002 xHCI Host Controller";
        const QString realIds = "usb#vid_2b19&pid_0200;usb#vid_046d&pid_c52b;usb#vid_1d6b&pid_0002";
        const QJsonObject camera{{"vid", "2b19"}, {"pid", "0200"}, {"name", "Portable Camera"}};
        usb("tree only", {}, true, realEnum, realIds);
        usb("tree and profile", {QJsonObject{{"vid", "0400"}, {"pid", "C35A"}, {"name", "Card Reader"}}, camera}, true,
            realEnum + ";0400:c35a Card Reader", realIds + ";usb#vid_0400&pid_c35a");
        usb("bad profile entries skipped",
            {QJsonObject{{"vid", "04000"}, {"pid", "c35a"}}, QJsonObject{{"vid", "abcd"}}, "2b19:0200",
             QJsonObject{{"vid", "abcd"}, {"pid", "0001"}}},
            true, realEnum + ";abcd:0001", realIds + ";usb#vid_abcd&pid_0001");
        usb("no tree, profile only", {camera, QJsonObject{{"vid", "2b19"}, {"pid", "0200"}, {"name", "Twice"}}}, false,
            "2b19:0200 Portable Camera", "usb#vid_2b19&pid_0200");
        usb("nothing at all", {}, false, "", "");

        const auto library = [](const char* key, const QString& value) {
            return QJsonDocument(QJsonObject{{"library", QJsonObject{{key, value}}}}).toJson();
        };
        // 600 two-byte characters do not fit the command's 1000-byte buffer: 499 of them do.
        const QString longVersion(600, QChar(0x00e9));
        QTest::newRow("serial") << library("serial", "SN-TEST-42") << true << "sGetSerialNum()" << "SN-TEST-42";
        QTest::newRow("serial ignores arguments") << library("serial", "SN 7") << true << "sGetSerialNum(1,2)" << "SN 7";
        QTest::newRow("empty serial") << library("serial", "") << true << "sGetSerialNum()" << "";
        QTest::newRow("library version") << library("version", QString::fromUtf8("counter-lib 2.4.1 版")) << true << "sServerVersion()"
                                         << QString::fromUtf8("counter-lib 2.4.1 版");
        QTest::newRow("long version cut at a character") << library("version", longVersion) << true << "sServerVersion()"
                                                         << longVersion.left(499);
        QTest::newRow("library writes nothing") << QByteArray("{\"script\": {\"doccameraVeriosn\": [null]}}") << true
                                                << "sServerVersion()" << "";
        QTest::newRow("getVersion(x)") << QByteArray() << true << "getVersion(x)" << "V1.0.2";
        QTest::newRow("version(1,2)") << QByteArray() << true << "version(1,2)" << "linux_kylin_arm64";
    }

    void commands()
    {
        QFETCH(QByteArray, profile);
        QFETCH(bool, realTree);
        QFETCH(QString, command);
        QFETCH(QString, result);
        useTree(realTree);
        portable::loadProfileText(profile);
        const QString name = command.left(command.indexOf('('));
        QCOMPARE(run(command), "Begin" + name + result + "End" + name);
    }
};

QTEST_GUILESS_MAIN(TestDevice)
#include "tst_device.moc"
