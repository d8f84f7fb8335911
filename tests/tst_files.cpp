// File and path commands, through a real page, down to the file system.
#include "devicelib/portable/core.h"
#include "dispatch/messagerun.h"
#include "fixture.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QTest>
#include <QUrl>

class TestFiles : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_data;                      // XDG_DATA_HOME: the trash lives here
    std::unique_ptr<QTemporaryDir> m_dir;      // a fresh folder per test
    std::unique_ptr<MessageRun> m_run;
    std::unique_ptr<PagePair> m_page;

    QString dir() const { return m_dir->path(); }
    QString expand(QString text) const { return text.replace(QLatin1String("%D"), dir()); }
    QString run(const QString& command) { return runCommand(*m_run, *m_page, command); }

private slots:
    void initTestCase()
    {
        qputenv("XDG_DATA_HOME", QFile::encodeName(m_data.path()));
        m_run = std::make_unique<MessageRun>();
    }

    void init()
    {
        // Nothing may ever start the desktop's real handler from a test.
        portable::loadProfileText("{\"open\": {\"command\": \"true\"}}");
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(m_dir->isValid());
        QVERIFY(writeFile(dir() + "/a.jpg", "A") && writeFile(dir() + "/b.jpg", "B"));
        QVERIFY(writeFile(dir() + "/sub/inner.txt", "I"));
        QDir().mkpath(dir() + "/empty");
        m_page = std::make_unique<PagePair>();
        QVERIFY(m_page->isConnected());
    }

    void cleanup()
    {
        m_page.reset();
        m_dir.reset();
    }

    // Every command, byte for byte, and what it left on disk.
    void commands_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("reply");
        QTest::addColumn<QStringList>("present");   // paths that must exist afterwards
        QTest::addColumn<QStringList>("absent");    // paths that must not

        const QStringList none;
        QTest::newRow("file exists") << "bFileIsExist(%D/a.jpg)" << "BeginbFileIsExisttrueEndbFileIsExist" << none << none;
        QTest::newRow("folder is no file") << "bFileIsExist(%D/sub)" << "BeginbFileIsExistfalseEndbFileIsExist" << none << none;
        QTest::newRow("no file") << "bFileIsExist(%D/none.jpg)" << "BeginbFileIsExistfalseEndbFileIsExist" << none << none;
        QTest::newRow("folder exists") << "bDirIsExist(%D/sub)" << "BeginbDirIsExisttrueEndbDirIsExist" << none << none;
        QTest::newRow("file is no folder") << "bDirIsExist(%D/a.jpg)" << "BeginbDirIsExistfalseEndbDirIsExist" << none << none;
        QTest::newRow("create with parents") << "bCreateDir(%D/new/deeper)" << "BeginbCreateDirtrueEndbCreateDir"
                                             << QStringList{"%D/new/deeper"} << none;
        QTest::newRow("create existing folder") << "bCreateDir(%D/sub)" << "BeginbCreateDirtrueEndbCreateDir" << QStringList{"%D/sub/inner.txt"} << none;
        QTest::newRow("create over a file") << "bCreateDir(%D/a.jpg)" << "BeginbCreateDirfalseEndbCreateDir" << QStringList{"%D/a.jpg"} << none;
        QTest::newRow("copy") << "bCopyFile(%D/a.jpg,%D/c.jpg)" << "BeginbCopyFiletrueEndbCopyFile" << QStringList{"%D/a.jpg", "%D/c.jpg"} << none;
        QTest::newRow("copy refuses to overwrite") << "bCopyFile(%D/a.jpg,%D/b.jpg)" << "BeginbCopyFilefalseEndbCopyFile" << none << none;
        QTest::newRow("copy of nothing") << "bCopyFile(%D/none.jpg,%D/c.jpg)" << "BeginbCopyFilefalseEndbCopyFile" << none << QStringList{"%D/c.jpg"};
        QTest::newRow("copy of a folder") << "bCopyFile(%D/sub,%D/sub2)" << "BeginbCopyFilefalseEndbCopyFile" << none << QStringList{"%D/sub2"};
        QTest::newRow("copy into a missing folder") << "bCopyFile(%D/a.jpg,%D/nofolder/a.jpg)" << "BeginbCopyFilefalseEndbCopyFile" << none << QStringList{"%D/nofolder"};
        QTest::newRow("move") << "bMoveFile(%D/a.jpg,%D/sub/a.jpg)" << "BeginbMoveFiletrueEndbMoveFile" << QStringList{"%D/sub/a.jpg"} << QStringList{"%D/a.jpg"};
        QTest::newRow("move refuses to overwrite") << "bMoveFile(%D/a.jpg,%D/b.jpg)" << "BeginbMoveFilefalseEndbMoveFile" << QStringList{"%D/a.jpg"} << none;
        QTest::newRow("move a folder") << "bMoveFile(%D/sub,%D/moved)" << "BeginbMoveFiletrueEndbMoveFile" << QStringList{"%D/moved/inner.txt"} << QStringList{"%D/sub"};
        QTest::newRow("rename to a name") << "bReNameFile(%D/a.jpg,renamed.jpg)" << "BeginbReNameFiletrueEndbReNameFile" << QStringList{"%D/renamed.jpg"} << QStringList{"%D/a.jpg"};
        QTest::newRow("rename to a path") << "bReNameFile(%D/a.jpg,%D/sub/r.jpg)" << "BeginbReNameFiletrueEndbReNameFile" << QStringList{"%D/sub/r.jpg"} << QStringList{"%D/a.jpg"};
        QTest::newRow("rename refuses to overwrite") << "bReNameFile(%D/a.jpg,b.jpg)" << "BeginbReNameFilefalseEndbReNameFile" << QStringList{"%D/a.jpg"} << none;
        QTest::newRow("rename with one path") << "bReNameFile(%D/a.jpg)" << "BeginbReNameFilefalseEndbReNameFile" << QStringList{"%D/a.jpg"} << none;
        QTest::newRow("move with one path") << "bMoveFile(%D/a.jpg)" << "BeginbMoveFilefalseEndbMoveFile" << QStringList{"%D/a.jpg"} << none;
        QTest::newRow("delete forever") << "bDeleteFileForever(%D/a.jpg)" << "BeginbDeleteFileForevertrueEndbDeleteFileForever" << none << QStringList{"%D/a.jpg"};
        QTest::newRow("delete forever: nothing") << "bDeleteFileForever(%D/none.jpg)" << "BeginbDeleteFileForeverfalseEndbDeleteFileForever" << none << none;
        QTest::newRow("delete forever: full folder kept") << "bDeleteFileForever(%D/sub)" << "BeginbDeleteFileForeverfalseEndbDeleteFileForever" << QStringList{"%D/sub/inner.txt"} << none;
        QTest::newRow("delete forever: empty folder") << "bDeleteFileForever(%D/empty)" << "BeginbDeleteFileForevertrueEndbDeleteFileForever" << none << QStringList{"%D/empty"};
        QTest::newRow("delete to trash") << "bDeleteFile(%D/a.jpg)" << "BeginbDeleteFiletrueEndbDeleteFile" << none << QStringList{"%D/a.jpg"};
        QTest::newRow("delete to trash: nothing") << "bDeleteFile(%D/none.jpg)" << "BeginbDeleteFilefalseEndbDeleteFile" << none << none;
        QTest::newRow("open nothing") << "OpenFile(%D/none.jpg)" << "BeginOpenFilefalseEndOpenFile" << none << none;
        QTest::newRow("show nothing") << "bDispPath(%D/none)" << "BeginbDispPathfalseEndbDispPath" << none << none;
        QTest::newRow("temp path") << "sGetTempPath()" << "BeginsGetTempPath/tmpEndsGetTempPath" << none << none;
        QTest::newRow("temp path ignores arguments") << "sGetTempPath(x,y)" << "BeginsGetTempPath/tmpEndsGetTempPath" << none << none;
        QTest::newRow("format files") << "sGetAllFormatFiles(%D,jpg)" << "BeginsGetAllFormatFiles%D/a.jpg|%D/b.jpgEndsGetAllFormatFiles" << none << none;
        QTest::newRow("format files, no folder") << "sGetAllFormatFiles(%D/none,jpg)" << "BeginsGetAllFormatFilesEndsGetAllFormatFiles" << none << none;
    }

    void commands()
    {
        QFETCH(QString, command);
        QFETCH(QString, reply);
        QFETCH(QStringList, present);
        QFETCH(QStringList, absent);
        QCOMPARE(run(expand(command)), expand(reply));
        for (const QString& p : present)
            QVERIFY2(QFileInfo::exists(expand(p)), qPrintable(expand(p)));
        for (const QString& p : absent)
            QVERIFY2(!QFileInfo::exists(expand(p)), qPrintable(expand(p)));
    }

    void copyKeepsTheBytes()
    {
        QByteArray bytes(70000, '\0');
        for (int i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<char>(i * 7);
        writeFile(dir() + "/big.bin", bytes);
        QCOMPARE(run(expand("bCopyFile(%D/big.bin,%D/copy.bin)")), QStringLiteral("BeginbCopyFiletrueEndbCopyFile"));
        QCOMPARE(readFile(dir() + "/copy.bin"), bytes);
        QCOMPARE(readFile(dir() + "/b.jpg"), QByteArray("B"));   // a refused copy leaves the target
        run(expand("bCopyFile(%D/a.jpg,%D/b.jpg)"));
        QCOMPARE(readFile(dir() + "/b.jpg"), QByteArray("B"));
    }

    void argumentSplitting()
    {
        Trace trace;
        // Only the first field of bDeleteFileForever is a path.
        QCOMPARE(run(expand("bDeleteFileForever(%D/a.jpg,%D/b.jpg)")), QStringLiteral("BeginbDeleteFileForevertrueEndbDeleteFileForever"));
        QVERIFY(!QFileInfo::exists(dir() + "/a.jpg"));
        QVERIFY(QFileInfo::exists(dir() + "/b.jpg"));
        QList<QJsonObject> calls = trace.callsOf("bDeleteFileForever");
        QCOMPARE(calls.size(), 1);
        QCOMPARE(calls.first().value("args").toArray(), QJsonArray{dir() + "/a.jpg"});

        // A one-path command passes a "," in the path whole.
        writeFile(dir() + "/x,y.jpg", "XY");
        QCOMPARE(run(expand("bFileIsExist(%D/x,y.jpg)")), QStringLiteral("BeginbFileIsExisttrueEndbFileIsExist"));
        QCOMPARE(trace.callsOf("bFileIsExist").first().value("args").toArray(), QJsonArray{dir() + "/x,y.jpg"});

        // Two-path commands with one field answer false without a library call.
        trace.clear();
        QCOMPARE(run("bCopyFile(/a.jpg)"), QStringLiteral("BeginbCopyFilefalseEndbCopyFile"));
        QCOMPARE(run("sGetAllFormatFiles(/data)"), QStringLiteral("BeginsGetAllFormatFilesEndsGetAllFormatFiles"));
        QCOMPARE(run("sGetTempPath()"), QStringLiteral("BeginsGetTempPath/tmpEndsGetTempPath"));
        QCOMPARE(trace.functions(), QStringList());

        // Further fields of a two-path command are ignored.
        QCOMPARE(run(expand("bCopyFile(%D/b.jpg,%D/c.jpg,%D/d.jpg)")), QStringLiteral("BeginbCopyFiletrueEndbCopyFile"));
        QCOMPARE(trace.callsOf("bCopyFile").first().value("args").toArray(), (QJsonArray{dir() + "/b.jpg", dir() + "/c.jpg"}));
        QVERIFY(!QFileInfo::exists(dir() + "/d.jpg"));
    }

    void trashLayout()
    {
        const QString name = QStringLiteral("my scan é%.jpg");
        writeFile(dir() + "/" + name, "first");
        writeFile(dir() + "/sub/" + name, "second");
        const QString trash = m_data.path() + "/Trash";
        QDir(trash).removeRecursively();

        const QDateTime before = QDateTime::currentDateTime().addSecs(-1);
        QCOMPARE(run("bDeleteFile(" + dir() + "/" + name + ")"), QStringLiteral("BeginbDeleteFiletrueEndbDeleteFile"));
        QCOMPARE(run("bDeleteFile(" + dir() + "/sub/" + name + ")"), QStringLiteral("BeginbDeleteFiletrueEndbDeleteFile"));
        QVERIFY(!QFileInfo::exists(dir() + "/" + name));

        // Same names get unique slots; the content travels with the name.
        const QString second = QStringLiteral("my scan é%.2.jpg");
        QCOMPARE(readFile(trash + "/files/" + name), QByteArray("first"));
        QCOMPARE(readFile(trash + "/files/" + second), QByteArray("second"));

        const QStringList info = QString::fromUtf8(readFile(trash + "/info/" + second + ".trashinfo")).split('\n', Qt::SkipEmptyParts);
        QCOMPARE(info.size(), 3);
        QCOMPARE(info[0], QStringLiteral("[Trash Info]"));
        const QString encoded = QString::fromLatin1(QUrl::toPercentEncoding(dir() + "/sub/" + name, "/"));
        QVERIFY(encoded.contains(QLatin1String("my%20scan%20%C3%A9%25.jpg")));
        QCOMPARE(info[1], "Path=" + encoded);
        QVERIFY(info[2].startsWith(QLatin1String("DeletionDate=")));
        const QDateTime when = QDateTime::fromString(info[2].mid(13), Qt::ISODate);
        QVERIFY(when.isValid());
        QVERIFY(when >= before && when <= QDateTime::currentDateTime().addSecs(1));
        QVERIFY(QFileInfo::exists(trash + "/info/" + name + ".trashinfo"));
    }

    void formatFiles_data()
    {
        QTest::addColumn<QString>("format");
        QTest::addColumn<QStringList>("names");
        const QStringList jpgs{"a.jpg", "b.jpg", "d.Jpg", "z.JPG"};
        QTest::newRow("jpg") << "jpg" << jpgs;
        QTest::newRow(".jpg") << ".jpg" << jpgs;
        QTest::newRow("*.jpg") << "*.jpg" << jpgs;
        QTest::newRow("JPG") << "JPG" << jpgs;
        QTest::newRow("png") << "png" << QStringList{"c.PNG"};
        QTest::newRow("two-part extension") << "tar.gz" << QStringList{"pack.tar.gz"};
        QTest::newRow("none match") << "tif" << QStringList();
        QTest::newRow("every file") << "*" << QStringList{"a.jpg", "b.jpg", "c.PNG", "d.Jpg", "jpg", "pack.tar.gz", "z.JPG"};
    }

    void formatFiles()
    {
        QFETCH(QString, format);
        QFETCH(QStringList, names);
        for (const QString n : {"c.PNG", "d.Jpg", "z.JPG", "jpg", "pack.tar.gz", "folder.jpg/inside.jpg"})
            writeFile(dir() + "/" + n, "x");   // the last is inside a folder: not listed
        QStringList paths;
        for (const QString& n : names)
            paths << dir() + "/" + n;
        QCOMPARE(run(QStringLiteral("sGetAllFormatFiles(%1,%2)").arg(dir(), format)),
                 QStringLiteral("BeginsGetAllFormatFiles%1EndsGetAllFormatFiles").arg(paths.join('|')));
    }

    void openRunsTheProfileCommand_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("opened");
        QTest::newRow("open a file") << "OpenFile(%D/a.jpg)" << "%D/a.jpg";
        QTest::newRow("open a folder") << "OpenFile(%D/sub)" << "%D/sub";
        QTest::newRow("show a file's folder") << "bDispPath(%D/a.jpg)" << "%D";
        QTest::newRow("show a folder") << "bDispPath(%D/sub)" << "%D/sub";
    }

    void openRunsTheProfileCommand()
    {
        QFETCH(QString, command);
        QFETCH(QString, opened);
        const QString script = dir() + "/open.sh";
        const QString record = dir() + "/opened.txt";
        writeFile(script, "#!/bin/sh\nprintf '%s' \"$1\" > \"$0.tmp\" && mv \"$0.tmp\" \"" + record.toUtf8() + "\"\n");
        QFile::setPermissions(script, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        portable::loadProfileText(QJsonDocument(QJsonObject{{"open", QJsonObject{{"command", script}}}}).toJson());
        QCOMPARE(run(expand(command)), QStringLiteral("Begin%1trueEnd%1").arg(command.left(command.indexOf('('))));
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(record), 10000);
        QCOMPARE(QString::fromUtf8(readFile(record)), expand(opened));
    }

    void openWithAMissingProgramFails()
    {
        portable::loadProfileText("{\"open\": {\"command\": \"/no/such/program\"}}");
        QCOMPARE(run(expand("OpenFile(%D/a.jpg)")), QStringLiteral("BeginOpenFilefalseEndOpenFile"));
    }

    void companionScripts_data()
    {
        QTest::addColumn<QStringList>("scripts");
        QTest::addColumn<QString>("reply");
        QTest::newRow("both") << QStringList{"run-elecsign.sh", "run-webbrowser.sh"} << "BeginIsExeExisttrueEndIsExeExist";
        QTest::newRow("signature only") << QStringList{"run-elecsign.sh"} << "BeginIsExeExistfalseEndIsExeExist";
        QTest::newRow("browser only") << QStringList{"run-webbrowser.sh"} << "BeginIsExeExistfalseEndIsExeExist";
        QTest::newRow("none") << QStringList() << "BeginIsExeExistfalseEndIsExeExist";
    }

    void companionScripts()
    {
        QFETCH(QStringList, scripts);
        QFETCH(QString, reply);
        const QString companions = dir() + "/app";
        QDir().mkpath(companions);
        for (const QString& s : scripts)
            writeFile(companions + "/" + s, "#!/bin/bash\n");
        portable::loadProfileText(QJsonDocument(QJsonObject{{"files", QJsonObject{{"companionDir", companions}}}}).toJson());
        QCOMPARE(run("IsExeExist()"), reply);
        QCOMPARE(run("IsExeExist(ignored)"), reply);
    }

    void scriptedResultsChangeTheReply()
    {
        portable::setScript("bFileIsExist", QJsonArray{false});
        portable::setScript("sGetAllFormatFiles", QJsonArray{"/x/1.jpg|/x/2.jpg", QJsonValue()});
        QCOMPARE(run(expand("bFileIsExist(%D/a.jpg)")), QStringLiteral("BeginbFileIsExistfalseEndbFileIsExist"));
        QCOMPARE(run(expand("bFileIsExist(%D/a.jpg)")), QStringLiteral("BeginbFileIsExisttrueEndbFileIsExist"));
        QCOMPARE(run("sGetAllFormatFiles(/x,jpg)"), QStringLiteral("BeginsGetAllFormatFiles/x/1.jpg|/x/2.jpgEndsGetAllFormatFiles"));
        QCOMPARE(run("sGetAllFormatFiles(/x,jpg)"), QStringLiteral("BeginsGetAllFormatFilesEndsGetAllFormatFiles"));
        // A scripted delete does no real work.
        portable::setScript("bDeleteFileForever", QJsonArray{true});
        QCOMPARE(run(expand("bDeleteFileForever(%D/a.jpg)")), QStringLiteral("BeginbDeleteFileForevertrueEndbDeleteFileForever"));
        QVERIFY(QFileInfo::exists(dir() + "/a.jpg"));
    }
};

QTEST_GUILESS_MAIN(TestFiles)
#include "tst_files.moc"
