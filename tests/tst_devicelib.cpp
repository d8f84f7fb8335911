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
#include <functional>
#include <thread>
#include <vector>

using namespace portable;

using Call = std::function<QStringList()>;
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
// A stand-in entry point with output parameters, the way camera functions use them; a second
// trace line shows what the caller got.
QStringList fakeWithOuts()
{
    int a = 0, b = 0;
    OutNumber<int> outA(&a), outB(&b);
    const int r = traced<int>("fakeWithOuts", {outA, 7, outB}, [&] { a = 1, b = 2; return 3; });
    traced<void>("got", {a, b, r}, [] {});
    return {};
}
QString flag(bool b) { return b ? QStringLiteral("true") : QStringLiteral("false"); }
// What the library answers: the serial, the social-security module, the version.
QStringList answers() { return {serial(), flag(GetDeviceStatus_dc()), version()}; }

Call afterProfile(const QByteArray& json, const QString& source) { return [=] { loadProfileText(json, source); return answers(); }; }

}  // namespace

class TestDeviceLib : public QObject {
    Q_OBJECT
    QTemporaryDir m_dir;
    QString tracePath() const { return m_dir.filePath(QStringLiteral("trace.jsonl")); }
    QByteArrayList traceLines() const
    {
        QByteArrayList lines = readFile(tracePath()).split('\n');
        lines.removeAll(QByteArray());
        return lines;
    }

private slots:
    void initTestCase() { qunsetenv("DEVICE_TRACE_FRAMES"); QVERIFY(m_dir.isValid()); }
    // Each row traces to a fresh file.
    void init()
    {
        loadProfileText(QByteArray());
        QFile::remove(tracePath());
        setTraceFile(tracePath());
    }
    void cleanup() { setTraceFile(QString()); }
    // A profile is laid over the defaults key by key; a broken one is logged once (naming the
    // file and the key) and keeps the defaults for what is broken. Scripted results are used one
    // per call; "run" and a used-up list mean the real work; a wrong entry is logged and runs it.
    void profileAndScripts_data()
    {
        QTest::addColumn<Call>("call");
        QTest::addColumn<QStringList>("results");   // %S: the default serial, %V: the default version
        QTest::addColumn<QStringList>("log");       // what the one log line names; empty: no line

        const QString example = QStringLiteral(RVO_SOURCE_DIR "/device-profile.example.json");
        const QByteArray text = readFile(example);
        QVERIFY2(!text.isEmpty(), qPrintable(example));
        const QJsonObject o = QJsonDocument::fromJson(text).object();
        QTest::newRow("example loads cleanly") << afterProfile(text, example)
            << QStringList{o["library"].toObject()["serial"].toString(), flag(o["socialSecurityModule"].toBool()), "%V"} << QStringList();
        QTest::newRow("overlay") << afterProfile(R"({"library": {"serial": "SN-77"}, "socialSecurityModule": false})", "a.json")
                                 << QStringList{"SN-77", "false", "%V"} << QStringList();
        const QByteArray unparsable(R"({"library": {"serial": "SN-1",})");
        QJsonParseError err{};
        QJsonDocument::fromJson(unparsable, &err);   // the line names where the parser stopped
        QTest::newRow("parse error") << afterProfile(unparsable, "broken.json") << QStringList{"%S", "true", "%V"}
                                     << QStringList{"broken.json", QStringLiteral("position %1").arg(err.offset)};
        QTest::newRow("not an object") << afterProfile("[1,2]", "broken.json") << QStringList{"%S", "true", "%V"} << QStringList{"broken.json"};
        QTest::newRow("wrong type at top") << afterProfile(R"({"socialSecurityModule": "no", "library": {"serial": "SN-2"}})", "broken.json")
                                           << QStringList{"SN-2", "true", "%V"} << QStringList{"broken.json", "\"socialSecurityModule\""};
        QTest::newRow("wrong type nested") << afterProfile(R"({"library": {"serial": 12}, "socialSecurityModule": false})", "broken.json")
                                           << QStringList{"%S", "false", "%V"} << QStringList{"broken.json", "\"library.serial\""};
        QTest::newRow("object where text") << afterProfile(R"({"library": "v2"})", "broken.json") << QStringList{"%S", "true", "%V"}
                                           << QStringList{"broken.json", "\"library\""};
        QTest::newRow("script consumed, then real") << Call([] {
            setScript("bDirIsExist", QJsonArray{false, "run", false});
            return QStringList{flag(bDirIsExist("/")), flag(bDirIsExist("/")), flag(bDirIsExist("/")), flag(bDirIsExist("/"))};
        }) << QStringList{"false", "true", "false", "true"} << QStringList();
        QTest::newRow("script from the profile") << Call([] {
            loadProfileText(R"({"script": {"sGetSerialNum": ["A", null, "run", "B"]}})");
            return QStringList{serial(), serial(), serial(), serial(), serial()};
        }) << QStringList{"A", "<null>", "%S", "B", "%S"} << QStringList();
        QTest::newRow("a new profile forgets the old script") << Call([] {
            loadProfileText(R"({"script": {"sGetSerialNum": ["A", "A"]}})");
            const QString first = serial();
            loadProfileText(QByteArray());
            return QStringList{first, serial()};
        }) << QStringList{"A", "%S"} << QStringList();
        QTest::newRow("outputs of a void function") << Call([] {
            setScript("doccameraVeriosn", QJsonArray{QJsonObject{{"out", QJsonArray{"scripted 1.0"}}}, QJsonValue()});
            return QStringList{version(), version(), version()};
        }) << QStringList{"scripted 1.0", "", "%V"} << QStringList();
        // A wrong script entry, with a profile from "counter.json": logged, and the real work runs.
        const auto wrong = [](const char* name, const QString& fn, const QJsonValue& entry) {
            QTest::newRow(name) << Call([=] { loadProfileText(R"({"socialSecurityModule": false})", "counter.json"); setScript(fn, QJsonArray{entry}); return answers(); })
                                << QStringList{"%S", "false", "%V"} << QStringList{"counter.json", "\"script." + fn + "\""};
        };
        wrong("text for a bool", "GetDeviceStatus_dc", "yes");
        wrong("number for a text", "sGetSerialNum", 5);
        wrong("bool for a void", "doccameraVeriosn", true);
        wrong("outs of the wrong shape", "doccameraVeriosn", QJsonObject{{"out", QJsonArray{1}}});
        wrong("ret missing", "GetDeviceStatus_dc", QJsonObject{{"out", QJsonArray{}}});
    }
    void profileAndScripts()
    {
        QFETCH(Call, call);
        QFETCH(QStringList, results);
        QFETCH(QStringList, log);
        const QString defaultSerial = serial(), defaultVersion = version();   // before any row's profile
        QVERIFY(!defaultSerial.isEmpty() && !defaultVersion.isEmpty());
        results.replaceInStrings("%S", defaultSerial).replaceInStrings("%V", defaultVersion);
        LogCapture lines(QStringLiteral("devicelib: "));
        QCOMPARE(call(), results);
        QCOMPARE(lines.lines().size(), log.isEmpty() ? 0 : 1);
        for (const QString& part : log)
            QVERIFY2(lines.lines().first().contains(part), qPrintable(lines.lines().first()));
    }

    void traceFormat_data()
    {
        QTest::addColumn<Call>("call");
        QTest::addColumn<QByteArrayList>("lines");
        const auto one = [](std::function<void()> f) { return Call([f] { f(); return QStringList(); }); };
        const auto serialAs = [&](const QJsonValue& v) { return one([v] { setScript("sGetSerialNum", QJsonArray{v}); std::free(sGetSerialNum()); }); };
        QTest::newRow("plain string") << one([] { bFileIsExist("/no/such/file.jpg"); }) << QByteArrayList{R"({"fn":"bFileIsExist","args":["/no/such/file.jpg"],"ret":false})"};
        QTest::newRow("utf-8 kept") << one([] { bFileIsExist("/no/\xe8\xaf\x81\xe4\xbb\xb6.jpg"); }) << QByteArrayList{"{\"fn\":\"bFileIsExist\",\"args\":[\"/no/\xe8\xaf\x81\xe4\xbb\xb6.jpg\"],\"ret\":false}"};
        QTest::newRow("invalid utf-8 escaped") << one([] { bFileIsExist("/no/\xff\xc3.jpg"); })
                                               << QByteArrayList{"{\"fn\":\"bFileIsExist\",\"args\":[\"/no/\\\\xff\\\\xc3.jpg\"],\"ret\":false}"};
        QTest::newRow("quotes and controls") << one([] { bFileIsExist("a\"b\\c\nd\x01"); })
                                             << QByteArrayList{"{\"fn\":\"bFileIsExist\",\"args\":[\"a\\\"b\\\\c\\nd\\u0001\"],\"ret\":false}"};
        QTest::newRow("null pointer") << one([] { bFileIsExist(nullptr); }) << QByteArrayList{R"({"fn":"bFileIsExist","args":[null],"ret":false})"};
        QTest::newRow("64-bit exact") << one([] { traced<long long>("fakeBig", {9007199254740993LL, -9223372036854775807LL}, [] { return 9007199254740993LL; }); })
            << QByteArrayList{R"({"fn":"fakeBig","args":[9007199254740993,-9223372036854775807],"ret":9007199254740993})"};
        static int target = 0;
        QTest::newRow("void, booleans, fn") << one([] { traced<void>("fakeVoid", {true, false, FnArg{&target}, FnArg{nullptr}}, [] {}); }) << QByteArrayList{R"({"fn":"fakeVoid","args":[true,false,"<fn>",null]})"};
        QTest::newRow("text result") << serialAs("S\"1") << QByteArrayList{"{\"fn\":\"sGetSerialNum\",\"args\":[],\"ret\":\"S\\\"1\"}"};
        QTest::newRow("null text result") << serialAs(QJsonValue()) << QByteArrayList{R"({"fn":"sGetSerialNum","args":[],"ret":null})"};
        QTest::newRow("outputs, scripted then real") << Call([] {
            setScript("fakeWithOuts", QJsonArray{QJsonObject{{"ret", 42}, {"out", QJsonArray{10, 20}}}});
            return fakeWithOuts() + fakeWithOuts();
        }) << QByteArrayList{R"({"fn":"fakeWithOuts","args":["<out>",7,"<out>"],"out":[10,null,20],"ret":42})",
                             R"({"fn":"got","args":[10,20,42]})",
                             R"({"fn":"fakeWithOuts","args":["<out>",7,"<out>"],"out":[1,null,2],"ret":3})",
                             R"({"fn":"got","args":[1,2,3]})"};
        QTest::newRow("numbers beyond an int cut to its range") << Call([] {
            setScript("fakeWithOuts", QJsonArray{QJsonObject{{"ret", 1e300}, {"out", QJsonArray{-1e300, 2147483648.0}}}});
            return fakeWithOuts();
        }) << QByteArrayList{R"({"fn":"fakeWithOuts","args":["<out>",7,"<out>"],"out":[-2147483648,null,2147483647],"ret":2147483647})",
                             R"({"fn":"got","args":[-2147483648,2147483647,2147483647]})"};
        QTest::newRow("frame fetches left out") << one([] { traced<bool>("getVideoFrameMat", {}, [] { return true; }); traced<bool>("bStopPlay", {}, [] { return true; }); }) << QByteArrayList{R"({"fn":"bStopPlay","args":[],"ret":true})"};
        QTest::newRow("no file, no lines") << one([] { setTraceFile(QString()); bFileIsExist("/x"); }) << QByteArrayList();
    }
    void traceFormat()
    {
        QFETCH(Call, call);
        QFETCH(QByteArrayList, lines);
        call();
        QCOMPARE(traceLines(), lines);
        for (const QByteArray& line : lines)
            QVERIFY2(QJsonDocument::fromJson(line).isObject(), line.constData());
    }

    void concurrentCallsGiveWholeLines()
    {
        const int threads = 8, calls = 300;
        const std::string padding(300, 'p');   // long lines are where interleaving would show
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t)
            workers.emplace_back([t, &padding] {
                for (int i = 0; i < calls; ++i)
                    traced<int>("fakeThreaded", {t, i, padding.c_str()}, [i] { return i; });
            });
        for (std::thread& w : workers)
            w.join();
        const QByteArrayList lines = traceLines();
        QCOMPARE(lines.size(), threads * calls);
        QSet<QPair<int, int>> seen;
        for (const QByteArray& line : lines) {
            const QJsonObject o = QJsonDocument::fromJson(line).object();
            const QJsonArray args = o.value("args").toArray();
            QVERIFY2(args.size() == 3 && o.value("ret").toInt() == args[1].toInt(), line.constData());
            seen.insert({args[0].toInt(), args[1].toInt()});
        }
        QCOMPARE(seen.size(), threads * calls);
    }
};

QTEST_GUILESS_MAIN(TestDeviceLib)
#include "tst_devicelib.moc"
