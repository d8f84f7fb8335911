// The dispatcher: how a command text splits into name and arguments, which texts reach a
// callback, and where replies go.
#include "fixture.h"

#include "dispatch/messagerun.h"

#include <QTest>
#include <QThread>

#include <memory>

class TestDispatch : public QObject {
    Q_OBJECT
    MessageRun run;
    std::unique_ptr<PagePair> m_page;

private slots:
    void init()
    {
        m_page = std::make_unique<PagePair>();
        QVERIFY(m_page->isConnected());
    }

    void cleanup()
    {
        m_page.reset();
        gpWebSocket = nullptr;
    }

    void parse_data()
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

    void parse()
    {
        QFETCH(QString, message);
        QFETCH(QString, name);
        QFETCH(QString, args);
        QString gotName = QStringLiteral("unset"), gotArgs = QStringLiteral("unset");
        MessageRun::parse(message, &gotName, &gotArgs);
        QCOMPARE(gotName, name);
        QCOMPARE(gotArgs, args);
    }

    // A parsed name reaches a callback only when it matches one exactly; one command, one reply.
    // How a text splits is parse's; these rows are about the lookup.
    void dispatch_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("name");   // empty: no reply at all
        QTest::newRow("with parentheses") << "getVersion()" << "getVersion";
        QTest::newRow("ignored argument") << "sGetTempPath(x)" << "sGetTempPath";
        QTest::newRow("unknown name") << "noSuchCommand()" << "";
        QTest::newRow("no seventh start variant") << "bStartPlay7()" << "";
        QTest::newRow("wrong case") << "getversion()" << "";
        QTest::newRow("trailing blank in the name") << "getVersion ()" << "";
        QTest::newRow("name without its last letter") << "getVersio" << "";
        QTest::newRow("empty name") << "()" << "";
    }

    void dispatch()
    {
        QFETCH(QString, message);
        QFETCH(QString, name);
        const QString reply = runCommand(run, *m_page, message, name.isEmpty() ? 200 : 2000);
        if (name.isEmpty())
            QCOMPARE(reply, QString());
        else
            QVERIFY2(isFramedReplyOf(reply, name), qPrintable(reply));
        QCOMPARE(m_page->drain(), QStringList());
    }

    void replyWithoutCurrentClientIsDropped()
    {
        gpWebSocket = nullptr;
        MessageRun::send_msg(QStringLiteral("dropped"));
        MessageRun::send_json_msg(true, QStringLiteral("f"), QStringLiteral("dropped"));
        run.handle_msg_slot(QStringLiteral("getVersion()"), nullptr);
        QCOMPARE(m_page->drain(), QStringList());
        m_page->makeCurrent();
        QVERIFY(isFramedReplyOf(runCommand(run, *m_page, QStringLiteral("getVersion()")), QStringLiteral("getVersion")));
    }

    void replyFromAnotherThreadReachesThePage()
    {
        const QString text = QStringLiteral("BeginfingerCaptureRawDatatrueEndfingerCaptureRawData");
        std::unique_ptr<QThread> worker(QThread::create([this, text] { run.sendmsg_thread(text); }));
        worker->start();
        QVERIFY(worker->wait(5000));
        QCOMPARE(m_page->next(), text);
    }
};

QTEST_MAIN(TestDispatch)
#include "tst_dispatch.moc"
