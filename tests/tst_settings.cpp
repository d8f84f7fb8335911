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
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

namespace {



// Sets or unsets one environment variable for the life of the object.
class EnvGuard {
public:
    explicit EnvGuard(const char* name) : m_name(name), m_set(qEnvironmentVariableIsSet(name)), m_value(qgetenv(name)) {}
    ~EnvGuard()
    {
        if (m_set)
            qputenv(m_name, m_value);
        else
            qunsetenv(m_name);
    }

private:
    const char* m_name;
    bool m_set;
    QByteArray m_value;
};

}  // namespace

class TestSettings : public QObject {
    Q_OBJECT

private:
    QString m_defaultIni;
    QByteArray m_savedIni;
    bool m_hadIni = false;

private slots:
    void initTestCase()
    {
        m_defaultIni = QCoreApplication::applicationDirPath() + QStringLiteral("/server.ini");
        m_hadIni = QFile::exists(m_defaultIni);
        m_savedIni = readFile(m_defaultIni);
        QFile::remove(m_defaultIni);
    }

    void cleanupTestCase()
    {
        QFile::remove(m_defaultIni);
        if (m_hadIni)
            writeFile(m_defaultIni, m_savedIni);
    }

    // Runs first: the browser helper is created once per process and reads the file then.
    void browserHelperCreatesTheFileOnFirstUse()
    {
        QVERIFY(!QFile::exists(m_defaultIni));
        WebBrowser* browser = WebBrowser::instance();
        QVERIFY(QFile::exists(m_defaultIni));
        QCOMPARE(browser->settings().browser, QStringLiteral("gnome-www-browser"));
        QVERIFY(browser->pageData().isEmpty());
        QCOMPARE(ConfigIni::defaultPath(), m_defaultIni);
    }

    void freshFileHoldsTheDefaults()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("server.ini");
        ConfigIni config(path);
        QCOMPARE(config.port, quint16(1818));
        QCOMPARE(config.browser, QStringLiteral("gnome-www-browser"));
        QCOMPARE(config.padsize, QSize(1280, 800));

        const QStringList lines = QString::fromUtf8(readFile(path)).split('\n', Qt::SkipEmptyParts);
        QCOMPARE(lines.value(0), QStringLiteral("[General]"));
        QVERIFY(lines.contains("port=1818"));
        QVERIFY(lines.contains("browser=gnome-www-browser"));
        QVERIFY(lines.contains("padsize=@Size(1280 800)"));
        QCOMPARE(lines.size(), 4);
    }

    void existingFile_data()
    {
        QTest::addColumn<QByteArray>("ini");
        QTest::addColumn<int>("port");
        QTest::addColumn<QSize>("padsize");
        QTest::addColumn<QString>("portWritten");
        QTest::addColumn<QString>("padsizeWritten");

        QTest::newRow("uos-browser rewritten") << QByteArray("[General]\nbrowser=uos-browser\n") << 1818
                                               << QSize(1280, 800) << "1818" << "@Size(1280 800)";
        QTest::newRow("own values kept")
            << QByteArray("[General]\nport=2020\nbrowser=firefox\npadsize=@Size(1920 1080)\n") << 2020
            << QSize(1920, 1080) << "2020" << "@Size(1920 1080)";
        QTest::newRow("non-numeric port reads 0")
            << QByteArray("[General]\nport=abc\n") << 0 << QSize(1280, 800) << "0" << "@Size(1280 800)";
        QTest::newRow("padsize that is no size")
            << QByteArray("[General]\npadsize=big\n") << 1818 << QSize() << "1818" << "@Size(-1 -1)";
    }

    void existingFile()
    {
        QFETCH(QByteArray, ini);
        QFETCH(int, port);
        QFETCH(QSize, padsize);
        QFETCH(QString, portWritten);
        QFETCH(QString, padsizeWritten);
        QTemporaryDir dir;
        const QString path = dir.filePath("server.ini");
        writeFile(path, ini);

        ConfigIni config(path);
        QCOMPARE(int(config.port), port);
        QCOMPARE(config.browser, QStringLiteral("gnome-www-browser"));
        QCOMPARE(config.padsize, padsize);

        const QStringList lines = QString::fromUtf8(readFile(path)).split('\n', Qt::SkipEmptyParts);
        QVERIFY2(lines.contains("browser=gnome-www-browser"), qPrintable(lines.join('|')));
        QVERIFY2(lines.contains("port=" + portWritten), qPrintable(lines.join('|')));
        QVERIFY2(lines.contains("padsize=" + padsizeWritten), qPrintable(lines.join('|')));
    }

    void pageDataOnAt_data()
    {
        QTest::addColumn<QString>("data");
        QTest::addColumn<QString>("message");
        QTest::addColumn<QStringList>("replies");

        QTest::newRow("no page opened yet") << QString() << "@" << QStringList{QString()};
        QTest::newRow("bare @") << "no=12,name=Li" << "@" << QStringList{"no=12,name=Li"};
        QTest::newRow("@ with text") << "no=12,name=Li" << "@x" << QStringList{"no=12,name=Li"};
        QTest::newRow("unicode data") << "柜员=李" << "@getData" << QStringList{"柜员=李"};
        QTest::newRow("@ not first") << "no=12" << "x@" << QStringList{};
        QTest::newRow("a command") << "no=12" << "getVersion()" << QStringList{};
        QTest::newRow("relay prefix") << "no=12" << "#@" << QStringList{};
        QTest::newRow("empty text") << "no=12" << "" << QStringList{};
    }

    void pageDataOnAt()
    {
        QFETCH(QString, data);
        QFETCH(QString, message);
        QFETCH(QStringList, replies);
        PagePair pair;
        QVERIFY(pair.isConnected());
        WebBrowser::instance()->setPageData(data);
        WebBrowser::instance()->recvMessage(message, pair.serverSide());
        QCOMPARE(pair.drain(200), replies);
        WebBrowser::instance()->setPageData(QString());
    }

    void atWithoutSocketIsHarmless()
    {
        WebBrowser::instance()->recvMessage(QStringLiteral("@"), nullptr);
    }

    void logPrefixForm()
    {
        const QString prefix = QString::fromLocal8Bit(startup::logPrefix());
        QVERIFY2(QRegularExpression(QStringLiteral("^\\[\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\] $")).match(prefix).hasMatch(),
                 qPrintable(prefix));
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
        // The pipeline sees an empty library path: its length is counted.
        QTest::newRow("library path emptied") << QByteArray("printf %s \"$LD_LIBRARY_PATH\" | wc -c") << 0L;
    }

    void countFromPipeline()
    {
        QFETCH(QByteArray, pipeline);
        QFETCH(long, count);
        EnvGuard guard("LD_LIBRARY_PATH");
        qputenv("LD_LIBRARY_PATH", "/opt/vendor/lib");
        QCOMPARE(startup::countFromPipeline(pipeline.constData()), count);
        QCOMPARE(qgetenv("LD_LIBRARY_PATH"), QByteArray("/opt/vendor/lib"));
    }

    void headlessPlatform_data()
    {
        QTest::addColumn<QByteArray>("display");
        QTest::addColumn<QByteArray>("wayland");
        QTest::addColumn<bool>("platformSet");
        QTest::addColumn<bool>("chosen");
        QTest::newRow("no desktop") << QByteArray() << QByteArray() << false << true;
        QTest::newRow("X desktop") << QByteArray(":0") << QByteArray() << false << false;
        QTest::newRow("Wayland desktop") << QByteArray() << QByteArray("wayland-0") << false << false;
        QTest::newRow("platform given") << QByteArray() << QByteArray() << true << false;
    }

    void headlessPlatform()
    {
        QFETCH(QByteArray, display);
        QFETCH(QByteArray, wayland);
        QFETCH(bool, platformSet);
        QFETCH(bool, chosen);
        EnvGuard g1("DISPLAY");
        EnvGuard g2("WAYLAND_DISPLAY");
        EnvGuard g3("QT_QPA_PLATFORM");
        auto set = [](const char* name, const QByteArray& v) {
            if (v.isEmpty())
                qunsetenv(name);
            else
                qputenv(name, v);
        };
        set("DISPLAY", display);
        set("WAYLAND_DISPLAY", wayland);
        set("QT_QPA_PLATFORM", platformSet ? QByteArray("xcb") : QByteArray());
        QCOMPARE(startup::chooseHeadlessPlatform(), chosen);
        QCOMPARE(qgetenv("QT_QPA_PLATFORM"), chosen ? QByteArray("offscreen") : (platformSet ? QByteArray("xcb") : QByteArray()));
    }

    // Only a live owner holds the instance lock, however old its file; a missing folder proves nothing.
    void instanceLock_data()
    {
        QTest::addColumn<QString>("present");   // "", "live" (this process, a day old) or "dead"
        QTest::addColumn<bool>("folder");
        QTest::addColumn<int>("result");
        QTest::newRow("no lock") << "" << true << int(startup::InstanceLock::Owned);
        QTest::newRow("live owner, a day old") << "live" << true << int(startup::InstanceLock::HeldElsewhere);
        QTest::newRow("owner killed") << "dead" << true << int(startup::InstanceLock::Owned);
        QTest::newRow("folder missing") << "" << false << int(startup::InstanceLock::Unusable);
    }

    void instanceLock()
    {
        QFETCH(QString, present);
        QFETCH(bool, folder);
        QFETCH(int, result);
        QTemporaryDir dir;
        const QString path = dir.path() + (folder ? "" : "/missing") + "/rvowebSocketServer.lock";
        QByteArray content;
        {
            QLockFile mine(dir.path() + "/mine.lock");   // what a live lock of this process holds
            QVERIFY(mine.tryLock(0));
            content = readFile(dir.path() + "/mine.lock");
        }
        if (present == "dead") {
            QProcess gone;
            gone.start(QStringLiteral("true"), QStringList());
            QVERIFY(gone.waitForStarted());
            const qint64 pid = gone.processId();
            QVERIFY(gone.waitForFinished());
            content = QByteArray::number(pid) + content.mid(content.indexOf('\n'));
        }
        if (!present.isEmpty()) {
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
