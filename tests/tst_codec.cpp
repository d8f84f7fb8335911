// The server's base64 codec and the Base64Encode / Base64Decode commands.
#include "devicelib/portable/core.h"
#include "dispatch/base64.h"
#include "dispatch/messagerun.h"
#include "fixture.h"

#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

class TestCodec : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    QString path(const QString& name) const { return m_dir.filePath(name); }
    void write(const QString& name, const QByteArray& bytes)
    {
        QFile f(path(name));
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write(bytes);
    }
    QByteArray read(const QString& name) const
    {
        QFile f(path(name));
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("<missing>");
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        portable::loadProfileText(QByteArray());
    }

    // --- codec -----------------------------------------------------------------------------

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
        QTest::newRow("long, no line breaks") << QByteArray(120, '\0') << QString(160, 'A') << QString(160, 'A');
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
    }

    void decode()
    {
        QFETCH(QString, text);
        QFETCH(QByteArray, bytes);
        const std::string out = base64_decode(text.toStdString());
        QCOMPARE(QByteArray(out.data(), static_cast<int>(out.size())), bytes);
    }

    void roundTripOfRandomBytes()
    {
        for (int length : {0, 1, 2, 3, 4, 5, 255, 1000, 4099}) {
            QByteArray bytes(length, '\0');
            for (char& c : bytes)
                c = static_cast<char>(QRandomGenerator::global()->bounded(256));
            const std::string text = base64_encode(reinterpret_cast<const unsigned char*>(bytes.constData()),
                                                   static_cast<unsigned long>(bytes.size()), false);
            QCOMPARE(text.size(), static_cast<size_t>((length + 2) / 3 * 4));
            const std::string back = base64_decode(text);
            QCOMPARE(QByteArray(back.data(), static_cast<int>(back.size())), bytes);
        }
    }

    // --- commands ----------------------------------------------------------------------------

    void encodeCommand_data()
    {
        QTest::addColumn<QByteArray>("content");   // null: no such file
        QTest::addColumn<QString>("result");
        QTest::newRow("one byte") << QByteArray("\x66") << "Zg==";
        QTest::newRow("binary") << QByteArray("\xff\xd8\xff\xe0\x00\x10JFIF\x00", 11) << "/9j/4AAQSkZJRgA=";
        QTest::newRow("empty file") << QByteArray("") << "";
        QTest::newRow("missing file") << QByteArray() << "";
    }

    void encodeCommand()
    {
        QFETCH(QByteArray, content);
        QFETCH(QString, result);
        const QString file = path(QStringLiteral("enc-%1.bin").arg(QTest::currentDataTag()));
        if (!content.isNull())
            write(QFileInfo(file).fileName(), content);
        MessageRun run;
        PagePair page;
        QVERIFY(page.isConnected());
        Trace trace;
        QCOMPARE(runCommand(run, page, QStringLiteral("Base64Encode(%1)").arg(file)),
                 QStringLiteral("BeginBase64Encode%1EndBase64Encode").arg(result));
        const QList<QJsonObject> calls = trace.callsOf(QStringLiteral("Base64Encode"));
        QCOMPARE(calls.size(), 1);
        QCOMPARE(calls.first().value("args").toArray().first().toString(), file);
        QCOMPARE(calls.first().value("ret").isNull(), content.isNull());
    }

    void decodeCommand_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("reply");
        QTest::addColumn<QByteArray>("written");   // null: the file is not written
        QTest::newRow("three bytes") << "Zm9v" << "true" << QByteArray("foo");
        QTest::newRow("padded") << "Zg==" << "true" << QByteArray("\x66");
        QTest::newRow("binary") << "/9j/4A==" << "true" << QByteArray("\xff\xd8\xff\xe0");
        QTest::newRow("not base64") << "Zm9v!!" << "false" << QByteArray();
        QTest::newRow("padding inside") << "Zg==Zg==" << "false" << QByteArray();
        QTest::newRow("lone character") << "Zm9vY" << "false" << QByteArray();
        QTest::newRow("empty text") << "" << "false" << QByteArray();
    }

    void decodeCommand()
    {
        QFETCH(QString, text);
        QFETCH(QString, reply);
        QFETCH(QByteArray, written);
        const QString file = path(QStringLiteral("dec-%1.bin").arg(QTest::currentDataTag()));
        MessageRun run;
        PagePair page;
        QVERIFY(page.isConnected());
        Trace trace;
        QCOMPARE(runCommand(run, page, QStringLiteral("Base64Decode(%1,%2)").arg(text, file)),
                 QStringLiteral("BeginBase64Decode%1EndBase64Decode").arg(reply));
        QCOMPARE(trace.callsOf(QStringLiteral("Base64Decode")).size(), 1);
        if (written.isNull())
            QVERIFY(!QFile::exists(file));
        else
            QCOMPARE(read(QFileInfo(file).fileName()), written);
    }

    void decodeCommandWithOnePieceDoesNotCallTheLibrary()
    {
        MessageRun run;
        PagePair page;
        QVERIFY(page.isConnected());
        Trace trace;
        QCOMPARE(runCommand(run, page, QStringLiteral("Base64Decode(Zm9v)")), QStringLiteral("BeginBase64DecodefalseEndBase64Decode"));
        QVERIFY(trace.callsOf(QStringLiteral("Base64Decode")).isEmpty());
    }

    void decodeToAFolderThatDoesNotExistFails()
    {
        MessageRun run;
        PagePair page;
        const QString file = path(QStringLiteral("no-such-folder/out.bin"));
        QCOMPARE(runCommand(run, page, QStringLiteral("Base64Decode(Zm9v,%1)").arg(file)),
                 QStringLiteral("BeginBase64DecodefalseEndBase64Decode"));
    }

    void roundTripThroughThePage()
    {
        QByteArray bytes(3001, '\0');
        for (char& c : bytes)
            c = static_cast<char>(QRandomGenerator::global()->bounded(256));
        write(QStringLiteral("source.bin"), bytes);
        MessageRun run;
        PagePair page;
        const QString encoded = runCommand(run, page, QStringLiteral("Base64Encode(%1)").arg(path("source.bin")));
        QVERIFY(encoded.startsWith(QLatin1String("BeginBase64Encode")));
        const QString text = encoded.mid(17, encoded.size() - 17 - 15);
        QCOMPARE(runCommand(run, page, QStringLiteral("Base64Decode(%1,%2)").arg(text, path("copy.bin"))),
                 QStringLiteral("BeginBase64DecodetrueEndBase64Decode"));
        QCOMPARE(read(QStringLiteral("copy.bin")), bytes);
    }

    void scriptedEncodeReply()
    {
        MessageRun run;
        PagePair page;
        portable::setScript(QStringLiteral("Base64Encode"), QJsonArray{QStringLiteral("c2NyaXB0"), QJsonValue()});
        QCOMPARE(runCommand(run, page, QStringLiteral("Base64Encode(/nothing)")), QStringLiteral("BeginBase64Encodec2NyaXB0EndBase64Encode"));
        QCOMPARE(runCommand(run, page, QStringLiteral("Base64Encode(/nothing)")), QStringLiteral("BeginBase64EncodeEndBase64Encode"));
    }
};

QTEST_GUILESS_MAIN(TestCodec)
#include "tst_codec.moc"
