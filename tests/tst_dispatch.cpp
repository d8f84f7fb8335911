// The dispatcher: how a command text splits into name and arguments, which texts reach a
// callback, where replies go, and the command table itself.
#include "fixture.h"

#include "dispatch/messagerun.h"

#include <QSet>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <memory>

namespace {

// The command table as written, row by row (duplicates kept, so a repeated row shows).
QStringList tableRows()
{
    return {
#define COMMAND(cmd) QStringLiteral(#cmd),
#include "dispatch/commands.def"
#undef COMMAND
    };
}

bool isFramedReplyOf(const QString& reply, const QString& name)
{
    return reply.startsWith(QStringLiteral("Begin") + name) && reply.endsWith(QStringLiteral("End") + name);
}

}  // namespace

class TestDispatch : public QObject {
    Q_OBJECT
private slots:
    void cleanup() { gpWebSocket = nullptr; }

    void parse_data();
    void parse();

    void dispatchReachesCallback_data();
    void dispatchReachesCallback();
    void textsWithoutCommandGetNoReply_data();
    void textsWithoutCommandGetNoReply();

    void replyFollowsTheCurrentClient();
    void replyWithoutCurrentClientIsDropped();
    void replyFromAnotherThreadReachesThePage();

    void tableRowsAreTheRegistry();
    void lookupsAreExact();
    void lookalikeNamesHaveTheirOwnCallbacks_data();
    void lookalikeNamesHaveTheirOwnCallbacks();
};

void TestDispatch::parse_data()
{
    QTest::addColumn<QString>("message");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("args");

    QTest::newRow("empty parentheses") << "bStopPlay()" << "bStopPlay" << "";
    QTest::newRow("no parentheses") << "bStopPlay" << "bStopPlay" << "";
    QTest::newRow("open parenthesis last") << "bStopPlay(" << "bStopPlay" << "";
    QTest::newRow("one argument") << "vSetRotate(90)" << "vSetRotate" << "90";
    QTest::newRow("last character always dropped") << "vSetRotate(90" << "vSetRotate" << "9";
    QTest::newRow("nested parentheses") << "f(a(b))" << "f" << "a(b)";
    QTest::newRow("text after the close") << "f(a)x" << "f" << "a)";
    QTest::newRow("commas kept whole") << "vSetResolutionEx(1,2)" << "vSetResolutionEx" << "1,2";
    QTest::newRow("empty parts kept") << "bCopyFile(,)" << "bCopyFile" << ",";
    QTest::newRow("empty message") << "" << "" << "";
    QTest::newRow("only open") << "(" << "" << "";
    QTest::newRow("only close") << ")" << ")" << "";
    QTest::newRow("only parentheses") << "()" << "" << "";
    QTest::newRow("leading blank kept") << " bStopPlay()" << " bStopPlay" << "";
    QTest::newRow("blank before parenthesis kept") << "bStopPlay ()" << "bStopPlay " << "";
    QTest::newRow("non-ASCII argument") << QString::fromUtf8("bCreateDir(/tmp/扫描)") << "bCreateDir"
                                        << QString::fromUtf8("/tmp/扫描");
}

void TestDispatch::parse()
{
    QFETCH(QString, message);
    QFETCH(QString, name);
    QFETCH(QString, args);
    QString gotName = QStringLiteral("unset");
    QString gotArgs = QStringLiteral("unset");
    MessageRun::parse(message, &gotName, &gotArgs);
    QCOMPARE(gotName, name);
    QCOMPARE(gotArgs, args);
}

void TestDispatch::dispatchReachesCallback_data()
{
    QTest::addColumn<QString>("message");
    QTest::addColumn<QString>("name");

    QTest::newRow("with parentheses") << "getVersion()" << "getVersion";
    QTest::newRow("without parentheses") << "getVersion" << "getVersion";
    QTest::newRow("open parenthesis only") << "getVersion(" << "getVersion";
    QTest::newRow("ignored argument") << "sGetTempPath(x)" << "sGetTempPath";
    QTest::newRow("other command") << "sGetTempPath()" << "sGetTempPath";
}

void TestDispatch::dispatchReachesCallback()
{
    QFETCH(QString, message);
    QFETCH(QString, name);
    MessageRun run;
    PagePair page;
    QVERIFY(page.isConnected());

    const QString reply = runCommand(run, page, message);
    QVERIFY2(isFramedReplyOf(reply, name), qPrintable(reply));
    // One command, one reply.
    QCOMPARE(page.drain(), QStringList());
}

void TestDispatch::textsWithoutCommandGetNoReply_data()
{
    QTest::addColumn<QString>("message");

    QTest::newRow("unknown name") << "noSuchCommand()";
    QTest::newRow("no seventh start variant") << "bStartPlay7()";
    QTest::newRow("empty message") << "";
    QTest::newRow("only open") << "(";
    QTest::newRow("only close") << ")";
    QTest::newRow("only parentheses") << "()";
    QTest::newRow("wrong case") << "getversion()";
    QTest::newRow("capitals") << "GETVERSION()";
    QTest::newRow("leading blank") << " getVersion()";
    QTest::newRow("trailing blank in the name") << "getVersion ()";
    QTest::newRow("name without its last letter") << "getVersio";
}

void TestDispatch::textsWithoutCommandGetNoReply()
{
    QFETCH(QString, message);
    MessageRun run;
    PagePair page;
    QVERIFY(page.isConnected());

    QSignalSpy dispatched(&run, &MessageRun::handle_msg_signal);
    QCOMPARE(runCommand(run, page, message, 200), QString());
    QCOMPARE(dispatched.count(), 1);
    // The page is still served, and nothing late from the bad text comes first.
    QVERIFY(isFramedReplyOf(runCommand(run, page, QStringLiteral("getVersion()")), QStringLiteral("getVersion")));
    QCOMPARE(page.drain(), QStringList());
}

void TestDispatch::replyFollowsTheCurrentClient()
{
    MessageRun run;
    PagePair a;
    PagePair b;
    QVERIFY(a.isConnected() && b.isConnected());

    // A asks; its answer reaches A.
    a.makeCurrent();
    QVERIFY(isFramedReplyOf(runCommand(run, a, QStringLiteral("getVersion()")), QStringLiteral("getVersion")));
    // Then B asks: B is current from now on.
    b.makeCurrent();
    QVERIFY(isFramedReplyOf(runCommand(run, b, QStringLiteral("sGetTempPath()")), QStringLiteral("sGetTempPath")));
    // A late reply to A's command now goes to B.
    MessageRun::send_msg(QStringLiteral("BeginlImageMatch80EndlImageMatch"));
    QCOMPARE(b.next(), QStringLiteral("BeginlImageMatch80EndlImageMatch"));
    QCOMPARE(a.drain(), QStringList());
    QCOMPARE(b.drain(), QStringList());
}

void TestDispatch::replyWithoutCurrentClientIsDropped()
{
    MessageRun run;
    PagePair page;
    QVERIFY(page.isConnected());

    gpWebSocket = nullptr;
    MessageRun::send_msg(QStringLiteral("dropped"));
    MessageRun::send_json_msg(true, QStringLiteral("f"), QStringLiteral("dropped"));
    run.handle_msg_slot(QStringLiteral("getVersion()"), nullptr);
    QCOMPARE(page.drain(), QStringList());

    page.makeCurrent();
    QCOMPARE(runCommand(run, page, QStringLiteral("getVersion()")).left(15), QStringLiteral("BegingetVersion"));
}

void TestDispatch::replyFromAnotherThreadReachesThePage()
{
    MessageRun run;
    PagePair page;
    QVERIFY(page.isConnected());

    std::unique_ptr<QThread> worker(QThread::create([&run] {
        run.sendmsg_thread(QStringLiteral("BeginfingerCaptureRawDatatrueEndfingerCaptureRawData"));
    }));
    worker->start();
    QVERIFY(worker->wait(5000));
    QCOMPARE(page.next(), QStringLiteral("BeginfingerCaptureRawDatatrueEndfingerCaptureRawData"));
}

void TestDispatch::tableRowsAreTheRegistry()
{
    MessageRun run;
    const QStringList rows = tableRows();
    QVERIFY(!rows.isEmpty());

    // A row written twice would silently collapse into one map entry.
    const QSet<QString> unique(rows.begin(), rows.end());
    QCOMPARE(unique.size(), rows.size());

    const auto& callbacks = run.callbacks();
    QCOMPARE(callbacks.size(), rows.size());
    for (const QString& name : rows) {
        QVERIFY2(callbacks.contains(name), qPrintable(name));
        QVERIFY2(callbacks.value(name) != nullptr, qPrintable(name));
    }
}

void TestDispatch::lookupsAreExact()
{
    MessageRun run;
    const auto& callbacks = run.callbacks();
    const QStringList rows = tableRows();
    for (auto it = callbacks.constBegin(); it != callbacks.constEnd(); ++it) {
        const QString& name = it.key();
        const QStringList variants = {name.toUpper(), name.toLower(), QLatin1Char(' ') + name,
                                      name + QLatin1Char(' '), name + QLatin1Char('7'), name.chopped(1)};
        for (const QString& v : variants) {
            // Only a variant that is itself another command may be found.
            if (v == name || rows.contains(v))
                continue;
            QVERIFY2(!callbacks.contains(v), qPrintable(name + QStringLiteral(" found as '") + v + '\''));
        }
    }
}

void TestDispatch::lookalikeNamesHaveTheirOwnCallbacks_data()
{
    QTest::addColumn<QString>("first");
    QTest::addColumn<QString>("second");

    QTest::newRow("jpeg and tiff jpeg") << "bSaveJPG" << "bSaveTifJPG";
    QTest::newRow("print and print image") << "bPrint" << "bPrintImage";
    QTest::newRow("base64 encode and decode") << "Base64Encode" << "Base64Decode";
    QTest::newRow("usb list and card reader") << "sEnumUSBDevice" << "bOpenIDCardReader";
    QTest::newRow("version and getVersion") << "version" << "getVersion";
    QTest::newRow("getVersion and server version") << "getVersion" << "sServerVersion";
    QTest::newRow("card reader and VX") << "sIDCardReader" << "sIDCardReaderVX";
    QTest::newRow("id message and VX") << "readIDMsg" << "readIDMsgVX";
    QTest::newRow("card without PSAM and VX") << "iReadCardBas_noPasam" << "iReadCardBas_noPasamVX";
    QTest::newRow("start play and second variant") << "bStartPlay" << "bStartPlay2";
}

void TestDispatch::lookalikeNamesHaveTheirOwnCallbacks()
{
    QFETCH(QString, first);
    QFETCH(QString, second);
    MessageRun run;
    const auto& callbacks = run.callbacks();
    if (!callbacks.contains(first) || !callbacks.contains(second))
        QSKIP("not both commands are in the table yet");
    QVERIFY(callbacks.value(first) != callbacks.value(second));
}

QTEST_MAIN(TestDispatch)
#include "tst_dispatch.moc"
