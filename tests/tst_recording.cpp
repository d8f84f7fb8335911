// Real recordings of the synthetic camera, read back with ffprobe: container, codecs, frame
// size and a length that matches the time recorded less the pause; the refusals; a full disk.
#include "devicelib/doccamera.h"
#include "devicelib/portable/core.h"
#include "fixture.h"

#include <QDir>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QProcess>
#include <QTest>

#include <algorithm>

namespace {

// ffprobe's view of a file: {"format":{...},"streams":[...]}; empty when it cannot read it.
QJsonObject probe(const QString& file)
{
    QProcess p;
    p.start("ffprobe", {"-v", "error", "-show_entries", "format=format_name,duration:stream=codec_type,codec_name,width,height,duration",
                        "-of", "json", file});
    if (!p.waitForFinished(10000) || p.exitCode() != 0)
        return {};
    return QJsonDocument::fromJson(p.readAllStandardOutput()).object();
}

QJsonObject streamOf(const QJsonObject& info, const QString& type)
{
    const QJsonArray streams = info.value("streams").toArray();
    auto it = std::find_if(streams.begin(), streams.end(), [&](const QJsonValue& s) { return s.toObject().value("codec_type") == type; });
    return it == streams.end() ? QJsonObject() : (*it).toObject();
}

}  // namespace

class TestRecording : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;

private slots:
    void init()
    {
        portable::loadProfileText(R"({"camera":{"sources":{"1":{"type":"synthetic","width":640,"height":480,"fps":15}}},
                                      "audio":{"source":"synthetic"}})");
    }
    void cleanup()
    {
        bStopRec();
        waitFor([] { return !isRecording(); }, 10000);
        bStopPlay();
    }

    void recordAndProbe_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<bool>("sound");
        QTest::addColumn<QSize>("setSize");
        QTest::addColumn<QString>("container");
        QTest::addColumn<QString>("video");   // codec, empty for sound alone
        QTest::addColumn<QSize>("size");
        QTest::addColumn<QString>("audio");
        QTest::newRow("avi: MJPEG, 1280 wide by default") << "a.avi" << false << QSize(0, 0) << "avi" << "mjpeg" << QSize(1280, 960) << "";
        QTest::newRow("mp4 with sound, height follows") << "b.mp4" << true << QSize(320, 0) << "mp4" << "h264" << QSize(320, 240) << "mp3";
        QTest::newRow("mkv, width follows") << "c.mkv" << false << QSize(0, 360) << "matroska" << "h264" << QSize(480, 360) << "";
    }
    void recordAndProbe()
    {
        QFETCH(QString, file); QFETCH(bool, sound); QFETCH(QSize, setSize); QFETCH(QString, container); QFETCH(QString, video);
        QFETCH(QSize, size); QFETCH(QString, audio);
        const QByteArray path = m_dir.filePath(file).toUtf8();
        vSetRecSize(setSize.width(), setSize.height());
        QVERIFY(bStartPlay(0));
        QElapsedTimer total, paused;
        total.start();
        QVERIFY((sound ? bStartRecMp3 : bStartRec)(path.constData()));
        QVERIFY(isRecording());
        QVERIFY(!bResumeRec());   // not paused
        QTest::qWait(1200);
        QVERIFY(bPauseRec());
        paused.start();
        QVERIFY(!bPauseRec());    // already paused
        QTest::qWait(600);
        const qint64 pause = paused.elapsed();
        QVERIFY(bResumeRec());
        QTest::qWait(1200);
        QVERIFY(bStopRec());
        const double recorded = (total.elapsed() - pause) / 1000.0;
        QVERIFY(waitFor([] { return !isRecording(); }, 10000));
        const QJsonObject info = probe(QString::fromUtf8(path));
        const QJsonObject format = info.value("format").toObject();
        QVERIFY2(format.value("format_name").toString().contains(container), qPrintable(QJsonDocument(info).toJson()));
        QVERIFY2(qAbs(format.value("duration").toString().toDouble() - recorded) <= recorded * 0.1,
                 qPrintable(QStringLiteral("%1 s recorded: %2").arg(recorded).arg(QString(QJsonDocument(info).toJson()))));
        const QJsonObject v = streamOf(info, "video"), a = streamOf(info, "audio");
        QCOMPARE(v.value("codec_name").toString(), video);
        QCOMPARE(QSize(v.value("width").toInt(), v.value("height").toInt()), video.isEmpty() ? QSize(0, 0) : size);
        QCOMPARE(a.value("codec_name").toString(), audio);
        for (const QJsonObject& s : {v, a})
            if (s.contains("duration"))
                QVERIFY2(qAbs(s.value("duration").toString().toDouble() - recorded) <= recorded * 0.1, qPrintable(s.value("codec_name").toString()));
    }

    // Sound alone, from a sound file as the source (a second of 8 kHz WAV, played in a loop).
    void soundFromFile()
    {
        QByteArray wav = "RIFF" + QByteArray(4, 0) + "WAVEfmt " + QByteArray::fromHex("1000000001000100401f0000803e000002001000") + "data";
        QVector<qint16> pcm(8000);
        for (int i = 0; i < pcm.size(); ++i)
            pcm[i] = qint16((i / 20) % 2 ? 3000 : -3000);   // a 200 Hz square
        const qint32 n = pcm.size() * 2;
        wav += QByteArray(reinterpret_cast<const char*>(&n), 4) + QByteArray(reinterpret_cast<const char*>(pcm.data()), n);
        QVERIFY(writeFile(m_dir.filePath("in.wav"), wav));
        portable::loadProfileText(QStringLiteral(R"({"audio":{"source":"file:%1"}})").arg(m_dir.filePath("in.wav")).toUtf8());
        LogCapture log("devicelib:");
        const QByteArray out = m_dir.filePath("fromfile.mp3").toUtf8();
        QVERIFY(bStartRecMp3(out.constData()));
        QTest::qWait(1500);
        QVERIFY(bStopRec() && waitFor([] { return !isRecording(); }));
        QVERIFY2(!log.contains("tone"), qPrintable(log.lines().join('\n')));
        const QJsonObject info = probe(QString::fromUtf8(out));
        QCOMPARE(info.value("format").toObject().value("format_name").toString(), QStringLiteral("mp3"));
        QCOMPARE(streamOf(info, "audio").value("codec_name").toString(), QStringLiteral("mp3"));
        QVERIFY(streamOf(info, "video").isEmpty());
    }

    // Refused starts answer false and leave nothing recording.
    void refusals()
    {
        const QString dir = m_dir.path();
        QVERIFY(!bStartRec(QString(dir + "/nocamera.avi").toUtf8().constData()));
        QVERIFY(!bPauseRec() && !bResumeRec() && bStopRec());   // stop is true with nothing recording
        QVERIFY(bStartPlay(0));
        for (const QString& bad : {dir + "/a.txt", dir + "/noext", dir + "/gone/a.avi", dir + "/alone.mp3"})
            QVERIFY2(!bStartRec(bad.toUtf8().constData()), qPrintable(bad));
        QVERIFY(!isRecording());
        QVERIFY(bStartRec(QString(dir + "/first.mkv").toUtf8().constData()));
        QVERIFY(!bStartRecMp3(QString(dir + "/second.mkv").toUtf8().constData()));
        QVERIFY(!QFile::exists(dir + "/second.mkv") && !QFile::exists(dir + "/gone"));
        QVERIFY(bStopRec() && waitFor([] { return !isRecording(); }));
        // A folder removed under a running recording ends it.
        LogCapture log("devicelib:");
        QVERIFY(QDir().mkpath(dir + "/vanish") && bStartRec(QString(dir + "/vanish/a.mkv").toUtf8().constData()));
        QVERIFY(QDir(dir + "/vanish").removeRecursively());
        QVERIFY(waitFor([] { return !isRecording(); }));
        QVERIFY(log.contains("was removed"));
    }

    // A recording cut off (a power cut, a killed server) plays up to where it got to: a copy
    // of the file taken while it records is what such a cut leaves.
    void cutShort_data()
    {
        QTest::addColumn<QString>("file");
        QTest::newRow("avi") << "cut.avi";
        QTest::newRow("mkv") << "cut.mkv";
        QTest::newRow("mp4") << "cut.mp4";
    }
    void cutShort()
    {
        QFETCH(QString, file);
        const QString path = m_dir.filePath(file), cut = m_dir.filePath("cut-" + file);
        vSetRecSize(320, 240);
        QVERIFY(bStartPlay(0));
        QVERIFY(bStartRecMp3(path.toUtf8().constData()));
        QTest::qWait(4000);
        QVERIFY(QFile::copy(path, cut));
        QProcess p;
        p.start("ffprobe", {"-v", "error", "-select_streams", "v", "-count_packets", "-show_entries", "stream=nb_read_packets",
                            "-of", "csv=p=0", cut});
        QVERIFY(p.waitForFinished(10000));
        const int packets = p.readAllStandardOutput().trimmed().toInt();
        QVERIFY2(packets > 0, qPrintable(QString::number(packets)));
    }

    // A disk that fills: the file is closed where it got to and the recording ends by itself.
    void diskFull()
    {
        QTemporaryDir mount;
        QProcess p;
        p.start("mount", {"-t", "tmpfs", "-o", "size=512k", "tmpfs", mount.path()});
        if (!p.waitForFinished(5000) || p.exitStatus() != QProcess::NormalExit || p.exitCode() != 0)
            QSKIP("mounting a small tmpfs is not permitted here");
        struct Unmount {
            QString path;
            ~Unmount() { QProcess::execute("umount", {"-l", path}); }
        } unmount{mount.path()};
        LogCapture log("devicelib:");
        QVERIFY(bStartPlay(0));
        const QString file = mount.filePath("full.avi");
        QVERIFY(bStartRec(file.toUtf8().constData()));
        QVERIFY(waitFor([] { return !isRecording(); }, 10000));
        QVERIFY2(log.contains("failed"), qPrintable(log.lines().join('\n')));
        const QJsonObject info = probe(file);
        QCOMPARE(streamOf(info, "video").value("codec_name").toString(), QStringLiteral("mjpeg"));
    }
};

QTEST_MAIN(TestRecording)
#include "tst_recording.moc"
