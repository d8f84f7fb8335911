// The server's base64 codec and the Base64Encode / Base64Decode commands.
#include "devicelib/portable/core.h"
#include "dispatch/base64.h"
#include "dispatch/messagerun.h"
#include "fixture.h"

#include <QFile>
#include <QRandomGenerator>
#include <QTest>

#include <memory>

namespace {

QByteArray randomBytes(int length)
{
    QByteArray bytes(length, '\0');
    for (char& c : bytes)
        c = static_cast<char>(QRandomGenerator::global()->bounded(256));
    return bytes;
}

}  // namespace

class TestCodec : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    MessageRun m_run;
    std::unique_ptr<PagePair> m_page;

    QString run(const QString& command) { return runCommand(m_run, *m_page, command); }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        portable::loadProfileText(QByteArray());
        m_page = std::make_unique<PagePair>();
        QVERIFY(m_page->isConnected());
    }
    void cleanupTestCase() { m_page.reset(); }

    void encode_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("standard");
        QTest::addColumn<QString>("url");
        QTest::newRow("one byte") << QByteArray("\x66") << "Zg==" << "Zg..";
        QTest::newRow("two bytes") << QByteArray("\x66\x6f") << "Zm8=" << "Zm8.";
        QTest::newRow("three bytes") << QByteArray("foo") << "Zm9v" << "Zm9v";
        QTest::newRow("alphabet ends") << QByteArray("\xfb\xff") << "+/8=" << "-_8.";
        QTest::newRow("empty") << QByteArray() << "" << "";
        const QByteArray random = randomBytes(4099);
        QTest::newRow("random, no line breaks") << random << QString::fromLatin1(random.toBase64())
                                               << QString::fromLatin1(random.toBase64(QByteArray::Base64UrlEncoding)).replace('=', '.');
    }

    void encode()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, standard);
        QFETCH(QString, url);
        const auto* p = reinterpret_cast<const unsigned char*>(bytes.constData());
        QCOMPARE(QString::fromStdString(base64_encode(p, static_cast<unsigned long>(bytes.size()), false)), standard);
        QCOMPARE(QString::fromStdString(base64_encode(p, static_cast<unsigned long>(bytes.size()), true)), url);
        QCOMPARE(QString::fromStdString(base64_encode(p, static_cast<unsigned int>(bytes.size()))), standard);
    }

    void decode_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("padded") << "Zm8=" << QByteArray("fo");
        QTest::newRow("no padding") << "Zg" << QByteArray("\x66");
        QTest::newRow("stops at a line break") << "Zm9v\nYmFy" << QByteArray("foo");
        QTest::newRow("stops at the url alphabet") << "Zm9v-_8." << QByteArray("foo");
        QTest::newRow("stops at a blank") << "Zm9v YmFy" << QByteArray("foo");
        QTest::newRow("lone character gives nothing") << "Zm9vY" << QByteArray("foo");
        QTest::newRow("standard alphabet ends") << "+/8=" << QByteArray("\xfb\xff");
        const QByteArray random = randomBytes(4099);
        QTest::newRow("random bytes") << QString::fromLatin1(random.toBase64()) << random;
    }

    void decode()
    {
        QFETCH(QString, text);
        QFETCH(QByteArray, bytes);
        const std::string out = base64_decode(text.toStdString());
        QCOMPARE(QByteArray(out.data(), static_cast<int>(out.size())), bytes);
    }

    void encodeCommand_data()
    {
        QTest::addColumn<QByteArray>("content");   // null: no such file
        QTest::addColumn<QString>("result");
        const QByteArray big = randomBytes(3001);
        QTest::newRow("binary") << QByteArray("\xff\xd8\xff\xe0\x00\x10JFIF\x00", 11) << "/9j/4AAQSkZJRgA=";
        QTest::newRow("large binary") << big << QString::fromLatin1(big.toBase64());
        QTest::newRow("empty file") << QByteArray("") << "";
        QTest::newRow("missing file") << QByteArray() << "";
    }

    void encodeCommand()
    {
        QFETCH(QByteArray, content);
        QFETCH(QString, result);
        const QString file = m_dir.filePath(QStringLiteral("enc-%1.bin").arg(QTest::currentDataTag()));
        if (!content.isNull())
            QVERIFY(writeFile(file, content));
        Trace trace;
        QCOMPARE(run(QStringLiteral("Base64Encode(%1)").arg(file)), QStringLiteral("BeginBase64Encode%1EndBase64Encode").arg(result));
        const QList<QJsonObject> calls = trace.callsOf(QStringLiteral("Base64Encode"));
        QCOMPARE(calls.size(), 1);
        QCOMPARE(calls.first().value("args").toArray().first().toString(), file);
        QCOMPARE(calls.first().value("ret").isNull(), content.isNull());
    }

    void decodeCommand_data()
    {
        QTest::addColumn<QString>("args");   // %F: a file in the test folder
        QTest::addColumn<QString>("reply");
        QTest::addColumn<QByteArray>("written");   // null: the file is not written
        QTest::addColumn<int>("libraryCalls");
        const QByteArray big = randomBytes(3001);
        QTest::newRow("three bytes") << "Zm9v,%F" << "true" << QByteArray("foo") << 1;
        QTest::newRow("binary") << "/9j/4A==,%F" << "true" << QByteArray("\xff\xd8\xff\xe0") << 1;
        QTest::newRow("large binary") << QString::fromLatin1(big.toBase64() + ",%F") << "true" << big << 1;
        QTest::newRow("not base64") << "Zm9v!!,%F" << "false" << QByteArray() << 1;
        QTest::newRow("padding inside") << "Zg==Zg==,%F" << "false" << QByteArray() << 1;
        QTest::newRow("lone character") << "Zm9vY,%F" << "false" << QByteArray() << 1;
        QTest::newRow("empty text") << ",%F" << "false" << QByteArray() << 1;
        QTest::newRow("folder does not exist") << "Zm9v,%F/no-such-folder/out.bin" << "false" << QByteArray() << 1;
        QTest::newRow("one piece: library not called") << "Zm9v" << "false" << QByteArray() << 0;
    }

    void decodeCommand()
    {
        QFETCH(QString, args);
        QFETCH(QString, reply);
        QFETCH(QByteArray, written);
        QFETCH(int, libraryCalls);
        const QString file = m_dir.filePath(QStringLiteral("dec-%1.bin").arg(QTest::currentDataTag()));
        Trace trace;
        QCOMPARE(run("Base64Decode(" + QString(args).replace("%F", file) + ")"),
                 QStringLiteral("BeginBase64Decode%1EndBase64Decode").arg(reply));
        QCOMPARE(trace.callsOf(QStringLiteral("Base64Decode")).size(), libraryCalls);
        if (written.isNull())
            QVERIFY(!QFile::exists(file));
        else
            QCOMPARE(readFile(file), written);
    }

    // The reply is the library's answer, whatever it is.
    void scriptedEncodeReply()
    {
        portable::setScript(QStringLiteral("Base64Encode"), QJsonArray{QStringLiteral("c2NyaXB0"), QJsonValue()});
        QCOMPARE(run(QStringLiteral("Base64Encode(/nothing)")), QStringLiteral("BeginBase64Encodec2NyaXB0EndBase64Encode"));
        QCOMPARE(run(QStringLiteral("Base64Encode(/nothing)")), QStringLiteral("BeginBase64EncodeEndBase64Encode"));
    }
};

QTEST_GUILESS_MAIN(TestCodec)
#include "tst_codec.moc"
