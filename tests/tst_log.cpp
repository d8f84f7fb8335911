// The log facility: day files, rotation, retention, the flags, re-entry and the TCP mirror.
#include "fixture.h"
#include "log/qlog.h"

#include <QDirIterator>
#include <QNetworkInterface>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

class TestLog : public QObject {
    Q_OBJECT

    static quint16 freePort()
    {
        QTcpServer probe;
        return probe.listen(QHostAddress::AnyIPv4, 0) ? probe.serverPort() : 0;
    }
    // Reads until want bytes arrived or nothing more comes.
    static QByteArray readBytes(QTcpSocket& socket, int want)
    {
        QByteArray got;
        waitFor([&] { return (got += socket.readAll()).size() >= want; });
        return got;
    }
    QLog* log() { return QLog::instance(); }
    QString dir() const { return m_dir->path(); }
    QStringList allFiles() const   // relative names, sorted
    {
        QStringList all;
        for (QDirIterator it(dir(), QDir::Files, QDirIterator::Subdirectories); it.hasNext();)
            all << QDir(dir()).relativeFilePath(it.next());
        all.sort();
        return all;
    }
    QString dayFile() const { return dir() + m_now.toString(QStringLiteral("'/vx_log_'yyyy-MM-dd'.txt'")); }
    // Starts the network log on a free port.
    quint16 startNet()
    {
        const quint16 port = freePort();
        log()->setPort(port);
        log()->handler(QLog::LogToNet);
        qInfo("starts the network log");
        return port;
    }
    // Connects a TCP client to the network log and waits until it is fed.
    bool attach(QTcpSocket& client, quint16 port, const QHostAddress& to = QHostAddress(QHostAddress::LocalHost))
    {
        client.connectToHost(to, port);
        for (int i = 0; client.waitForConnected(3000) && i < 100 && !client.waitForReadyRead(50); ++i)
            qInfo("ping");
        while (client.waitForReadyRead(200)) {}
        return !client.readAll().isEmpty();
    }
    std::unique_ptr<QTemporaryDir> m_dir;
    QDateTime m_now;
    QStringList m_clockSays;   // printed one each time the log asks the clock

private slots:
    void init()
    {
        log()->handler({});
        m_dir.reset(new QTemporaryDir);
        QVERIFY(m_dir->isValid());
        log()->setLogPath(dir());
        log()->setMaxLogSize(52428800);
        log()->setSaveDay(30);
        log()->setNetAddresses({});
        m_now = QDateTime(QDate(2022, 11, 17), QTime(11, 28, 11));
        log()->setClock([this] {
            if (!m_clockSays.isEmpty())
                qWarning("%s", qPrintable(m_clockSays.takeFirst()));
            return m_now;
        });
    }

    void cleanup() { log()->handler({}); log()->setClock({}); m_clockSays.clear(); }
    void constructorMadeTheDefaultFolder() { QVERIFY(QFileInfo(QCoreApplication::applicationDirPath() + "/log").isDir()); }

    // steps: messages; "@n" moves the clock n seconds on; "#dir" moves the log to a subfolder;
    // "=n" sets the flags; "?a|b" runs retention with a clock that prints a, then b, when asked.
    // expected: relative file name, content, file name, content... (every file of the folder).
    void logFiles_data()
    {
        QTest::addColumn<QDateTime>("start");
        QTest::addColumn<int>("maxSize");
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<QStringList>("expected");
        QTest::addColumn<QStringList>("signalled");
        const QString day = "vx_log_2022-11-17", at = day + "-112811";
        // Null size and start: init()'s. Every line below is 3 bytes in the file.
        auto row = [&](const char* name, const QStringList& steps, const QStringList& expected, int maxSize = 0,
                       const QDateTime& start = {}, const QStringList& signalled = {}) {
            QTest::newRow(name) << start << maxSize << steps << expected << signalled;
        };
        row("every type as printed", {"[2022-11-17 11:28:11]  boreaTcp：系统启动", "debug 7", "a warning", "%1 in it"},
            {day + ".txt", "[2022-11-17 11:28:11]  boreaTcp：系统启动\ndebug 7\na warning\n%1 in it\n"});
        row("flags choose the outputs", {"l0", "=4", "l1", "=0", "l2"}, {day + ".txt", "l0\n"}, 0, {}, {"l1"});
        row("leap day", {"l0"}, {"vx_log_2024-02-29.txt", "l0\n"}, 0, QDateTime(QDate(2024, 2, 29), QTime(0, 0)));
        row("midnight starts the next file", {"l0", "@2", "l1"}, {"vx_log_2023-12-31.txt", "l0\n", "vx_log_2024-01-01.txt", "l1\n"},
            0, QDateTime(QDate(2023, 12, 31), QTime(23, 59, 59)));
        row("a new folder takes the next message", {"l0", "#deeper/log", "l1"},
            {"deeper/log/" + day + ".txt", "l1\n", day + ".txt", "l0\n"});
        // The size is the file's before the message in hand, so a rotation comes one line late.
        row("past the maximum: the day file reopens with the next message", {"l0", "l1", "l2"}, {at + ".txt", "l0\nl1\nl2\n"}, 5);
        row("exactly the maximum stays", {"l0", "l1", "l2", "l3", "l4"}, {at + ".txt", "l0\nl1\nl2\nl3\n", day + ".txt", "l4\n"}, 6);
        row("rotations in one second keep every file", {"l0", "l1", "l2", "l3", "l4", "l5", "l6", "l7", "l8", "l9"},
            {at + ".txt", "l0\nl1\nl2\n", at + "-2.txt", "l3\nl4\nl5\n", at + "-3.txt", "l6\nl7\nl8\n", day + ".txt", "l9\n"}, 5);
        row("a second later the plain name", {"l0", "l1", "l2", "@1", "l3", "l4", "l5"},
            {at + ".txt", "l0\nl1\nl2\n", day + "-112812.txt", "l3\nl4\nl5\n"}, 5);
        // A message printed on a thread that holds the log neither deadlocks nor is lost.
        row("printed under the lock: kept", {"?inner"}, {day + ".txt", "inner\n"});
        row("writing a kept message prints again", {"l0", "?i1|i2", "l3"}, {day + ".txt", "l0\ni1\ni2\nl3\n"});
    }
    void logFiles()
    {
        QFETCH(QDateTime, start);
        QFETCH(int, maxSize);
        QFETCH(QStringList, steps);
        QFETCH(QStringList, expected);
        QFETCH(QStringList, signalled);
        m_now = start.isValid() ? start : m_now;
        if (maxSize)
            log()->setMaxLogSize(maxSize);
        QSignalSpy spy(log(), &QLog::sig_newLog);
        log()->handler(QLog::LogToFile);
        for (int i = 0; i < steps.size(); ++i) {
            const QString arg = steps[i].mid(1);
            switch (steps[i][0].unicode()) {
            case '@': m_now = m_now.addSecs(arg.toInt()); break;
            case '#': log()->setLogPath(dir() + "/" + arg); break;
            case '=': log()->handler(QLog::HandlerFlags(arg.toInt())); break;
            case '?': m_clockSays = arg.split('|'); log()->autoDeleteLog(); break;
            default:   // each type in turn: every type is written the same way
                qt_message_output(QList<QtMsgType>{QtInfoMsg, QtDebugMsg, QtWarningMsg, QtCriticalMsg}[i % 4], {}, steps[i]);
            }
        }
        log()->handler({});
        QStringList names, got;
        for (int i = 0; i < expected.size(); i += 2) {
            names << expected[i];
            QCOMPARE(QString::fromUtf8(readFile(dir() + "/" + expected[i])), expected[i + 1]);
        }
        names.sort();
        QCOMPARE(allFiles(), names);
        for (const QList<QVariant>& args : qAsConst(spy))
            got << args.at(0).toString();
        QCOMPARE(got, signalled);
    }

    void retention_data()
    {
        QTest::addColumn<int>("saveDay");
        QTest::addColumn<QStringList>("present");   // files in the folder before the day starts
        QTest::addColumn<qint64>("clockAhead");     // seconds the clock is ahead of the files' birth
        QTest::addColumn<QStringList>("kept");
        const qint64 day = 24 * 3600;
        const QStringList three{"vx_log_2001-01-01.txt", "vx_log_2001-01-02.txt", "vx_log_2001-01-03-101010-2.txt"};
        const QStringList four = three + QStringList{"vx_log_2001-01-03.txt"}, five = four + QStringList{"notes.txt"};
        QTest::newRow("fewer files than saveDay: nothing deleted") << 6 << five << 7 * day << five;
        QTest::newRow("saveDay files, the one without vx counted but kept") << 5 << five << 6 * day << QStringList{"notes.txt"};
        QTest::newRow("more files than saveDay") << 3 << four << 4 * day << QStringList{};
        QTest::newRow("files younger than the cutoff kept") << 3 << four << (3 * day - 3600) << four;
        QTest::newRow("other extensions neither counted nor deleted") << 4 << three + QStringList{"vx.log"} << 5 * day
                                                                      << three + QStringList{"vx.log"};
        QTest::newRow("name is case-sensitive") << 2 << QStringList{"VX_old.txt", "vx_old.txt"} << 3 * day << QStringList{"VX_old.txt"};
    }
    void retention()
    {
        QFETCH(int, saveDay);
        QFETCH(QStringList, present);
        QFETCH(qint64, clockAhead);
        QFETCH(QStringList, kept);
        for (const QString& name : present)
            QVERIFY(writeFile(dir() + "/" + name, "old\n"));
        const QFileInfo first(dir() + "/" + present.first());
        m_now = (first.birthTime().isValid() ? first.birthTime() : first.metadataChangeTime()).addSecs(clockAhead);
        log()->setSaveDay(static_cast<unsigned short>(saveDay));
        // The first message of a day opens the day file and applies retention before it.
        log()->handler(QLog::LogToFile);
        qInfo("today");
        log()->handler({});
        kept << QFileInfo(dayFile()).fileName();
        kept.sort();
        QCOMPARE(allFiles(), kept);
    }

    // Every client gets the raw UTF-8 of each message; one that leaves is dropped.
    void netMirrorsToEveryClient()
    {
        const quint16 port = startNet();
        QTcpSocket first, second;
        QVERIFY(attach(first, port) && attach(second, port));
        while (first.waitForReadyRead(200))
            first.readAll();
        QTRY_COMPARE(log()->netClientCount(), 2);
        qInfo("alpha");   // no line ends on the wire
        qInfo("βeta 系统");
        const QByteArray want = QStringLiteral("alphaβeta 系统").toUtf8();
        QCOMPARE(readBytes(first, want.size()), want);
        QCOMPARE(readBytes(second, want.size()), want);
        QVERIFY2(allFiles().isEmpty(), "the network log alone writes no file");
        first.disconnectFromHost();
        QTRY_COMPARE(log()->netClientCount(), 1);
        log()->handler(QLog::LogToNet | QLog::LogToFile);
        qInfo("only for the second");
        QCOMPARE(readBytes(second, 19), QByteArray("only for the second"));
        QCOMPARE(readFile(dayFile()), QByteArray("only for the second\n"));
        // A new port closes the old one at once; the next message opens the new one.
        log()->setPort(freePort());
        QCOMPARE(log()->netClientCount(), -1);
        QVERIFY(second.state() == QAbstractSocket::UnconnectedState || second.waitForDisconnected(3000));
        QVERIFY2(!attach(first, port), "the old port must be closed");
    }

    // The mirror listens where the "listen" setting says: loopback (127.0.0.1: above) unless told otherwise.
    void netListener_data()
    {
        QTest::addColumn<QString>("bind");     // empty: the default
        QTest::addColumn<QString>("target");   // an address, or "machine"
        QTest::addColumn<bool>("accepts");
        QTest::newRow("default: ::1") << "" << "::1" << true;
        QTest::newRow("default: not the machine's address") << "" << "machine" << false;
        QTest::newRow("any: the machine's address") << "any" << "machine" << true;
        QTest::newRow("one address: only it") << "127.0.0.1" << "::1" << false;
    }
    void netListener()
    {
        QFETCH(QString, bind);
        QFETCH(QString, target);
        QFETCH(bool, accepts);
        QHostAddress to(target);   // "machine": one of this machine's addresses off loopback
        for (const QHostAddress& a : QNetworkInterface::allAddresses())
            if (target == "machine" && !a.isLoopback() && !a.isLinkLocal() && a.scopeId().isEmpty())
                to = a;
        if (to.isNull() || !QTcpServer().listen(to, 0))
            QSKIP("this machine has no such address");
        log()->setNetAddresses(bind.isEmpty() ? QList<QHostAddress>{}
                               : QList<QHostAddress>{bind == "any" ? QHostAddress(QHostAddress::Any) : QHostAddress(bind)});
        const quint16 port = startNet();
        QTcpSocket client;
        QCOMPARE(attach(client, port, to), accepts);
        if (!accepts)
            QCOMPARE(client.error(), QAbstractSocket::ConnectionRefusedError);
    }
};

QTEST_GUILESS_MAIN(TestLog)
#include "tst_log.moc"
