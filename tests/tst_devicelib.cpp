// The portable device library's core: device profile, scripted results and the call trace.
#include "devicelib/cardreader.h"
#include "devicelib/doccamera.h"
#include "devicelib/portable/core.h"
#include "fixture.h"

#include <QFile>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QTest>

#include <cstdlib>
#include <limits>
#include <functional>
#include <thread>
#include <vector>

using namespace portable;

using Call = std::function<void()>;
Q_DECLARE_METATYPE(Call)

namespace {

QString serial()
{
    char* s = sGetSerialNum();
    const QString r = s ? QString::fromUtf8(s) : QStringLiteral("<null>");
    std::free(s);
    return r;
}

QString version()
{
    char buffer[256] = {};
    doccameraVeriosn(buffer, sizeof buffer);
    return QString::fromUtf8(buffer);
}

// A stand-in entry point with output parameters, the way camera functions use them.
int fakeWithOuts(int* a, int* b)
{
    OutNumber<int> outA(a);
    OutNumber<int> outB(b);
    return traced<int>("fakeWithOuts", {outA, 7, outB}, [&] {
        *a = 1;
        *b = 2;
        return 3;
    });
}

}  // namespace

class TestDeviceLib : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_defaultSerial;
    QString m_defaultVersion;

    QString tracePath() const { return m_dir.filePath(QStringLiteral("trace.jsonl")); }
    QList<QByteArray> traceLines() const
    {
        QList<QByteArray> lines = readFile(tracePath()).split('\n');
        lines.removeAll(QByteArray());
        return lines;
    }
    void startTrace()
    {
        QFile::remove(tracePath());
        setTraceFile(tracePath());
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        loadProfileText(QByteArray());
        m_defaultSerial = serial();
        m_defaultVersion = version();
        QVERIFY(!m_defaultSerial.isEmpty());
        QVERIFY(!m_defaultVersion.isEmpty());
    }
    void init() { loadProfileText(QByteArray()); }
    void cleanup() { setTraceFile(QString()); }

    void profileOverlaysDefaults()
    {
        LogCapture log(QStringLiteral("devicelib: "));
        loadProfileText("{\"library\": {\"serial\": \"SN-77\"}, \"socialSecurityModule\": false}");
        QCOMPARE(serial(), QStringLiteral("SN-77"));
        QCOMPARE(version(), m_defaultVersion);   // the sibling key keeps its default
        QCOMPARE(GetDeviceStatus_dc(), false);
        QVERIFY2(log.lines().isEmpty(), qPrintable(log.lines().join('\n')));
        loadProfileText(QByteArray());
        QCOMPARE(serial(), m_defaultSerial);
        QCOMPARE(GetDeviceStatus_dc(), true);
    }

    void exampleProfileLoadsCleanly()
    {
        const QString path = QFINDTESTDATA("../device-profile.example.json");
        QFile f(path);
        QVERIFY2(f.open(QIODevice::ReadOnly), qPrintable(path));
        const QByteArray text = f.readAll();
        LogCapture log(QStringLiteral("devicelib: "));
        loadProfileText(text, path);
        const QJsonObject example = QJsonDocument::fromJson(text).object();
        QCOMPARE(serial(), example.value("library").toObject().value("serial").toString());
        QCOMPARE(GetDeviceStatus_dc(), example.value("socialSecurityModule").toBool());
        QVERIFY2(log.lines().isEmpty(), qPrintable(log.lines().join('\n')));
    }

    void brokenProfile_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QStringList>("mustName");   // what the one log line names
        QTest::addColumn<QString>("expectedSerial");  // empty: the default
        QTest::addColumn<bool>("socialSecurity");

        QTest::newRow("parse error") << QByteArray("{\"library\": {\"serial\": \"SN-1\",}")
                                     << QStringList{"broken.json", "position"} << QString() << true;
        QTest::newRow("not an object") << QByteArray("[1,2]") << QStringList{"broken.json"} << QString() << true;
        QTest::newRow("wrong type at top") << QByteArray("{\"socialSecurityModule\": \"no\", \"library\": {\"serial\": \"SN-2\"}}")
                                           << QStringList{"broken.json", "\"socialSecurityModule\""} << "SN-2" << true;
        QTest::newRow("wrong type nested") << QByteArray("{\"library\": {\"serial\": 12}, \"socialSecurityModule\": false}")
                                           << QStringList{"broken.json", "\"library.serial\""} << QString() << false;
        QTest::newRow("object where text") << QByteArray("{\"library\": \"v2\"}")
                                           << QStringList{"broken.json", "\"library\""} << QString() << true;
    }

    void brokenProfile()
    {
        QFETCH(QByteArray, json);
        QFETCH(QStringList, mustName);
        QFETCH(QString, expectedSerial);
        QFETCH(bool, socialSecurity);
        // A parse error names where the parser stopped.
        QJsonParseError err{};
        QJsonDocument::fromJson(json, &err);
        if (err.error != QJsonParseError::NoError)
            mustName << QStringLiteral("position %1").arg(err.offset);
        LogCapture log(QStringLiteral("devicelib: "));
        loadProfileText(json, QStringLiteral("broken.json"));
        QCOMPARE(serial(), expectedSerial.isEmpty() ? m_defaultSerial : expectedSerial);
        QCOMPARE(GetDeviceStatus_dc(), socialSecurity);
        QCOMPARE(version(), m_defaultVersion);
        QCOMPARE(log.lines().size(), 1);
        for (const QString& part : mustName)
            QVERIFY2(log.lines().first().contains(part), qPrintable(log.lines().first()));
    }

    void scriptIsConsumedThenRealBehaviourResumes()
    {
        const QByteArray existing = QFile::encodeName(m_dir.path());
        setScript(QStringLiteral("bDirIsExist"), QJsonArray{false, QStringLiteral("run"), false});
        QCOMPARE(bDirIsExist(existing.constData()), false);
        QCOMPARE(bDirIsExist(existing.constData()), true);    // "run": the real answer
        QCOMPARE(bDirIsExist(existing.constData()), false);
        QCOMPARE(bDirIsExist(existing.constData()), true);    // list used up
        QCOMPARE(bDirIsExist(existing.constData()), true);
    }

    void scriptFromTheProfile()
    {
        loadProfileText("{\"script\": {\"sGetSerialNum\": [\"A\", null, \"run\", \"B\"]}}");
        QCOMPARE(serial(), QStringLiteral("A"));
        QCOMPARE(serial(), QStringLiteral("<null>"));
        QCOMPARE(serial(), m_defaultSerial);
        QCOMPARE(serial(), QStringLiteral("B"));
        QCOMPARE(serial(), m_defaultSerial);
        // A new profile forgets what was left of the old script.
        loadProfileText("{\"script\": {\"sGetSerialNum\": [\"A\", \"A\"]}}");
        QCOMPARE(serial(), QStringLiteral("A"));
        loadProfileText(QByteArray());
        QCOMPARE(serial(), m_defaultSerial);
    }

    void scriptFillsOutputs()
    {
        startTrace();
        setScript(QStringLiteral("fakeWithOuts"), QJsonArray{QJsonObject{{"ret", 42}, {"out", QJsonArray{10, 20}}}});
        int a = 0;
        int b = 0;
        QCOMPARE(fakeWithOuts(&a, &b), 42);
        QCOMPARE(a, 10);
        QCOMPARE(b, 20);
        QCOMPARE(fakeWithOuts(&a, &b), 3);
        QCOMPARE(a, 1);
        QCOMPARE(b, 2);
        const QList<QByteArray> lines = traceLines();
        QCOMPARE(lines.size(), 2);
        QCOMPARE(lines[0], QByteArray("{\"fn\":\"fakeWithOuts\",\"args\":[\"<out>\",7,\"<out>\"],\"out\":[10,null,20],\"ret\":42}"));
        QCOMPARE(lines[1], QByteArray("{\"fn\":\"fakeWithOuts\",\"args\":[\"<out>\",7,\"<out>\"],\"out\":[1,null,2],\"ret\":3}"));

        // A void function with a text buffer: {"out": [...]} writes it, null writes nothing.
        setScript(QStringLiteral("doccameraVeriosn"), QJsonArray{QJsonObject{{"out", QJsonArray{"scripted 1.0"}}}, QJsonValue()});
        QCOMPARE(version(), QStringLiteral("scripted 1.0"));
        QCOMPARE(version(), QString());
        QCOMPARE(version(), m_defaultVersion);

        // Numbers beyond an int are cut to its range, never converted as they stand.
        setScript(QStringLiteral("fakeWithOuts"), QJsonArray{QJsonObject{{"ret", 1e300}, {"out", QJsonArray{-1e300, 2147483648.0}}}});
        QCOMPARE(fakeWithOuts(&a, &b), std::numeric_limits<int>::max());
        QCOMPARE(a, std::numeric_limits<int>::min());
        QCOMPARE(b, std::numeric_limits<int>::max());
    }

    void wrongScriptEntry_data()
    {
        QTest::addColumn<QString>("fn");
        QTest::addColumn<QJsonValue>("entry");
        QTest::newRow("text for a bool") << "GetDeviceStatus_dc" << QJsonValue("yes");
        QTest::newRow("number for a text") << "sGetSerialNum" << QJsonValue(5);
        QTest::newRow("bool for a void") << "doccameraVeriosn" << QJsonValue(true);
        QTest::newRow("outs of the wrong shape") << "doccameraVeriosn" << QJsonValue(QJsonObject{{"out", QJsonArray{1}}});
        QTest::newRow("ret missing") << "GetDeviceStatus_dc" << QJsonValue(QJsonObject{{"out", QJsonArray{}}});
    }

    void wrongScriptEntry()
    {
        QFETCH(QString, fn);
        QFETCH(QJsonValue, entry);
        loadProfileText("{\"socialSecurityModule\": false}", QStringLiteral("counter.json"));
        LogCapture log(QStringLiteral("devicelib: "));
        setScript(fn, QJsonArray{entry});
        // The real call runs, so each function answers from the profile.
        if (fn == QLatin1String("GetDeviceStatus_dc"))
            QCOMPARE(GetDeviceStatus_dc(), false);
        else if (fn == QLatin1String("sGetSerialNum"))
            QCOMPARE(serial(), m_defaultSerial);
        else
            QCOMPARE(version(), m_defaultVersion);
        QCOMPARE(log.lines().size(), 1);
        QVERIFY2(log.lines().first().contains(QStringLiteral("\"script.%1\"").arg(fn)), qPrintable(log.lines().first()));
        QVERIFY2(log.lines().first().contains(QLatin1String("counter.json")), qPrintable(log.lines().first()));
    }

    void traceLineFormat_data()
    {
        QTest::addColumn<Call>("call");
        QTest::addColumn<QByteArray>("line");
        const auto serial = [](const QJsonValue& v) {
            return Call([v] {
                setScript(QStringLiteral("sGetSerialNum"), QJsonArray{v});
                std::free(sGetSerialNum());
            });
        };
        QTest::newRow("plain string") << Call([] { bFileIsExist("/no/such/file.jpg"); })
                                      << QByteArray("{\"fn\":\"bFileIsExist\",\"args\":[\"/no/such/file.jpg\"],\"ret\":false}");
        QTest::newRow("utf-8 kept") << Call([] { bFileIsExist("/no/\xe8\xaf\x81\xe4\xbb\xb6.jpg"); })
                                    << QByteArray("{\"fn\":\"bFileIsExist\",\"args\":[\"/no/\xe8\xaf\x81\xe4\xbb\xb6.jpg\"],\"ret\":false}");
        QTest::newRow("invalid utf-8 escaped") << Call([] { bFileIsExist("/no/\xff\xc3.jpg"); })
                                               << QByteArray("{\"fn\":\"bFileIsExist\",\"args\":[\"/no/\\\\xff\\\\xc3.jpg\"],\"ret\":false}");
        QTest::newRow("quotes and controls") << Call([] { bFileIsExist("a\"b\\c\nd\x01"); })
                                             << QByteArray("{\"fn\":\"bFileIsExist\",\"args\":[\"a\\\"b\\\\c\\nd\\u0001\"],\"ret\":false}");
        QTest::newRow("null pointer") << Call([] { bFileIsExist(nullptr); })
                                      << QByteArray("{\"fn\":\"bFileIsExist\",\"args\":[null],\"ret\":false}");
        QTest::newRow("64-bit exact")
            << Call([] { traced<long long>("fakeBig", {9007199254740993LL, -9223372036854775807LL}, [] { return 9007199254740993LL; }); })
            << QByteArray("{\"fn\":\"fakeBig\",\"args\":[9007199254740993,-9223372036854775807],\"ret\":9007199254740993}");
        QTest::newRow("void, booleans, fn") << Call([] {
            static int target = 0;
            traced<void>("fakeVoid", {true, false, FnArg{&target}, FnArg{nullptr}}, [] {});
        }) << QByteArray("{\"fn\":\"fakeVoid\",\"args\":[true,false,\"<fn>\",null]}");
        QTest::newRow("text result") << serial("S\"1") << QByteArray("{\"fn\":\"sGetSerialNum\",\"args\":[],\"ret\":\"S\\\"1\"}");
        QTest::newRow("null text result") << serial(QJsonValue()) << QByteArray("{\"fn\":\"sGetSerialNum\",\"args\":[],\"ret\":null}");
    }

    void traceLineFormat()
    {
        QFETCH(Call, call);
        QFETCH(QByteArray, line);
        startTrace();
        call();
        const QList<QByteArray> lines = traceLines();
        QCOMPARE(lines.size(), 1);
        QCOMPARE(lines.first(), line);
        QJsonParseError err{};
        QJsonDocument::fromJson(lines.first(), &err);
        QCOMPARE(err.error, QJsonParseError::NoError);
    }

    void traceLeavesOutFrameFetches()
    {
        if (qEnvironmentVariable("DEVICE_TRACE_FRAMES") == QLatin1String("1"))
            QSKIP("frame fetches are traced in this environment");
        startTrace();
        traced<bool>("getVideoFrameMat", {}, [] { return true; });
        traced<bool>("bStopPlay", {}, [] { return true; });
        const QList<QByteArray> lines = traceLines();
        QCOMPARE(lines.size(), 1);
        QVERIFY(lines.first().startsWith("{\"fn\":\"bStopPlay\""));
    }

    void traceNoFileNoLines()
    {
        startTrace();
        setTraceFile(QString());
        bFileIsExist("/x");
        QVERIFY(traceLines().isEmpty());
    }

    void concurrentCallsGiveWholeLines()
    {
        startTrace();
        const int threads = 8;
        const int calls = 300;
        const std::string padding(300, 'p');   // long lines are where interleaving would show
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back([t, &padding] {
                for (int i = 0; i < calls; ++i)
                    traced<int>("fakeThreaded", {t, i, padding.c_str()}, [i] { return i; });
            });
        }
        for (std::thread& w : workers)
            w.join();
        const QList<QByteArray> lines = traceLines();
        QCOMPARE(lines.size(), threads * calls);
        QSet<QPair<int, int>> seen;
        for (const QByteArray& line : lines) {
            QJsonParseError err{};
            const QJsonObject o = QJsonDocument::fromJson(line, &err).object();
            QCOMPARE(err.error, QJsonParseError::NoError);
            const QJsonArray args = o.value("args").toArray();
            QCOMPARE(args.size(), 3);
            QCOMPARE(o.value("ret").toInt(), args[1].toInt());
            seen.insert({args[0].toInt(), args[1].toInt()});
        }
        QCOMPARE(seen.size(), threads * calls);
    }
};

QTEST_GUILESS_MAIN(TestDeviceLib)
#include "tst_devicelib.moc"
