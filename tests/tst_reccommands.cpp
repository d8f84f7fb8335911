// Recording, printing, watermark and barcode commands through the dispatcher to a connected
// page: the reply byte for byte and the library calls behind it; and the late answer of a stop.
#include "camera/stoprecthread.h"
#include "devicelib/portable/core.h"
#include "dispatch/messagerun.h"
#include "files/pathpolicy.h"
#include "fixture.h"

#include <QDir>
#include <QJsonDocument>
#include <QTest>

#include <utility>

class StopRecThreadTestAccess {
public:
    static void setIntervals(int pollMs, int settleMs) { StopRecThread::s_pollMs = pollMs, StopRecThread::s_settleMs = settleMs; }
};

namespace {

// The calls of a trace as "fn(arg,...)", arguments in their JSON form.
QStringList callTexts(const Trace& trace)
{
    QStringList r;
    for (const QJsonObject& c : trace.calls()) {
        const QByteArray args = QJsonDocument(c.value("args").toArray()).toJson(QJsonDocument::Compact);
        r << c.value("fn").toString() + "(" + QString::fromUtf8(args.mid(1, args.size() - 2)) + ")";
    }
    return r;
}

// A row: the command, the library's scripted answers, the page's reply (empty: none) and the calls.
void row(const QString& command, const QByteArray& script, const QString& reply, const QStringList& calls)
{
    QTest::newRow(qPrintable(command + (script.isEmpty() ? QString() : " " + QString::fromUtf8(script))))
        << command << script << reply << calls;
}

QString framed(const QString& command, const QString& result) { return "Begin" + command.section('(', 0, 0) + result + "End" + command.section('(', 0, 0); }

}  // namespace

class TestRecCommands : public QObject {
    Q_OBJECT

private:
    MessageRun m_run;
    PagePair m_page;
    QStringList m_late;

    // Sends a command as the transport would (none for a null text); what the page got for it is
    // in once a marker queued after it is.
    QStringList post(const QString& text)
    {
        if (!text.isNull())
            m_run.recv_msg(text, m_page.serverSide());
        QMetaObject::invokeMethod(&m_run, [] { MessageRun::send_msg("settled"); }, Qt::QueuedConnection);
        bool settled = false;
        waitFor([&] { return settled = settled || m_page.got.removeOne("settled"); });
        return std::exchange(m_page.got, {});
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_page.isConnected());
        connect(StopRecThread::instance(), &StopRecThread::sig_msg, this, [this](const QByteArray& m) { m_late << QString::fromLocal8Bit(m); });
    }

    void init()
    {
        portable::loadProfileText(QByteArray());
        StopRecThread::instance()->wait();
        StopRecThreadTestAccess::setIntervals(1, 1);
        m_page.makeCurrent();
        m_late.clear();
    }

    void replies_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<QString>("reply");
        QTest::addColumn<QStringList>("calls");
        // Recording: paths whole, commas and all; the size only with two numbers.
        row("bStartRec(/srv/rec/a,b.mp4)", R"({"bStartRec":[true]})", "true", {R"(bStartRec("/srv/rec/a,b.mp4"))"});
        row("bStartRecMp3(/srv/x,y,z.mkv)", R"({"bStartRecMp3":[false]})", "false", {R"(bStartRecMp3("/srv/x,y,z.mkv"))"});
        row("bStartRec()", R"({"bStartRec":[false]})", "false", {R"(bStartRec(""))"});
        row("bPauseRec(9)", R"({"bPauseRec":[true]})", "true", {"bPauseRec()"});
        row("bResumeRec()", R"({"bResumeRec":[false]})", "false", {"bResumeRec()"});
        row("isRecording()", R"({"isRecording":[true]})", "true", {"isRecording()"});
        row("bStopRec()", R"({"bStopRec":[false]})", "false", {"bStopRec()"});
        row("vSetRecSize(1280)", "", "", {});
        row("vSetRecSize(640,480)", "", "", {"vSetRecSize(640,480)"});
        row("vSetRecSize(a,-2,9)", "", "", {"vSetRecSize(0,-2)"});
        row("vSetRecSize(,)", "", "", {"vSetRecSize(0,0)"});
        // Printing.
        row("bPrint()", R"({"bPrint":[true]})", "true", {"bPrint(0)"});
        row("bPrint(3,x)", R"({"bPrint":[false]})", "false", {"bPrint(3)"});
        row("bPrintImage(1,/a.jpg)", "", "false", {});
        row("bPrintImage(2,/a,b.jpg,1)", R"({"bPrintImage":[true]})", "true", {R"(bPrintImage(2,"/a",0))"});
        row("bPrintImage(x,/a.jpg,1)", R"({"bPrintImage":[true]})", "true", {R"(bPrintImage(0,"/a.jpg",1))"});
        row("bPrintImageFile(/a.jpg)", R"({"bPrintImageFile":[true]})", "true", {R"(bPrintImageFile("/a.jpg",0))"});
        row("bPrintImageFile(/a.jpg,4)", R"({"bPrintImageFile":[false]})", "false", {R"(bPrintImageFile("/a.jpg",4))"});
        // Watermark: setters answer true whether or not the library was called.
        row("vSetWaterPrint(1,For counter use only,30)", "", "true", {R"(vSetWaterPrint(1,"For counter use only",30))"});
        row("vSetWaterPrint(1,ab)", "", "true", {});
        row("vSetWaitePrintFont(Noto Sans,x)", "", "true", {R"(vSetWaterPrintFont("Noto Sans"))"});
        row("vSetWaterPrintFontSize(48)", "", "true", {"vSetWaterPrintFontSize(48)"});
        row("vSetWaterPrintFontSize(99999)", "", "true", {"vSetWaterPrintFontSize(0)"});
        for (const auto& [colour, value] : std::initializer_list<std::pair<const char*, const char*>>{{"0xFF0000", "16711680"},
                 {"FF0000", "16711680"}, {"16711680", "16711680"}, {"255", "255"}, {"0XFF", "255"}, {"0xff", "255"}, {"red", "0"},
                 {"0x100000000", "4294967296"}, {"1234567890123456789012345678901234567890", "0"}, {"", "0"}, {"-5", "-5"}})
            row(QStringLiteral("vSetWaterPrintFontColor(%1)").arg(colour), "", "true", {QStringLiteral("vSetWaterPrintFontColor(%1)").arg(value)});
        row("vSetWaterPrintPos(10)", "", "true", {"vSetWaterPrintPos(10,0)"});
        row("vSetWaterPrintPos(10,20,30)", "", "true", {"vSetWaterPrintPos(10,20)"});
        // Barcodes: the texts come back whole; the online one byte for byte as Latin-1.
        row("sGetBarCode(/a.jpg)", R"({"sGetBarCode":["RVO-1"]})", "RVO-1", {R"(sGetBarCode("/a.jpg"))"});
        row("sGetBarCode(/a.jpg,x)", R"({"sGetBarCode":[null]})", "", {R"(sGetBarCode("/a.jpg"))"});
        row("sGetBarCodeEx(/a.jpg)", "", "", {});
        row("sGetBarCodeEx(2,/a.jpg)", R"({"sGetBarCodeEx":["a|b"]})", "a|b", {R"(sGetBarCodeEx(2,"/a.jpg"))"});
        row("sGetBarCodeOnline(x)", R"({"sGetBarCodeOnline":["caf\u00e9"]})", QString::fromUtf8("cafÃ©"), {"sGetBarCodeOnline()"});
        row("sGetBarCodeOnline()", R"({"sGetBarCodeOnline":[null]})", "", {"sGetBarCodeOnline()"});
        row("sOCRToString(/a.jpg)", "", "false", {});
    }
    void replies()
    {
        QFETCH(QString, command); QFETCH(QByteArray, script); QFETCH(QString, reply); QFETCH(QStringList, calls);
        applyScript(script.isEmpty() ? "{}" : script);
        Trace trace;
        QCOMPARE(post(command), QStringList{framed(command, reply)});
        QCOMPARE(callTexts(trace), calls);
    }

    // Files outside the file roots are neither recorded to, printed nor read.
    void outsideRoots()
    {
        pathpolicy::setRoots({QDir::tempPath() + "/rvo-rec-root"});
        Trace trace;
        for (const auto& [command, result] : std::initializer_list<std::pair<const char*, const char*>>{{"bStartRec(/etc/a,b.mkv)", "false"},
                 {"bStartRecMp3(/etc/a.mp3)", "false"}, {"bPrintImage(1,/etc/a.jpg,1)", "false"}, {"bPrintImageFile(/etc/a.jpg,2)", "false"},
                 {"sGetBarCode(/etc/a.jpg)", ""}, {"sGetBarCodeEx(1,/etc/a.jpg)", ""}})
            QCOMPARE(post(command), QStringList{framed(command, result)});
        pathpolicy::setRoots({});
        QCOMPARE(trace.functions(), QStringList());
    }

    // An accepted stop answers nothing at once; the thread answers once the library is done.
    void lateAnswer_data()
    {
        QTest::addColumn<int>("stops");
        QTest::addColumn<QJsonArray>("recording");   // what isRecording answers, call by call
        QTest::addColumn<QString>("late");
        QTest::addColumn<int>("polls");              // the thread's log lines, one per poll
        const QString yes = "BeginbStopRectrueEndbStopRec", no = "BeginbStopRecfalseEndbStopRec";
        QTest::newRow("ends after two polls") << 1 << QJsonArray{true, true, false, false} << yes << 2;
        QTest::newRow("nothing was recording") << 1 << QJsonArray{false, false} << yes << 0;
        QTest::newRow("back on after the pause") << 1 << QJsonArray{false, true} << no << 0;
        QTest::newRow("never ends: 180 polls") << 1 << QJsonArray::fromVariantList(QVector<QVariant>(182, true).toList()) << no << 180;
        QTest::newRow("a second stop joins the first") << 2 << QJsonArray{true, true, true, false, false} << yes << 3;
    }
    void lateAnswer()
    {
        QFETCH(int, stops); QFETCH(QJsonArray, recording); QFETCH(QString, late); QFETCH(int, polls);
        StopRecThreadTestAccess::setIntervals(stops > 1 ? 200 : 1, 1);
        portable::setScript("isRecording", recording);
        Trace trace;
        LogCapture log;
        for (int i = 0; i < stops; ++i) {
            QVERIFY(StopRecThread::instance()->isRunning() || i == 0);
            QCOMPARE(m_run.callbacks().value("bStopRec")("bStopRec", "", &m_run), QStringLiteral(" "));
            QCOMPARE(post(QString()), QStringList());   // and nothing was sent
        }
        QVERIFY(waitFor([this] { return !m_late.isEmpty() && !StopRecThread::instance()->isRunning(); }));
        QTest::qWait(20);
        QCOMPARE(m_late, QStringList{late});
        QCOMPARE(trace.callsOf("bStopRec").size(), stops);
        QCOMPARE(trace.callsOf("isRecording").size(), recording.size());
        QCOMPARE(log.lines().filter("stoprecthread").size(), polls);   // each shows the true it read
        QCOMPARE(log.lines().filter("stoprecthread isRecording true").size(), polls);
    }
};

QTEST_MAIN(TestRecCommands)
#include "tst_reccommands.moc"
