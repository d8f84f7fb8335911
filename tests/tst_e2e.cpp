// The built server, run as a counter terminal runs it: from its own application folder, on the
// fixed port 1818, answered by a page over a real WebSocket; a second start is refused.
#include "fixture.h"

#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <QTcpSocket>
#include <QTest>
#include <QWebSocket>

#ifndef RVO_SERVER_BINARY
#error "RVO_SERVER_BINARY must name the built server"
#endif

namespace {

const quint16 kServerPort = 1818;
const QString kVersionReply = QStringLiteral("BegingetVersionV1.0.2EndgetVersion");

bool portAccepts()
{
    QTcpSocket probe;
    probe.connectToHost(QHostAddress::LocalHost, kServerPort);
    return probe.waitForConnected(300);
}

QString errorsOf(QProcess& p)
{
    return QString::fromLocal8Bit(p.readAllStandardError());
}

}  // namespace

class TestEndToEnd : public QObject {
    Q_OBJECT

    QString m_appDir;
    QString m_binary;
    QProcess m_server;
    QWebSocket m_page;
    QStringList m_received;

    // Starts the server from its folder; profile overrides the device profile it reads.
    void launch(QProcess& server, const QString& profile = QString())
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        env.insert(QStringLiteral("DEVICE_PROFILE"), profile.isEmpty() ? m_appDir + "/profile.json" : profile);
        env.remove(QStringLiteral("DEVICE_TRACE"));
        server.setProgram(m_binary);
        server.setWorkingDirectory(m_appDir);
        server.setProcessEnvironment(env);
        server.start();
    }

    // Waits until port 1818 answers; false (with the reason) when the program ends first.
    static bool listening(QProcess& server, QString* why)
    {
        waitFor([&] { return server.state() == QProcess::NotRunning || portAccepts(); }, 30000);
        *why = QStringLiteral("state %1, exit code %2:\n%3").arg(server.state()).arg(server.exitCode()).arg(errorsOf(server));
        return server.state() == QProcess::Running && portAccepts();
    }

    // A refused start says so and leaves with 0.
    static void checkRefused(QProcess& p)
    {
        const QString err = errorsOf(p);
        QCOMPARE(p.exitStatus(), QProcess::NormalExit);
        QCOMPARE(p.exitCode(), 0);
        QVERIFY2(err.contains(QLatin1String("process[rvowebSocketServer] is already running!!!")), qPrintable(err));
    }

    // Sends one text and returns the first message that follows it (none when none came).
    QStringList ask(const QString& text)
    {
        m_received.clear();
        m_page.sendTextMessage(text);
        waitFor([this] { return !m_received.isEmpty(); }, 10000);
        return m_received.mid(0, 1);
    }

    // Everything the log folder holds (the day may change while the test runs).
    QString allLogs() const
    {
        QString all;
        for (const QFileInfo& f : QDir(m_appDir + "/log").entryInfoList({"*.txt"}))
            all += QString::fromUtf8(readFile(f.absoluteFilePath()));
        return all;
    }

private slots:
    void initTestCase()
    {
        // The folder is part of the server's process line, so it must not hold a word the
        // single-instance check overlooks a line for.
        m_appDir = QDir::tempPath() + QStringLiteral("/rvo-e2e-%1").arg(QCoreApplication::applicationPid());
        for (const char* w : {"sh", "txt", "qtcreator", "grep", "sudo"})
            QVERIFY2(!m_appDir.contains(QLatin1String(w), Qt::CaseInsensitive), "TMPDIR hides the server from its single-instance check");
        QDir(m_appDir).removeRecursively();
        m_binary = m_appDir + QStringLiteral("/rvowebSocketServer");
        QVERIFY(QDir().mkpath(m_appDir));
        QVERIFY2(QFile::copy(QStringLiteral(RVO_SERVER_BINARY), m_binary), RVO_SERVER_BINARY);
        QVERIFY(QFile::setPermissions(m_binary, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        QVERIFY(writeFile(m_appDir + "/profile.json", R"({ "open": { "command": "true" } })"));
        QVERIFY2(!portAccepts(), "port 1818 is already taken by another program: stop it before this test");

        launch(m_server);
        QString why;
        QVERIFY2(listening(m_server, &why), qPrintable(why));
        connect(&m_page, &QWebSocket::textMessageReceived, this, [this](const QString& m) { m_received << m; });
        m_page.open(QUrl(QStringLiteral("ws://127.0.0.1:%1").arg(kServerPort)));
        QVERIFY(waitFor([this] { return m_page.state() == QAbstractSocket::ConnectedState; }, 10000));
    }

    void cleanupTestCase()
    {
        m_page.close();
        m_server.kill();
        m_server.waitForFinished(10000);
        if (!m_appDir.isEmpty())
            QDir(m_appDir).removeRecursively();
    }

    void commands_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("reply");
        // %1 stands for the application folder.
        QTest::newRow("version") << "getVersion()" << kVersionReply;
        QTest::newRow("temporary folder") << "sGetTempPath()" << "BeginsGetTempPath/tmpEndsGetTempPath";
        QTest::newRow("create a folder") << "bCreateDir(%1/x)" << "BeginbCreateDirtrueEndbCreateDir";
        QTest::newRow("missing file") << "bFileIsExist(%1/x/a.jpg)" << "BeginbFileIsExistfalseEndbFileIsExist";
        QTest::newRow("@: the empty page data") << "@" << "";
    }

    void commands()
    {
        QFETCH(QString, command);
        QFETCH(QString, reply);
        const QString text = command.contains(QLatin1String("%1")) ? command.arg(m_appDir) : command;
        QCOMPARE(ask(text), QStringList{reply});
    }

    void filesBesideTheProgram()
    {
        QVERIFY2(QFileInfo(m_appDir + "/x").isDir(), "bCreateDir made no folder");
        const QByteArray ini = readFile(m_appDir + "/server.ini");
        QVERIFY2(ini.contains("browser=gnome-www-browser"), ini.constData());
        const QString log = allLogs();
        QVERIFY2(log.contains(QStringLiteral("boreaTcp：系统启动")), qPrintable(log));
        QVERIFY(log.contains(QStringLiteral("版本编译时间")));
        QVERIFY2(!log.contains(QLatin1String("already running")), qPrintable(log));
    }

    void secondInstanceIsRefused()
    {
        QProcess second;
        launch(second);
        QVERIFY2(second.waitForFinished(30000), "the second instance did not end");
        checkRefused(second);
        // The first one keeps serving its page.
        QCOMPARE(m_server.state(), QProcess::Running);
        QCOMPARE(ask(QStringLiteral("getVersion()")), QStringList{kVersionReply});
    }

    // Two servers started at once: exactly one serves.
    void twoStartsAtOnceLeaveOneServer()
    {
        m_page.close();
        m_server.kill();
        QVERIFY(m_server.waitForFinished(10000));
        QProcess first, second;
        launch(first);
        launch(second);
        QVERIFY(first.waitForStarted(10000) && second.waitForStarted(10000));
        waitFor([&] { return first.state() == QProcess::NotRunning || second.state() == QProcess::NotRunning; }, 30000);
        QProcess& left = first.state() == QProcess::NotRunning ? first : second;
        QProcess& kept = &left == &first ? second : first;
        QVERIFY2(left.state() == QProcess::NotRunning, "both servers keep running");
        checkRefused(left);
        QString why;
        QVERIFY2(listening(kept, &why), qPrintable(why));
        kept.kill();
        kept.waitForFinished(10000);
    }

    // A server killed outright leaves its lock file behind; it never blocks the next start. That
    // start reads a broken device profile, whose line reaches the log file exactly once.
    void killedServerNeverBlocksTheNext()
    {
        QProcess killed, next;
        QString why;
        launch(killed);
        QVERIFY2(listening(killed, &why), qPrintable(why));
        killed.kill();   // SIGKILL: nothing is cleaned up
        QVERIFY(killed.waitForFinished(10000));
        QVERIFY2(QFile::exists(m_appDir + "/rvowebSocketServer.lock"), "no lock left to test with");

        const QString broken = m_appDir + "/broken-profile.json";
        QVERIFY(writeFile(broken, "{ \"open\": "));
        launch(next, broken);
        const bool up = listening(next, &why);
        next.kill();
        next.waitForFinished(10000);
        QVERIFY2(up, qPrintable(why));
        QCOMPARE(allLogs().count("devicelib: device profile " + broken + ": parse error"), 1);
    }
};

QTEST_GUILESS_MAIN(TestEndToEnd)
#include "tst_e2e.moc"