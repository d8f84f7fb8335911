// File and path commands, through a real page, down to the file system; the file roots.
#include "devicelib/doccamera.h"
#include "devicelib/portable/core.h"
#include "dispatch/messagerun.h"
#include "files/pathpolicy.h"
#include "fixture.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QTest>
#include <QUrl>

namespace {

// Something is at the path, a dangling link too.
bool onDisk(const QString& path)
{
    return QFileInfo::exists(path) || QFileInfo(path).isSymLink();
}

// One command row: its reply's result, paths that must be there afterwards ("path=content"
// also checks the content, "=@other" the same bytes as another file), paths that must not,
// whether the library was called, and the file roots in force.
void row(const char* tag, const QString& command, const QString& result, const QStringList& present = {},
         const QStringList& absent = {}, bool called = true, const QString& roots = QString())
{
    QTest::newRow(tag) << roots << command << result << present << absent << called;
}
void rooted(const char* tag, const QString& command, const QString& result, const QStringList& present = {},
            const QStringList& absent = {}, bool called = false)
{
    row(tag, command, result, present, absent, called, QStringLiteral("%D/in"));
}

}  // namespace

class TestFiles : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_data;                   // XDG_DATA_HOME: the trash lives here
    std::unique_ptr<QTemporaryDir> m_dir;   // a fresh folder per test
    std::unique_ptr<MessageRun> m_run;
    std::unique_ptr<PagePair> m_page;

    QString dir() const { return QFileInfo(m_dir->path()).canonicalFilePath(); }
    QString trash() const { return m_data.path() + QStringLiteral("/Trash"); }
    QString expand(QString text) const
    {
        return text.replace(QLatin1String("%D"), dir()).replace(QLatin1String("%T"), trash())
            .replace(QLatin1String("%C"), QDir::current().canonicalPath());
    }
    QString run(const QString& command) { return runCommand(*m_run, *m_page, command); }

private slots:
    void initTestCase()
    {
        qputenv("XDG_DATA_HOME", QFile::encodeName(m_data.path()));
        m_run = std::make_unique<MessageRun>();
    }

    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(m_dir->isValid());
        QDir(trash()).removeRecursively();
        QByteArray big(70000, '\0');   // more than one copy buffer
        for (int i = 0; i < big.size(); ++i)
            big[i] = static_cast<char>(i * 7);
        for (const auto& [name, content] : std::initializer_list<std::pair<QString, QByteArray>>{
                 {"a.jpg", "A"}, {"b.jpg", "B"}, {"x,y.jpg", "XY"}, {"big.bin", big}, {"sub/inner.txt", "I"}, {"d.Jpg", ""},
                 {"z.JPG", ""}, {"jpg", ""}, {"pack.tar.gz", ""}, {"folder.jpg/inside.jpg", ""}, {"in/a.jpg", "A"},
                 {"out/b.jpg", "B"}, {"inb/b.jpg", "B"}, {"empty/", ""}, {"links/", ""},
                 {"app/open.sh", "#!/bin/sh\nprintf '%s' \"$1\" > \"$0.tmp\" && mv \"$0.tmp\" \"$0.txt\"\n"}})
            QVERIFY(name.endsWith('/') ? QDir().mkpath(dir() + "/" + name) : writeFile(dir() + "/" + name, content));
        QFile::setPermissions(dir() + "/app/open.sh", QFileDevice::ReadOwner | QFileDevice::ExeOwner);
        // A destination that dangles, ways out of the root "in", a root reached by a link.
        for (const auto& [link, target] : std::initializer_list<std::pair<QString, QString>>{
                 {"links/dl.jpg", "%D/nowhere.jpg"}, {"in/link", "../out"}, {"in/new.jpg", "%D/out/new.jpg"},
                 {"in/loop", "loop2"}, {"in/loop2", "loop"}, {"rootlink", "in"}})
            QVERIFY(QFile::link(expand(target), dir() + "/" + link));
        // OpenFile and bDispPath run a script that records what it was given: nothing opens on screen.
        portable::loadProfileText(expand(R"({"open": {"command": "%D/app/open.sh"},
            "camera": {"sources": {"1": {"type": "synthetic", "width": 160, "height": 120}}}})").toUtf8());
        m_page = std::make_unique<PagePair>();
        QVERIFY(m_page->isConnected());
    }

    void cleanup()
    {
        pathpolicy::setRoots({});
        ::bStopPlay();
        m_page.reset();
        m_dir.reset();
    }

    void commands_data()
    {
        QTest::addColumn<QString>("roots");
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("result");
        QTest::addColumn<QStringList>("present");
        QTest::addColumn<QStringList>("absent");
        QTest::addColumn<bool>("called");

        row("file exists", "bFileIsExist(%D/a.jpg)", "true");
        row("folder is no file", "bFileIsExist(%D/sub)", "false");
        row("no file", "bFileIsExist(%D/none.jpg)", "false");
        row("one path keeps its comma", "bFileIsExist(%D/x,y.jpg)", "true");
        row("folder exists", "bDirIsExist(%D/sub)", "true");
        row("file is no folder", "bDirIsExist(%D/a.jpg)", "false");
        row("create with parents", "bCreateDir(%D/new/deeper)", "true", {"%D/new/deeper"});
        row("create existing folder", "bCreateDir(%D/sub)", "true", {"%D/sub/inner.txt"});
        row("create over a file", "bCreateDir(%D/a.jpg)", "false", {"%D/a.jpg=A"});
        row("copy", "bCopyFile(%D/a.jpg,%D/c.jpg)", "true", {"%D/a.jpg=A", "%D/c.jpg=A"});
        row("copy past one buffer", "bCopyFile(%D/big.bin,%D/copy.bin)", "true", {"%D/copy.bin=@%D/big.bin"});
        row("copy: further fields ignored", "bCopyFile(%D/b.jpg,%D/c.jpg,%D/d.jpg)", "true", {"%D/c.jpg=B"}, {"%D/d.jpg"});
        row("copy never overwrites", "bCopyFile(%D/a.jpg,%D/b.jpg)", "false", {"%D/b.jpg=B"});
        row("copy onto a dangling link", "bCopyFile(%D/a.jpg,%D/links/dl.jpg)", "false", {}, {"%D/nowhere.jpg"});
        row("copy of nothing", "bCopyFile(%D/none.jpg,%D/c.jpg)", "false", {}, {"%D/c.jpg"});
        row("copy of a folder", "bCopyFile(%D/sub,%D/sub2)", "false", {}, {"%D/sub2"});
        row("copy into a missing folder", "bCopyFile(%D/a.jpg,%D/nofolder/a.jpg)", "false", {}, {"%D/nofolder"});
        row("copy with one path", "bCopyFile(/a.jpg)", "false", {}, {}, false);
        row("move", "bMoveFile(%D/a.jpg,%D/sub/a.jpg)", "true", {"%D/sub/a.jpg=A"}, {"%D/a.jpg"});
        row("move never overwrites", "bMoveFile(%D/a.jpg,%D/b.jpg)", "false", {"%D/a.jpg=A", "%D/b.jpg=B"});
        row("move onto a dangling link", "bMoveFile(%D/a.jpg,%D/links/dl.jpg)", "false", {"%D/a.jpg=A"}, {"%D/nowhere.jpg"});
        row("move onto a folder", "bMoveFile(%D/sub,%D/empty)", "false", {"%D/sub/inner.txt", "%D/empty"}, {"%D/empty/inner.txt"});
        row("move a folder", "bMoveFile(%D/sub,%D/moved)", "true", {"%D/moved/inner.txt=I"}, {"%D/sub"});
        row("rename to a name", "bReNameFile(%D/a.jpg,renamed.jpg)", "true", {"%D/renamed.jpg=A"}, {"%D/a.jpg"});
        row("rename to a path", "bReNameFile(%D/a.jpg,%D/sub/r.jpg)", "true", {"%D/sub/r.jpg=A"}, {"%D/a.jpg"});
        row("rename never overwrites", "bReNameFile(%D/a.jpg,b.jpg)", "false", {"%D/a.jpg=A", "%D/b.jpg=B"});
        row("delete forever", "bDeleteFileForever(%D/a.jpg)", "true", {}, {"%D/a.jpg"});
        row("delete forever: first field only", "bDeleteFileForever(%D/a.jpg,%D/b.jpg)", "true", {"%D/b.jpg"}, {"%D/a.jpg"});
        row("delete forever: nothing", "bDeleteFileForever(%D/none.jpg)", "false");
        row("delete forever: full folder kept", "bDeleteFileForever(%D/sub)", "false", {"%D/sub/inner.txt"});
        row("delete forever: empty folder", "bDeleteFileForever(%D/empty)", "true", {}, {"%D/empty"});
        row("delete to trash", "bDeleteFile(%D/a.jpg)", "true", {"%T/files/a.jpg=A", "%T/info/a.jpg.trashinfo"}, {"%D/a.jpg"});
        row("delete a folder to trash", "bDeleteFile(%D/sub)", "true", {"%T/files/sub/inner.txt=I"}, {"%D/sub"});
        row("delete to trash: nothing", "bDeleteFile(%D/none.jpg)", "false");
        row("open a file", "OpenFile(%D/a.jpg)", "true", {"%D/app/open.sh.txt=%D/a.jpg"});
        row("open a folder", "OpenFile(%D/sub)", "true", {"%D/app/open.sh.txt=%D/sub"});
        row("show a file's folder", "bDispPath(%D/a.jpg)", "true", {"%D/app/open.sh.txt=%D"});
        row("show a folder", "bDispPath(%D/sub)", "true", {"%D/app/open.sh.txt=%D/sub"});
        row("open nothing", "OpenFile(%D/none.jpg)", "false");
        row("show nothing", "bDispPath(%D/none)", "false");
        row("temp path", "sGetTempPath(x,y)", "/tmp", {}, {}, false);
        // Files only, not recursively, by extension in any case; "jpg", ".jpg" and "*.jpg" alike.
        const QString jpgs = "%D/a.jpg|%D/b.jpg|%D/d.Jpg|%D/x,y.jpg|%D/z.JPG";
        row("format jpg", "sGetAllFormatFiles(%D,jpg)", jpgs);
        row("format .jpg", "sGetAllFormatFiles(%D,.jpg)", jpgs);
        row("format *.jpg", "sGetAllFormatFiles(%D,*.jpg)", jpgs);
        row("format JPG", "sGetAllFormatFiles(%D,JPG)", jpgs);
        row("format tar.gz", "sGetAllFormatFiles(%D,tar.gz)", "%D/pack.tar.gz");
        row("format, none match", "sGetAllFormatFiles(%D,tif)", "");
        row("format *", "sGetAllFormatFiles(%D,*)", "%D/a.jpg|%D/b.jpg|%D/big.bin|%D/d.Jpg|%D/jpg|%D/pack.tar.gz|%D/x,y.jpg|%D/z.JPG");
        row("format, no folder", "sGetAllFormatFiles(%D/none,jpg)", "");
        row("format, one field", "sGetAllFormatFiles(/data)", "", {}, {}, false);

        // File roots: everything outside "%D/in" is refused before the library is called.
        rooted("save outside", "bSaveJPG(%D/out,s)", "false", {}, {"%D/out/s.jpg"});
        rooted("save by an absolute name", "bSaveJPG(%D/in,%D/out/s)", "false", {}, {"%D/out/s.jpg"});
        rooted("save onto a link leading out", "bSaveJPG(%D/in,new)", "false", {}, {"%D/out/new.jpg"});
        rooted("save inside", "bSaveJPG(%D/in,s)", "true", {"%D/in/s.jpg"}, {}, true);
        rooted("grey inside, tiff outside", "bSaveGrayAndTIF(%D/in,g,%D/out,t)", "false", {}, {"%D/in/g.jpg", "%D/out/t.tif"});
        rooted("split into outside", "SplitPic(%D/in/a.jpg,%D/out/p)", "false", {}, {"%D/out/p_1.jpg"});
        rooted("split beside a source outside", "SplitPic(%D/out/b.jpg,p)", "false", {}, {"%D/out/p_1.jpg"});
        rooted("copy out", "bCopyFile(%D/in/a.jpg,%D/out/c.jpg)", "false", {}, {"%D/out/c.jpg"});
        rooted("copy in from outside", "bCopyFile(%D/out/b.jpg,%D/in/c.jpg)", "false", {}, {"%D/in/c.jpg"});
        rooted("copy inside", "bCopyFile(%D/in/a.jpg,%D/in/c.jpg)", "true", {"%D/in/c.jpg=A"}, {}, true);
        rooted("move out", "bMoveFile(%D/in/a.jpg,%D/out/a.jpg)", "false", {"%D/in/a.jpg"}, {"%D/out/a.jpg"});
        rooted("rename by name outside", "bReNameFile(%D/out/b.jpg,c.jpg)", "false", {"%D/out/b.jpg"}, {"%D/out/c.jpg"});
        rooted("rename by name inside", "bReNameFile(%D/in/a.jpg,r.jpg)", "true", {"%D/in/r.jpg=A"}, {"%D/in/a.jpg"}, true);
        rooted("delete outside", "bDeleteFile(%D/out/b.jpg)", "false", {"%D/out/b.jpg"});
        rooted("delete through ..", "bDeleteFileForever(%D/in/../out/b.jpg)", "false", {"%D/out/b.jpg"});
        rooted("delete through a link", "bDeleteFileForever(%D/in/link/b.jpg)", "false", {"%D/out/b.jpg"});
        rooted("delete inside", "bDeleteFile(%D/in/a.jpg)", "true", {}, {"%D/in/a.jpg"}, true);
        rooted("exists outside", "bFileIsExist(%D/out/b.jpg)", "false");
        rooted("a sibling sharing the prefix", "bFileIsExist(%D/inb/b.jpg)", "false");
        rooted("a root itself", "bDirIsExist(%D/in)", "true", {}, {}, true);
        rooted("inside through a link", "bFileIsExist(%D/rootlink/a.jpg)", "true", {}, {}, true);
        rooted("relative to the current folder", "bFileIsExist(a.jpg)", "false");
        rooted("links that loop", "bFileIsExist(%D/in/loop)", "false");
        rooted("create outside", "bCreateDir(%D/out/new)", "false", {}, {"%D/out/new"});
        rooted("list outside", "sGetAllFormatFiles(%D/out,jpg)", "");
        rooted("open outside", "OpenFile(%D/out/b.jpg)", "false");
        rooted("show outside", "bDispPath(%D/out)", "false");
        rooted("encode outside", "Base64Encode(%D/out/b.jpg)", "");
        rooted("encode inside", "Base64Encode(%D/in/a.jpg)", "QQ==", {}, {}, true);
        rooted("decode outside", "Base64Decode(QUJD,%D/out/d.bin)", "false", {}, {"%D/out/d.bin"});
        rooted("decode inside", "Base64Decode(QUJD,%D/in/d.bin)", "true", {"%D/in/d.bin=ABC"}, {}, true);
        rooted("pdf into outside", "bSavePDFStart(%D/out,doc)", "false", {}, {"%D/out/doc.pdf"});
        rooted("ofd inside", "bSaveOFDStart(%D/in,doc)", "true", {}, {}, true);
        rooted("pdf page from outside", "bAddPDFColorPage(%D/out/b.jpg)", "false");
        rooted("ofd page from outside", "bAddOFDPage(%D/out/b.jpg,1)", "false");
        rooted("merge into outside", "bSaveMergeStart(%D/out,m,2,1,100,100)", "false");
        rooted("book scan into outside", "bBookScanner(%D/out,b)", "false");
        rooted("timed scan into outside", "iTimerScan(1,%D/out,p,5)", "true");
        rooted("upload from outside", "bUpLoadImage(http://127.0.0.1:9/,%D/out/b.jpg,1,)", "false");
        rooted("upload text from outside", "sUpLoadImageEx2(http://127.0.0.1:9/,%D/out/b.jpg,1,)", "");
    }

    void commands()
    {
        QFETCH(QString, roots);
        QFETCH(QString, command);
        QFETCH(QString, result);
        QFETCH(QStringList, present);
        QFETCH(QStringList, absent);
        QFETCH(bool, called);
        pathpolicy::setRoots(roots.isEmpty() ? QStringList() : QStringList{expand(roots)});
        if (command.startsWith(QLatin1String("bSave")))
            QVERIFY(::bStartPlay(0));
        Trace trace;
        LogCapture log(QStringLiteral("fileRoots: "));
        const QString name = command.left(command.indexOf('('));
        QCOMPARE(run(expand(command)), QStringLiteral("Begin%1%2End%1").arg(name, expand(result)));
        QCOMPARE(!trace.calls().isEmpty(), called);
        // A refusal by the roots says so once, naming the command.
        QCOMPARE(log.lines().size(), roots.isEmpty() || called ? 0 : 1);
        QVERIFY(log.lines().filter(name).size() == log.lines().size());
        for (const QString& p : present) {
            const QString path = expand(p.section('=', 0, 0));
            QVERIFY2(waitFor([&] { return onDisk(path); }), qPrintable(path));   // an opener runs detached
            const QString content = expand(p.section('=', 1));
            if (p.contains('='))
                QCOMPARE(readFile(path), content.startsWith('@') ? readFile(content.mid(1)) : content.toUtf8());
        }
        for (const QString& p : absent)
            QVERIFY2(!onDisk(expand(p)), qPrintable(expand(p)));
    }

    void resolve_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("root");
        QTest::addColumn<QString>("resolved");   // empty: cannot be resolved
        QTest::addColumn<bool>("allowed");
        QTest::newRow(". and //") << "%D/in/.//a.jpg" << "%D/in" << "%D/in/a.jpg" << true;
        QTest::newRow("dangling link") << "%D/in/new.jpg" << "%D/in" << "%D/out/new.jpg" << false;
        QTest::newRow(".. after a dangling link") << "%D/in/new.jpg/../x" << "%D/in" << "%D/out/x" << false;
        QTest::newRow("relative path") << "x/../y" << "%C" << "%C/y" << true;
        QTest::newRow("above /") << "/../.." << "/" << "/" << true;
        QTest::newRow("root itself, written with /") << "%D/in" << "%D/in/" << "%D/in" << true;
        QTest::newRow("root through a link") << "%D/in/a.jpg" << "%D/rootlink" << "%D/in/a.jpg" << true;
        QTest::newRow("/data/a is not inside /data/ab") << "%D/in" << "%D/inb" << "%D/in" << false;
        QTest::newRow("everything inside /") << "/etc/passwd" << "/" << "/etc/passwd" << true;
    }

    void resolve()
    {
        QFETCH(QString, path);
        QFETCH(QString, root);
        QFETCH(QString, resolved);
        QFETCH(bool, allowed);
        QCOMPARE(pathpolicy::resolve(expand(path)), resolved.isEmpty() ? QString() : expand(resolved));
        QVERIFY(pathpolicy::allowed(expand(path), "test"));   // no roots, no restriction
        pathpolicy::setRoots({expand(root)});
        QCOMPARE(pathpolicy::allowed(expand(path), "test"), allowed);
    }

    // Same-named files keep separate slots; each .trashinfo gives the original place,
    // percent-encoded, and the time.
    void trashLayout()
    {
        const QString name = QStringLiteral("my scan é%.jpg");
        const QStringList originals{dir() + "/" + name, dir() + "/sub/" + name};
        QVERIFY(writeFile(originals[0], "first") && writeFile(originals[1], "second"));
        const QDateTime before = QDateTime::currentDateTime().addSecs(-1);
        for (const QString& p : originals)
            QCOMPARE(run("bDeleteFile(" + p + ")"), QStringLiteral("BeginbDeleteFiletrueEndbDeleteFile"));
        const QStringList infos = QDir(trash() + "/info").entryList(QDir::Files);
        QCOMPARE(infos.size(), 2);
        QStringList restored;
        for (const QString& info : infos) {
            const QStringList lines = QString::fromUtf8(readFile(trash() + "/info/" + info)).split('\n', Qt::SkipEmptyParts);
            QCOMPARE(lines.size(), 3);
            QCOMPARE(lines[0], QStringLiteral("[Trash Info]"));
            QVERIFY2(lines[1].startsWith("Path=") && lines[1].contains("my%20scan%20%C3%A9%25.jpg"), qPrintable(lines[1]));
            const QString original = QUrl::fromPercentEncoding(lines[1].mid(5).toLatin1());
            const QDateTime when = QDateTime::fromString(lines[2].section('=', 1), Qt::ISODate);
            QVERIFY(when >= before && when <= QDateTime::currentDateTime().addSecs(1));
            QCOMPARE(readFile(trash() + "/files/" + info.chopped(10)), QByteArray(original == originals[0] ? "first" : "second"));
            restored << original;
        }
        restored.sort();
        QCOMPARE(restored, originals);
    }

    void companionScripts_data()
    {
        QTest::addColumn<QStringList>("scripts");
        QTest::addColumn<QString>("result");
        QTest::newRow("both") << QStringList{"run-elecsign.sh", "run-webbrowser.sh"} << "true";
        QTest::newRow("signature only") << QStringList{"run-elecsign.sh"} << "false";
        QTest::newRow("browser only") << QStringList{"run-webbrowser.sh"} << "false";
    }

    void companionScripts()
    {
        QFETCH(QStringList, scripts);
        QFETCH(QString, result);
        for (const QString& s : scripts)
            writeFile(dir() + "/app/" + s, "#!/bin/bash\n");
        portable::loadProfileText(QJsonDocument(QJsonObject{{"files", QJsonObject{{"companionDir", dir() + "/app"}}}}).toJson());
        QCOMPARE(run("IsExeExist(ignored)"), QStringLiteral("BeginIsExeExist%1EndIsExeExist").arg(result));
    }

    void scriptedResultsChangeTheReply()
    {
        applyScript(R"({"bFileIsExist": [false], "sGetAllFormatFiles": ["/x/1.jpg|/x/2.jpg", null], "bDeleteFileForever": [true]})");
        QCOMPARE(run(expand("bFileIsExist(%D/a.jpg)")), QStringLiteral("BeginbFileIsExistfalseEndbFileIsExist"));
        QCOMPARE(run("sGetAllFormatFiles(/x,jpg)"), QStringLiteral("BeginsGetAllFormatFiles/x/1.jpg|/x/2.jpgEndsGetAllFormatFiles"));
        QCOMPARE(run("sGetAllFormatFiles(/x,jpg)"), QStringLiteral("BeginsGetAllFormatFilesEndsGetAllFormatFiles"));
        // A scripted delete does no real work.
        QCOMPARE(run(expand("bDeleteFileForever(%D/a.jpg)")), QStringLiteral("BeginbDeleteFileForevertrueEndbDeleteFileForever"));
        QVERIFY(QFileInfo::exists(dir() + "/a.jpg"));
        // An opener that cannot be started is a failure.
        portable::loadProfileText(R"({"open": {"command": "/no/such/program"}})");
        QCOMPARE(run(expand("OpenFile(%D/a.jpg)")), QStringLiteral("BeginOpenFilefalseEndOpenFile"));
    }
};

QTEST_GUILESS_MAIN(TestFiles)
#include "tst_files.moc"
