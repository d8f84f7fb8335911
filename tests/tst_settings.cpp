// Start-up and configuration: the settings file, the start-up helpers, and the page data that
// the browser helper hands to a page asking with "@".
#include "app/configini.h"
#include "app/startup.h"
#include "companion/webbrowser.h"
#include "fixture.h"

#include <QCoreApplication>
#include <QFile>
#include <QLockFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>

// Sets (a null value: unsets) one environment variable while it lives, then puts it back.
struct EnvGuard {
    EnvGuard(const char* n, const QByteArray& v) : name(n), was(qEnvironmentVariableIsSet(n) ? qgetenv(n) : QByteArray()) { set(v); }
    ~EnvGuard() { set(was); }
    void set(const QByteArray& v) { v.isNull() ? void(qunsetenv(name)) : void(qputenv(name, v)); }
    const char* name;
    QByteArray was;
};

class TestSettings : public QObject {
    Q_OBJECT

    QString m_defaultIni;
    QByteArray m_savedIni;   // null: there was none

private slots:
    void initTestCase()
    {
        m_defaultIni = ConfigIni::defaultPath();
        QCOMPARE(m_defaultIni, QCoreApplication::applicationDirPath() + QStringLiteral("/server.ini"));
        m_savedIni = readFile(m_defaultIni);
        QFile::remove(m_defaultIni);
    }
    void cleanupTestCase() { QFile::remove(m_defaultIni); if (!m_savedIni.isNull()) writeFile(m_defaultIni, m_savedIni); }

    // Runs first: the browser helper is created once per process and reads the file then.
    void browserHelperCreatesTheFileOnFirstUse()
    {
        QVERIFY(!QFile::exists(m_defaultIni));
        WebBrowser* browser = WebBrowser::instance();
        QVERIFY(QFile::exists(m_defaultIni));
        QCOMPARE(browser->settings().browser, QStringLiteral("gnome-www-browser"));
        QVERIFY(browser->pageData().isEmpty());
    }

    // What is read, what the file says afterwards, and which key a bad value is logged under.
    void file_data()
    {
        QTest::addColumn<QByteArray>("ini");   // null: no file yet
        QTest::addColumn<int>("port");
        QTest::addColumn<QSize>("padsize");   // written back as it reads, an invalid one as -1 -1
        QTest::addColumn<QString>("badKey");
        const QSize pad(1280, 800);
        QTest::newRow("no file: defaults") << QByteArray() << 1818 << pad << "";
        QTest::newRow("uos-browser rewritten") << QByteArray("[General]\nbrowser=uos-browser\n") << 1818 << pad << "";
        QTest::newRow("own values kept") << QByteArray("[General]\nport=2020\nbrowser=firefox\npadsize=@Size(1920 1080)\n") << 2020
                                         << QSize(1920, 1080) << "";
        QTest::newRow("non-numeric port reads 0") << QByteArray("[General]\nport=abc\n") << 0 << pad << "port";
        QTest::newRow("padsize that is no size") << QByteArray("[General]\npadsize=big\n") << 1818 << QSize() << "padsize";
    }
    void file()
    {
        QFETCH(QByteArray, ini);
        QFETCH(int, port);
        QFETCH(QSize, padsize);
        QFETCH(QString, badKey);
        QTemporaryDir dir;
        const QString path = dir.filePath("server.ini");
        if (!ini.isNull())
            writeFile(path, ini);
        LogCapture log;
        ConfigIni config(path);
        QCOMPARE(int(config.port), port);
        QCOMPARE(config.browser, QStringLiteral("gnome-www-browser"));
        QCOMPARE(config.padsize, padsize);
        QCOMPARE(QString::fromUtf8(readFile(path)).split('\n', Qt::SkipEmptyParts),
                 (QStringList{"[General]", "browser=gnome-www-browser",
                              QStringLiteral("padsize=@Size(%1 %2)").arg(padsize.width()).arg(padsize.height()), "port=" + QString::number(port)}));
        const QStringList logged = log.lines().filter(path);
        QCOMPARE(logged.size(), badKey.isEmpty() ? 0 : 1);
        QVERIFY2(badKey.isEmpty() || logged.first().contains('"' + badKey + '"'), qPrintable(logged.value(0)));
    }

    void pageDataOnAt_data()
    {
        QTest::addColumn<QString>("data");
        QTest::addColumn<QString>("message");
        QTest::addColumn<bool>("socket");
        QTest::addColumn<QStringList>("replies");
        QTest::newRow("no page opened yet") << QString() << "@" << true << QStringList{QString()};
        QTest::newRow("bare @") << "no=12,name=Li" << "@" << true << QStringList{"no=12,name=Li"};
        QTest::newRow("@ with text, unicode data") << "柜员=李" << "@getData" << true << QStringList{"柜员=李"};
        QTest::newRow("@ not first") << "no=12" << "x@" << true << QStringList{};
        QTest::newRow("relay prefix") << "no=12" << "#@" << true << QStringList{};
        QTest::newRow("empty text") << "no=12" << "" << true << QStringList{};
        QTest::newRow("no socket: not even the current client") << "no=12" << "@" << false << QStringList{};
    }
    void pageDataOnAt()
    {
        QFETCH(QString, data);
        QFETCH(QString, message);
        QFETCH(bool, socket);
        QFETCH(QStringList, replies);
        PagePair pair;
        QVERIFY(pair.isConnected());
        WebBrowser::instance()->setPageData(data);
        WebBrowser::instance()->recvMessage(message, socket ? pair.serverSide() : nullptr);
        QCOMPARE(pair.drain(200), replies);
    }

    void logPrefixForm()
    {
        const QString prefix = QString::fromLocal8Bit(startup::logPrefix());
        QVERIFY2(QRegularExpression("^\\[\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\] $").match(prefix).hasMatch(), qPrintable(prefix));
    }

    void countFromPipeline_data()
    {
        QTest::addColumn<QByteArray>("pipeline");
        QTest::addColumn<long>("count");
        QTest::newRow("one instance") << QByteArray("echo 1") << 1L;
        QTest::newRow("two instances") << QByteArray("printf '  2\\n'") << 2L;
        QTest::newRow("no output") << QByteArray("true") << 0L;
        QTest::newRow("not a number") << QByteArray("echo none") << 0L;
        QTest::newRow("command missing") << QByteArray("/nonexistent/ps 2>/dev/null") << 0L;
        QTest::newRow("library path emptied for the pipeline: its length counted") << QByteArray("printf %s \"$LD_LIBRARY_PATH\" | wc -c") << 0L;
    }
    void countFromPipeline()
    {
        QFETCH(QByteArray, pipeline);
        QFETCH(long, count);
        EnvGuard guard("LD_LIBRARY_PATH", "/opt/vendor/lib");
        QCOMPARE(startup::countFromPipeline(pipeline.constData()), count);
        QCOMPARE(qgetenv("LD_LIBRARY_PATH"), QByteArray("/opt/vendor/lib"));
    }

    void headlessPlatform_data()
    {
        QTest::addColumn<QByteArray>("display");
        QTest::addColumn<QByteArray>("wayland");
        QTest::addColumn<QByteArray>("platform");   // as given, null: not set
        QTest::addColumn<QByteArray>("after");
        QTest::newRow("no desktop") << QByteArray() << QByteArray() << QByteArray() << QByteArray("offscreen");
        QTest::newRow("X desktop") << QByteArray(":0") << QByteArray() << QByteArray() << QByteArray();
        QTest::newRow("Wayland desktop") << QByteArray() << QByteArray("wayland-0") << QByteArray() << QByteArray();
        QTest::newRow("platform given") << QByteArray() << QByteArray() << QByteArray("xcb") << QByteArray("xcb");
    }
    void headlessPlatform()
    {
        QFETCH(QByteArray, display);
        QFETCH(QByteArray, wayland);
        QFETCH(QByteArray, platform);
        QFETCH(QByteArray, after);
        EnvGuard g1("DISPLAY", display), g2("WAYLAND_DISPLAY", wayland), g3("QT_QPA_PLATFORM", platform);
        QCOMPARE(startup::chooseHeadlessPlatform(), after == "offscreen");
        QCOMPARE(qgetenv("QT_QPA_PLATFORM"), after);
    }

    // Only a live owner holds the instance lock, however old its file; a missing folder proves nothing.
    void instanceLock_data()
    {
        QTest::addColumn<QString>("present");   // "", "live" (this process, a day old), "dead" or "no folder"
        QTest::addColumn<int>("result");
        QTest::newRow("no lock") << "" << int(startup::InstanceLock::Owned);
        QTest::newRow("live owner, a day old") << "live" << int(startup::InstanceLock::HeldElsewhere);
        QTest::newRow("owner killed") << "dead" << int(startup::InstanceLock::Owned);
        QTest::newRow("folder missing") << "no folder" << int(startup::InstanceLock::Unusable);
    }
    void instanceLock()
    {
        QFETCH(QString, present);
        QFETCH(int, result);
        QTemporaryDir dir;
        const QString path = dir.path() + (present == "no folder" ? "/missing" : "") + "/rvowebSocketServer.lock";
        QLockFile mine(dir.path() + "/mine.lock");   // what a live lock of this process holds
        QVERIFY(mine.tryLock(0));
        QByteArray content = readFile(dir.path() + "/mine.lock");
        if (present == "dead") {
            QProcess gone;
            gone.start(QStringLiteral("true"), QStringList());
            const qint64 pid = gone.waitForStarted() ? gone.processId() : 0;
            QVERIFY(pid && gone.waitForFinished());
            content = QByteArray::number(pid) + content.mid(content.indexOf('\n'));
        }
        if (present == "live" || present == "dead") {
            QVERIFY(writeFile(path, content));
            QFile f(path);
            QVERIFY(f.open(QIODevice::ReadWrite) && f.setFileTime(QDateTime::currentDateTime().addDays(-1), QFileDevice::FileModificationTime));
        }
        QLockFile lock(path);
        QCOMPARE(int(startup::takeInstanceLock(lock)), result);
    }
};

QTEST_MAIN(TestSettings)
#include "tst_settings.moc"
