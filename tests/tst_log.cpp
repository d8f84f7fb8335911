// The log facility: day files, rotation, retention, the flags and the TCP mirror.
#include "fixture.h"
#include "log/qlog.h"

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

namespace {

quint16 freePort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::AnyIPv4, 0);
    return probe.serverPort();
}

// Reads until want bytes arrived or nothing more comes.
QByteArray readBytes(QTcpSocket& socket, int want)
{
    QByteArray got;
    for (int i = 0; i < 100 && got.size() < want; ++i) {
        if (socket.bytesAvailable() || socket.waitForReadyRead(50))
            got += socket.readAll();
    }
    return got;
}

}  // namespace

class TestLog : public QObject {
    Q_OBJECT

private:
    QLog* log() { return QLog::instance(); }
    QString dir() const { return m_dir->path(); }
    QStringList files() const { return QDir(dir()).entryList(QDir::Files, QDir::Name); }
    QString dayFile(const QDateTime& t) const
    {
        return dir() + QStringLiteral("/vx_log_") + t.toString(QStringLiteral("yyyy-MM-dd")) + QStringLiteral(".txt");
    }
    // Connects a TCP client to the network log and waits until it is fed.
    bool attach(QTcpSocket& client, quint16 port)
    {
        client.connectToHost(QHostAddress::LocalHost, port);
        if (!client.waitForConnected(3000))
            return false;
        for (int i = 0; i < 100; ++i) {
            qInfo("ping");
            if (client.waitForReadyRead(50))
                break;
        }
        while (client.waitForReadyRead(200))
            ;
        return !client.readAll().isEmpty();
    }

    std::unique_ptr<QTemporaryDir> m_dir;
    QDateTime m_now;

private slots:
    void init()
    {
        log()->handler({});
        m_dir.reset(new QTemporaryDir);
        QVERIFY(m_dir->isValid());
        log()->setLogPath(dir());
        log()->setMaxLogSize(52428800);
        log()->setSaveDay(30);
        m_now = QDateTime(QDate(2022, 11, 17), QTime(11, 28, 11));
        log()->setClock([this] { return m_now; });
    }

    void cleanup()
    {
        log()->handler({});
        log()->setClock({});
    }

    void constructorMadeTheDefaultFolder()
    {
        QVERIFY(QFileInfo(QCoreApplication::applicationDirPath() + QStringLiteral("/log")).isDir());
    }

    void dayFileName_data()
    {
        QTest::addColumn<QDateTime>("now");
        QTest::addColumn<QString>("name");
        QTest::newRow("build day") << QDateTime(QDate(2022, 11, 17), QTime(11, 28, 11)) << "vx_log_2022-11-17.txt";
        QTest::newRow("leap day") << QDateTime(QDate(2024, 2, 29), QTime(0, 0, 0)) << "vx_log_2024-02-29.txt";
        QTest::newRow("new year's eve") << QDateTime(QDate(2023, 12, 31), QTime(23, 59, 59)) << "vx_log_2023-12-31.txt";
    }

    void dayFileName()
    {
        QFETCH(QDateTime, now);
        QFETCH(QString, name);
        m_now = now;
        log()->handler(QLog::LogToFile);
        // Every message type is written as printed, nothing added.
        qInfo("[2022-11-17 11:28:11]  boreaTcp：系统启动");
        qDebug() << "debug" << 7;
        qWarning("a warning");
        qCritical("a critical with %%1 in it");
        log()->handler({});
        QCOMPARE(files(), QStringList{name});
        QCOMPARE(readFile(dir() + "/" + name), QByteArray("[2022-11-17 11:28:11]  boreaTcp：系统启动\ndebug 7\n"
                                                         "a warning\na critical with %1 in it\n"));
    }

    void midnightStartsTheNextFile()
    {
        m_now = QDateTime(QDate(2022, 11, 17), QTime(23, 59, 59));
        log()->handler(QLog::LogToFile);
        qInfo("before");
        m_now = m_now.addSecs(2);
        qInfo("after");
        log()->handler({});
        QCOMPARE(files(), (QStringList{"vx_log_2022-11-17.txt", "vx_log_2022-11-18.txt"}));
        QCOMPARE(readFile(dir() + "/vx_log_2022-11-17.txt"), QByteArray("before\n"));
        QCOMPARE(readFile(dir() + "/vx_log_2022-11-18.txt"), QByteArray("after\n"));
    }

    void newLogPathTakesTheNextMessage()
    {
        QTemporaryDir other;
        log()->handler(QLog::LogToFile);
        qInfo("first");
        log()->setLogPath(other.path() + "/deeper/log");
        QVERIFY(QFileInfo(other.path() + "/deeper/log").isDir());
        qInfo("second");
        log()->handler({});
        QCOMPARE(readFile(dayFile(m_now)), QByteArray("first\n"));
        QCOMPARE(readFile(other.path() + "/deeper/log/vx_log_2022-11-17.txt"), QByteArray("second\n"));
    }

    void rotationPastMaxSize()
    {
        log()->setMaxLogSize(100);
        log()->handler(QLog::LogToFile);
        const QString rotated = dir() + "/vx_log_2022-11-17-112811.txt";
        QByteArray written;
        for (int i = 0; i < 50 && !QFile::exists(rotated); ++i) {
            const QByteArray line = QByteArray("line ") + QByteArray::number(i) + " of the log";
            qInfo("%s", line.constData());
            written += line + "\n";
        }
        QVERIFY(QFile::exists(rotated));
        QVERIFY(written.size() > 100);
        QCOMPARE(readFile(rotated), written);
        QVERIFY2(!QFile::exists(dayFile(m_now)), "the day file is only reopened by the next message");

        qInfo("fresh");
        log()->handler({});
        QCOMPARE(readFile(dayFile(m_now)), QByteArray("fresh\n"));
        QCOMPARE(files().size(), 2);
    }

    void rotationsInOneSecondCollide()
    {
        log()->setMaxLogSize(40);
        log()->handler(QLog::LogToFile);
        const QString rotated = dir() + "/vx_log_2022-11-17-112811.txt";
        for (int i = 0; i < 20 && !QFile::exists(rotated); ++i)
            qInfo("first batch %d", i);
        const QByteArray firstBatch = readFile(rotated);
        QVERIFY(!firstBatch.isEmpty());

        // Same second: the second rotation cannot take the name, so the day file keeps growing.
        for (int i = 0; i < 10; ++i)
            qInfo("second batch %d", i);
        QCOMPARE(readFile(rotated), firstBatch);
        QVERIFY(readFile(dayFile(m_now)).size() > 40);
        QVERIFY(readFile(dayFile(m_now)).startsWith("second batch 0\n"));

        // A second later the rotation succeeds again.
        m_now = m_now.addSecs(1);
        qInfo("third");
        log()->handler({});
        QVERIFY(readFile(dir() + "/vx_log_2022-11-17-112812.txt").endsWith("second batch 9\nthird\n"));
        QVERIFY(!QFile::exists(dayFile(m_now)));
    }

    void retention_data()
    {
        QTest::addColumn<int>("saveDay");
        QTest::addColumn<QStringList>("present");   // files in the folder before the day starts
        QTest::addColumn<qint64>("clockAhead");     // seconds the clock is ahead of the files' birth
        QTest::addColumn<QStringList>("kept");

        const qint64 day = 24 * 3600;
        const QStringList four{"vx_log_2001-01-01.txt", "vx_log_2001-01-02.txt", "vx_log_2001-01-03.txt",
                               "vx_log_2001-01-03-101010.txt"};
        QTest::newRow("fewer files than saveDay: nothing deleted")
            << 6 << (four + QStringList{"notes.txt"}) << 7 * day << (four + QStringList{"notes.txt"});
        QTest::newRow("saveDay files, the one without vx counted but kept")
            << 5 << (four + QStringList{"notes.txt"}) << 6 * day << QStringList{"notes.txt"};
        QTest::newRow("more files than saveDay") << 3 << four << 4 * day << QStringList{};
        QTest::newRow("files younger than the cutoff kept") << 3 << four << (3 * day - 3600) << four;
        QTest::newRow("other extensions neither counted nor deleted")
            << 4 << QStringList{"vx_log_2001-01-01.txt", "vx_log_2001-01-02.txt", "vx_log_2001-01-03.txt", "vx.log"}
            << 5 * day << QStringList{"vx_log_2001-01-01.txt", "vx_log_2001-01-02.txt", "vx_log_2001-01-03.txt", "vx.log"};
        QTest::newRow("name is case-sensitive") << 2 << QStringList{"VX_old.txt", "vx_old.txt"} << 3 * day
                                                << QStringList{"VX_old.txt"};
    }

    void retention()
    {
        QFETCH(int, saveDay);
        QFETCH(QStringList, present);
        QFETCH(qint64, clockAhead);
        QFETCH(QStringList, kept);
        for (const QString& name : present)
            QVERIFY(writeFile(dir() + "/" + name, "old\n"));
        QDateTime born = QFileInfo(dir() + "/" + present.first()).birthTime();
        if (!born.isValid())
            born = QFileInfo(dir() + "/" + present.first()).metadataChangeTime();
        m_now = born.addSecs(clockAhead);
        log()->setSaveDay(static_cast<unsigned short>(saveDay));

        // The first message of a day opens the day file and applies retention before it.
        log()->handler(QLog::LogToFile);
        qInfo("today");
        log()->handler({});
        QStringList expected = kept;
        expected << QFileInfo(dayFile(m_now)).fileName();
        expected.sort();
        QCOMPARE(files(), expected);
    }

    void flagsChooseTheOutputs()
    {
        QSignalSpy spy(log(), &QLog::sig_newLog);
        log()->handler(QLog::LogToFile);
        qInfo("kept");
        log()->handler(QLog::LogToSignal);
        qInfo("to the signal");
        log()->handler({});
        qInfo("not in the file");
        QCOMPARE(files(), QStringList{"vx_log_2022-11-17.txt"});
        QCOMPARE(readFile(dayFile(m_now)), QByteArray("kept\n"));
        QCOMPARE(spy.count(), 1);
        QCOMPARE(spy.at(0).at(0).toString(), QStringLiteral("to the signal"));

        QTemporaryDir empty;
        log()->setLogPath(empty.path());
        qInfo("to the default output");
        QVERIFY(QDir(empty.path()).entryList(QDir::Files).isEmpty());
    }

    // Every client gets the raw UTF-8 of each message; one that leaves is dropped.
    void netMirrorsToEveryClient()
    {
        const quint16 port = freePort();
        log()->setPort(port);
        log()->handler(QLog::LogToNet);
        qInfo("starts the network log");
        QTcpSocket first;
        QTcpSocket second;
        QVERIFY(attach(first, port));
        QVERIFY(attach(second, port));
        while (first.waitForReadyRead(200))
            first.readAll();
        QTRY_COMPARE(log()->netClientCount(), 2);

        qInfo("alpha");
        qInfo("βeta 系统");
        const QByteArray want = QStringLiteral("alphaβeta 系统").toUtf8();
        QCOMPARE(readBytes(first, want.size()), want);
        QCOMPARE(readBytes(second, want.size()), want);
        QVERIFY2(files().isEmpty(), "the network log alone writes no file");

        first.disconnectFromHost();
        QTRY_COMPARE(log()->netClientCount(), 1);
        log()->handler(QLog::LogToNet | QLog::LogToFile);
        qInfo("only for the second");
        QCOMPARE(readBytes(second, 19), QByteArray("only for the second"));
        QCOMPARE(readFile(dayFile(m_now)), QByteArray("only for the second\n"));
    }

    void setPortMovesTheListener()
    {
        const quint16 oldPort = freePort();
        log()->setPort(oldPort);
        log()->handler(QLog::LogToNet);
        qInfo("on the old port");
        QTcpSocket client;
        QVERIFY(attach(client, oldPort));

        const quint16 newPort = freePort();
        QVERIFY(newPort != oldPort);
        log()->setPort(newPort);
        QCOMPARE(log()->netClientCount(), -1);
        QVERIFY(client.state() == QAbstractSocket::UnconnectedState || client.waitForDisconnected(3000));

        QTcpSocket late;
        late.connectToHost(QHostAddress::LocalHost, oldPort);
        QVERIFY2(!late.waitForConnected(1000), "the old port must be closed");

        qInfo("restarts the network log on the new port");
        QTcpSocket moved;
        QVERIFY(attach(moved, newPort));
        qInfo("moved");
        QCOMPARE(readBytes(moved, 5), QByteArray("moved"));
    }
};

QTEST_GUILESS_MAIN(TestLog)
#include "tst_log.moc"
