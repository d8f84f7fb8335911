// The built server, run as a counter terminal runs it: from its own application folder, on the
// fixed port 1818, answered by a page over a real WebSocket; a second start is refused.
#include <QCoreApplication>
#include <QDate>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QWebSocket>

#ifndef RVO_SERVER_BINARY
#error "RVO_SERVER_BINARY must name the built server"
#endif

namespace {

const quint16 kServerPort = 1818;

// Words that make the single-instance check overlook a process line.
const QStringList kFilteredWords{"sh", "txt", "qtcreator", "grep", "sudo"};

QByteArray readFile(const QString& path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return QByteArray();
    return f.readAll();
}

bool portAccepts(quint16 port)
{
    QTcpSocket probe;
    probe.connectToHost(QHostAddress::LocalHost, port);
    return probe.waitForConnected(300);
}

}  // namespace

class TestEndToEnd : public QObject {
    Q_OBJECT

private:
    QString m_appDir;
    QString m_binary;
    QProcess m_server;
    QWebSocket m_page;
    QStringList m_received;

    QProcessEnvironment serverEnvironment() const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        env.insert(QStringLiteral("DEVICE_PROFILE"), m_appDir + QStringLiteral("/profile.json"));
        env.remove(QStringLiteral("DEVICE_TRACE"));
        return env;
    }

    QString serverOutput()
    {
        return QString::fromLocal8Bit(m_server.readAllStandardError() + m_server.readAllStandardOutput());
    }

    // Starts the server program and waits until port 1818 answers; false (with the reason) when
    // the program ends first or the port stays closed.
    bool startListening(QProcess& server, const QProcessEnvironment& env, QString* why)
    {
        server.setProgram(m_binary);
        server.setWorkingDirectory(m_appDir);
        server.setProcessEnvironment(env);
        server.start();
        QElapsedTimer t;
        t.start();
        while (!portAccepts(kServerPort) && t.elapsed() < 30000) {
            if (server.state() == QProcess::NotRunning)
                break;
            QTest::qWait(50);
        }
        *why = QStringLiteral("state %1, exit code %2:\n%3")
                   .arg(server.state())
                   .arg(server.exitCode())
                   .arg(QString::fromLocal8Bit(server.readAllStandardError()));
        return server.state() == QProcess::Running && portAccepts(kServerPort);
    }

    // Everything the log folder holds (the day may change while the test runs).
    QString allLogs() const
    {
        QByteArray all;
        for (const QFileInfo& f : QDir(m_appDir + QStringLiteral("/log")).entryInfoList({QStringLiteral("*.txt")}))
            all += readFile(f.absoluteFilePath());
        return QString::fromUtf8(all);
    }

    // Sends one text and waits for the first message that follows it.
    QString ask(const QString& text, bool* arrived)
    {
        m_received.clear();
        m_page.sendTextMessage(text);
        QElapsedTimer t;
        t.start();
        while (m_received.isEmpty() && t.elapsed() < 10000)
            QTest::qWait(5);
        *arrived = !m_received.isEmpty();
        return *arrived ? m_received.takeFirst() : QString();
    }

private slots:
    void initTestCase()
    {
        // The application folder: its path is part of the server's process line, so it must not
        // hold a word the single-instance check filters out.
        m_appDir = QDir::tempPath() + QStringLiteral("/rvo-e2e-%1").arg(QCoreApplication::applicationPid());
        for (const QString& w : kFilteredWords)
            if (m_appDir.contains(w, Qt::CaseInsensitive))
                QFAIL(qPrintable(QStringLiteral("the temporary folder %1 holds \"%2\", which hides the server from "
                                                "its single-instance check; set TMPDIR elsewhere").arg(m_appDir, w)));
        QDir(m_appDir).removeRecursively();
        QVERIFY(QDir().mkpath(m_appDir));

        m_binary = m_appDir + QStringLiteral("/rvowebSocketServer");
        QVERIFY2(QFile::copy(QStringLiteral(RVO_SERVER_BINARY), m_binary), RVO_SERVER_BINARY);
        QVERIFY(QFile::setPermissions(m_binary, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner
                                                    | QFile::ReadGroup | QFile::ExeGroup));
        QFile profile(m_appDir + QStringLiteral("/profile.json"));
        QVERIFY(profile.open(QIODevice::WriteOnly));
        profile.write(R"({ "open": { "command": "true" } })");
        profile.close();

        if (portAccepts(kServerPort))
            QFAIL("port 1818 is already taken by another program: stop it before this test");
        QTcpServer probe;
        if (!probe.listen(QHostAddress::Any, kServerPort))
            QFAIL(qPrintable(QStringLiteral("port 1818 cannot be bound: %1").arg(probe.errorString())));
        probe.close();

        m_server.setProgram(m_binary);
        m_server.setWorkingDirectory(m_appDir);
        m_server.setProcessEnvironment(serverEnvironment());
        m_server.start();
        QVERIFY2(m_server.waitForStarted(10000), qPrintable(m_server.errorString()));
        QElapsedTimer t;
        t.start();
        while (!portAccepts(kServerPort)) {
            if (m_server.state() == QProcess::NotRunning)
                QFAIL(qPrintable(QStringLiteral("the server ended before listening (exit code %1):\n%2")
                                     .arg(m_server.exitCode())
                                     .arg(serverOutput())));
            if (t.elapsed() > 30000)
                QFAIL("the server did not listen on port 1818 within 30 s");
            QTest::qWait(50);
        }

        connect(&m_page, &QWebSocket::textMessageReceived, this, [this](const QString& m) { m_received << m; });
        m_page.open(QUrl(QStringLiteral("ws://127.0.0.1:%1").arg(kServerPort)));
        t.restart();
        while (m_page.state() != QAbstractSocket::ConnectedState && t.elapsed() < 10000)
            QTest::qWait(5);
        QCOMPARE(m_page.state(), QAbstractSocket::ConnectedState);
    }

    void cleanupTestCase()
    {
        m_page.close();
        if (m_server.state() != QProcess::NotRunning) {
            m_server.kill();
            m_server.waitForFinished(10000);
        }
        if (!m_appDir.isEmpty())
            QDir(m_appDir).removeRecursively();
    }

    void commands_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("reply");
        // %1 stands for a scratch folder of this test.
        QTest::newRow("version") << "getVersion()" << "BegingetVersionV1.0.2EndgetVersion";
        QTest::newRow("temporary folder") << "sGetTempPath()" << "BeginsGetTempPath/tmpEndsGetTempPath";
        QTest::newRow("create a folder") << "bCreateDir(%1/x)" << "BeginbCreateDirtrueEndbCreateDir";
        QTest::newRow("missing file") << "bFileIsExist(%1/x/a.jpg)" << "BeginbFileIsExistfalseEndbFileIsExist";
    }

    void commands()
    {
        QFETCH(QString, command);
        QFETCH(QString, reply);
        const QString text = command.contains(QLatin1String("%1")) ? command.arg(m_appDir) : command;
        bool arrived = false;
        const QString got = ask(text, &arrived);
        QVERIFY2(arrived, qPrintable(QStringLiteral("no reply to %1").arg(text)));
        QCOMPARE(got, reply);
    }

    void createdFolderIsReal()
    {
        QVERIFY(QFileInfo(m_appDir + QStringLiteral("/x")).isDir());
    }

    void atAnswersTheEmptyPageData()
    {
        bool arrived = false;
        const QString got = ask(QStringLiteral("@"), &arrived);
        QVERIFY2(arrived, "no answer to \"@\"");
        QVERIFY(got.isEmpty());
    }

    void filesBesideTheProgram()
    {
        const QByteArray ini = readFile(m_appDir + QStringLiteral("/server.ini"));
        QVERIFY2(ini.contains("browser=gnome-www-browser"), ini.constData());

        const QString today = m_appDir + QStringLiteral("/log/vx_log_%1.txt");
        QByteArray log = readFile(today.arg(QDate::currentDate().toString(QStringLiteral("yyyy-MM-dd"))));
        if (log.isEmpty())   // the test started before midnight
            log = readFile(today.arg(QDate::currentDate().addDays(-1).toString(QStringLiteral("yyyy-MM-dd"))));
        QVERIFY2(log.contains(QStringLiteral("boreaTcp：系统启动").toUtf8()), log.constData());
        QVERIFY(log.contains("版本编译时间"));
        QVERIFY2(!log.contains("already running"), log.constData());
    }

    void secondInstanceIsRefused()
    {
        QProcess second;
        second.setProgram(m_binary);
        second.setWorkingDirectory(m_appDir);
        second.setProcessEnvironment(serverEnvironment());
        second.start();
        QVERIFY2(second.waitForFinished(30000), "the second instance did not end");
        const QString err = QString::fromLocal8Bit(second.readAllStandardError());
        QCOMPARE(second.exitStatus(), QProcess::NormalExit);
        QCOMPARE(second.exitCode(), 0);
        QVERIFY2(err.contains(QLatin1String("process[rvowebSocketServer] is already running!!!")), qPrintable(err));

        // The first one keeps serving its page.
        QCOMPARE(m_server.state(), QProcess::Running);
        bool arrived = false;
        QCOMPARE(ask(QStringLiteral("getVersion()"), &arrived), QStringLiteral("BegingetVersionV1.0.2EndgetVersion"));
    }

    // Two servers started at once: exactly one serves, the other says so and leaves with 0.
    void twoStartsAtOnceLeaveOneServer()
    {
        m_page.close();
        m_server.kill();
        QVERIFY(m_server.waitForFinished(10000));
        QProcess first;
        QProcess second;
        for (QProcess* p : {&first, &second}) {
            p->setProgram(m_binary);
            p->setWorkingDirectory(m_appDir);
            p->setProcessEnvironment(serverEnvironment());
        }
        first.start();
        second.start();
        QVERIFY(first.waitForStarted(10000) && second.waitForStarted(10000));
        QElapsedTimer t;
        t.start();
        while (first.state() == QProcess::Running && second.state() == QProcess::Running && t.elapsed() < 30000)
            QTest::qWait(20);
        QProcess& left = first.state() == QProcess::NotRunning ? first : second;
        QProcess& kept = &left == &first ? second : first;
        QVERIFY2(left.state() == QProcess::NotRunning, "both servers keep running");
        const QString err = QString::fromLocal8Bit(left.readAllStandardError());
        QCOMPARE(left.exitStatus(), QProcess::NormalExit);
        QCOMPARE(left.exitCode(), 0);
        QVERIFY2(err.contains(QLatin1String("process[rvowebSocketServer] is already running!!!")), qPrintable(err));
        t.restart();
        while (!portAccepts(kServerPort) && kept.state() == QProcess::Running && t.elapsed() < 30000)
            QTest::qWait(50);
        QVERIFY2(kept.state() == QProcess::Running, qPrintable(QString::fromLocal8Bit(kept.readAllStandardError())));
        QVERIFY(portAccepts(kServerPort));
        kept.kill();
        kept.waitForFinished(10000);
    }

    // A server killed outright leaves its lock file behind; it never blocks the next start. That
    // start reads a broken device profile, whose line reaches the log file exactly once.
    void killedServerNeverBlocksTheNext()
    {
        QProcess killed;
        QString why;
        QVERIFY2(startListening(killed, serverEnvironment(), &why), qPrintable(why));
        killed.kill();   // SIGKILL: nothing is cleaned up
        QVERIFY(killed.waitForFinished(10000));
        QVERIFY2(QFile::exists(m_appDir + QStringLiteral("/rvowebSocketServer.lock")), "no lock left to test with");

        const QString broken = m_appDir + QStringLiteral("/broken-profile.json");
        QFile profile(broken);
        QVERIFY(profile.open(QIODevice::WriteOnly));
        profile.write("{ \"open\": ");
        profile.close();
        QProcessEnvironment env = serverEnvironment();
        env.insert(QStringLiteral("DEVICE_PROFILE"), broken);
        QProcess next;
        const bool listening = startListening(next, env, &why);
        next.kill();
        next.waitForFinished(10000);
        QVERIFY2(listening, qPrintable(why));
        const QString line = QStringLiteral("devicelib: device profile %1: parse error").arg(broken);
        QCOMPARE(allLogs().count(line), 1);
    }
};

QTEST_GUILESS_MAIN(TestEndToEnd)
#include "tst_e2e.moc"
