// File and path commands, through a real page, down to the file system; the file roots.
#include "devicelib/doccamera.h"
#include "devicelib/portable/core.h"
#include "dispatch/messagerun.h"
#include "files/pathpolicy.h"
#include "fixture.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QTest>
#include <QUrl>

#include <optional>

namespace {

// Something is at the path, a dangling link too.
bool onDisk(const QString& path) { return QFileInfo::exists(path) || QFileInfo(path).isSymLink(); }

// A "Begin<name><result>End<name>" reply.
QString framed(const QString& name, const QString& result) { return QStringLiteral("Begin%1%2End%1").arg(name, result); }

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
    QString expand(QString t) const { return t.replace("%D", dir()).replace("%T", trash()).replace("%C", QDir::current().canonicalPath()); }
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
        QByteArray big;   // more than one copy buffer
        for (int i = 0; i < 70000; ++i)
            big += static_cast<char>(i * 7);
        for (const auto& [name, content] : std::initializer_list<std::pair<QString, QByteArray>>{
                 {"a.jpg", "A"}, {"b.jpg", "B"}, {"x,y.jpg", "XY"}, {"big.bin", big}, {"sub/inner.txt", "I"}, {"d.Jpg", ""},
                 {"z.JPG", ""}, {"jpg", ""}, {"pack.tar.gz", ""}, {"folder.jpg/inside.jpg", ""}, {"in/a.jpg", "A"},
                 {"out/b.jpg", "B"}, {"inb/b.jpg", "B"}, {"empty/", ""}, {"links/", ""}, {"app/both/run-elecsign.sh", ""},
                 {"app/both/run-webbrowser.sh", ""}, {"app/sign/run-elecsign.sh", ""}, {"app/browser/run-webbrowser.sh", ""},
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
        QTest::addColumn<QString>("setup");   // a library script, or "profile " and a device profile
        // One row: its reply's result, paths that must be there afterwards ("path=content" also
        // checks the content, "=@other" the same bytes as another file), paths that must not, and
        // whether the library was called; by default it was, unless the file roots are in force.
        QString roots;
        QString setup;
        const auto row = [&](const char* tag, const QString& command, const QString& result, const QStringList& present = {},
                             const QStringList& absent = {}, std::optional<bool> called = {}) {
            QTest::newRow(tag) << roots << command << result << present << absent << called.value_or(roots.isEmpty()) << setup;
        };
        const auto setUp = [&](const char* how, const char* tag, const QString& command, const QString& result) {
            setup = QString::fromUtf8(how);
            row(tag, command, result, {"%D/a.jpg=A"});   // a scripted delete does no real work
            setup.clear();
        };
        row("file exists", "bFileIsExist(%D/a.jpg)", "true"); row("folder is no file", "bFileIsExist(%D/sub)", "false");
        row("no file", "bFileIsExist(%D/none.jpg)", "false"); row("one path keeps its comma", "bFileIsExist(%D/x,y.jpg)", "true");
        row("folder exists", "bDirIsExist(%D/sub)", "true"); row("file is no folder", "bDirIsExist(%D/a.jpg)", "false");
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
        row("open a file", "OpenFile(%D/a.jpg)", "true", {"%D/app/open.sh.txt=%D/a.jpg"}); row("open a folder", "OpenFile(%D/sub)", "true", {"%D/app/open.sh.txt=%D/sub"});
        row("show a file's folder", "bDispPath(%D/a.jpg)", "true", {"%D/app/open.sh.txt=%D"}); row("show a folder", "bDispPath(%D/sub)", "true", {"%D/app/open.sh.txt=%D/sub"});
        row("open nothing", "OpenFile(%D/none.jpg)", "false"); row("show nothing", "bDispPath(%D/none)", "false");
        row("temp path", "sGetTempPath(x,y)", "/tmp", {}, {}, false);
        // Files only, not recursively, by extension in any case; "jpg", ".jpg" and "*.jpg" alike.
        const QString jpgs = "%D/a.jpg|%D/b.jpg|%D/d.Jpg|%D/x,y.jpg|%D/z.JPG";
        for (const char* format : {"jpg", ".jpg", "*.jpg", "JPG"})
            row(qPrintable(QStringLiteral("format %1").arg(format)), QStringLiteral("sGetAllFormatFiles(%D,%1)").arg(format), jpgs);
        row("format tar.gz", "sGetAllFormatFiles(%D,tar.gz)", "%D/pack.tar.gz"); row("format, none match", "sGetAllFormatFiles(%D,tif)", "");
        row("format *", "sGetAllFormatFiles(%D,*)", "%D/a.jpg|%D/b.jpg|%D/big.bin|%D/d.Jpg|%D/jpg|%D/pack.tar.gz|%D/x,y.jpg|%D/z.JPG");
        row("format, no folder", "sGetAllFormatFiles(%D/none,jpg)", ""); row("format, one field", "sGetAllFormatFiles(/data)", "", {}, {}, false);

        // Results scripted for the library or set by the profile reach the page as they are.
        setUp(R"({"bFileIsExist": [false]})", "scripted result", "bFileIsExist(%D/a.jpg)", "false");
        setUp(R"({"sGetAllFormatFiles": ["/x/1.jpg|/x/2.jpg"]})", "scripted list", "sGetAllFormatFiles(/x,jpg)", "/x/1.jpg|/x/2.jpg");
        setUp(R"({"sGetAllFormatFiles": [null]})", "scripted null", "sGetAllFormatFiles(/x,jpg)", "");
        setUp(R"({"bDeleteFileForever": [true]})", "scripted delete", "bDeleteFileForever(%D/a.jpg)", "true");
        setUp(R"(profile {"open": {"command": "/no/such/program"}})", "opener that cannot start", "OpenFile(%D/a.jpg)", "false");
        setUp(R"(profile {"files": {"companionDir": "%D/app/both"}})", "both companions", "IsExeExist(ignored)", "true");
        setUp(R"(profile {"files": {"companionDir": "%D/app/sign"}})", "signature only", "IsExeExist(ignored)", "false");
        setUp(R"(profile {"files": {"companionDir": "%D/app/browser"}})", "browser only", "IsExeExist(ignored)", "false");

        // File roots: everything outside "%D/in" is refused before the library is called.
        roots = QStringLiteral("%D/in");
        row("save outside", "bSaveJPG(%D/out,s)", "false", {}, {"%D/out/s.jpg"});
        row("save by an absolute name", "bSaveJPG(%D/in,%D/out/s)", "false", {}, {"%D/out/s.jpg"});
        row("save onto a link leading out", "bSaveJPG(%D/in,new)", "false", {}, {"%D/out/new.jpg"});
        row("save inside", "bSaveJPG(%D/in,s)", "true", {"%D/in/s.jpg"}, {}, true);
        row("grey inside, tiff outside", "bSaveGrayAndTIF(%D/in,g,%D/out,t)", "false", {}, {"%D/in/g.jpg", "%D/out/t.tif"});
        row("split into outside", "SplitPic(%D/in/a.jpg,%D/out/p)", "false", {}, {"%D/out/p_1.jpg"});
        row("split beside a source outside", "SplitPic(%D/out/b.jpg,p)", "false", {}, {"%D/out/p_1.jpg"});
        row("copy out", "bCopyFile(%D/in/a.jpg,%D/out/c.jpg)", "false", {}, {"%D/out/c.jpg"});
        row("copy in from outside", "bCopyFile(%D/out/b.jpg,%D/in/c.jpg)", "false", {}, {"%D/in/c.jpg"});
        row("copy inside", "bCopyFile(%D/in/a.jpg,%D/in/c.jpg)", "true", {"%D/in/c.jpg=A"}, {}, true);
        row("move out", "bMoveFile(%D/in/a.jpg,%D/out/a.jpg)", "false", {"%D/in/a.jpg"}, {"%D/out/a.jpg"});
        row("rename by name outside", "bReNameFile(%D/out/b.jpg,c.jpg)", "false", {"%D/out/b.jpg"}, {"%D/out/c.jpg"});
        row("rename by name inside", "bReNameFile(%D/in/a.jpg,r.jpg)", "true", {"%D/in/r.jpg=A"}, {"%D/in/a.jpg"}, true);
        row("delete outside", "bDeleteFile(%D/out/b.jpg)", "false", {"%D/out/b.jpg"});
        row("delete through ..", "bDeleteFileForever(%D/in/../out/b.jpg)", "false", {"%D/out/b.jpg"});
        row("delete through a link", "bDeleteFileForever(%D/in/link/b.jpg)", "false", {"%D/out/b.jpg"});
        row("delete inside", "bDeleteFile(%D/in/a.jpg)", "true", {}, {"%D/in/a.jpg"}, true);
        row("exists outside", "bFileIsExist(%D/out/b.jpg)", "false"); row("a sibling sharing the prefix", "bFileIsExist(%D/inb/b.jpg)", "false");
        row("a root itself", "bDirIsExist(%D/in)", "true", {}, {}, true);
        row("inside through a link", "bFileIsExist(%D/rootlink/a.jpg)", "true", {}, {}, true);
        row("relative to the current folder", "bFileIsExist(a.jpg)", "false"); row("links that loop", "bFileIsExist(%D/in/loop)", "false");
        row("create outside", "bCreateDir(%D/out/new)", "false", {}, {"%D/out/new"});
        row("list outside", "sGetAllFormatFiles(%D/out,jpg)", ""); row("open outside", "OpenFile(%D/out/b.jpg)", "false");
        row("show outside", "bDispPath(%D/out)", "false"); row("encode outside", "Base64Encode(%D/out/b.jpg)", "");
        row("encode inside", "Base64Encode(%D/in/a.jpg)", "QQ==", {}, {}, true);
        row("decode outside", "Base64Decode(QUJD,%D/out/d.bin)", "false", {}, {"%D/out/d.bin"});
        row("decode inside", "Base64Decode(QUJD,%D/in/d.bin)", "true", {"%D/in/d.bin=ABC"}, {}, true);
        row("pdf into outside", "bSavePDFStart(%D/out,doc)", "false", {}, {"%D/out/doc.pdf"});
        row("ofd inside", "bSaveOFDStart(%D/in,doc)", "true", {}, {}, true);
        row("pdf page from outside", "bAddPDFColorPage(%D/out/b.jpg)", "false"); row("ofd page from outside", "bAddOFDPage(%D/out/b.jpg,1)", "false");
        row("merge into outside", "bSaveMergeStart(%D/out,m,2,1,100,100)", "false"); row("book scan into outside", "bBookScanner(%D/out,b)", "false");
        row("timed scan into outside", "iTimerScan(1,%D/out,p,5)", "true");
        row("upload from outside", "bUpLoadImage(http://127.0.0.1:9/,%D/out/b.jpg,1,)", "false");
        row("upload text from outside", "sUpLoadImageEx2(http://127.0.0.1:9/,%D/out/b.jpg,1,)", "");
    }

    void commands()
    {
        QFETCH(QString, roots);
        QFETCH(QString, command);
        QFETCH(QString, result);
        QFETCH(QStringList, present);
        QFETCH(QStringList, absent);
        QFETCH(bool, called);
        QFETCH(QString, setup);
        if (setup.startsWith(QLatin1String("profile ")))
            portable::loadProfileText(expand(setup.mid(8)).toUtf8());
        else if (!setup.isEmpty())
            applyScript(setup.toUtf8());
        pathpolicy::setRoots(roots.isEmpty() ? QStringList() : QStringList{expand(roots)});
        if (command.startsWith(QLatin1String("bSave")))
            QVERIFY(::bStartPlay(0));
        Trace trace;
        LogCapture log(QStringLiteral("fileRoots: "));
        const QString name = command.left(command.indexOf('('));
        QCOMPARE(run(expand(command)), framed(name, expand(result)));
        QCOMPARE(!trace.calls().isEmpty(), called);
        // A refusal by the roots says so once, naming the command.
        QCOMPARE(log.lines().size(), roots.isEmpty() || called ? 0 : 1);
        QVERIFY(log.lines().filter(name).size() == log.lines().size());
        for (const QString& p : present) {
            const QString path = expand(p.section('=', 0, 0)), content = expand(p.section('=', 1));
            QVERIFY2(waitFor([&] { return onDisk(path); }), qPrintable(path));   // an opener runs detached
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
        const QDateTime before = QDateTime::currentDateTime().addSecs(-1);
        for (const QString& p : originals)   // each holds its own path
            QVERIFY(writeFile(p, p.toUtf8()) && run("bDeleteFile(" + p + ")") == framed("bDeleteFile", "true"));
        const QStringList infos = QDir(trash() + "/info").entryList(QDir::Files);
        QCOMPARE(infos.size(), 2);
        QStringList restored;
        for (const QString& info : infos) {
            const QStringList lines = QString::fromUtf8(readFile(trash() + "/info/" + info)).split('\n', Qt::SkipEmptyParts);
            QCOMPARE(lines.size(), 3);
            QCOMPARE(lines[0], QStringLiteral("[Trash Info]"));
            QVERIFY2(lines[1].startsWith("Path=") && lines[1].contains("my%20scan%20%C3%A9%25.jpg"), qPrintable(lines[1]));
            restored << QUrl::fromPercentEncoding(lines[1].mid(5).toLatin1());
            QCOMPARE(readFile(trash() + "/files/" + info.chopped(10)), restored.last().toUtf8());
            const QDateTime when = QDateTime::fromString(lines[2].section('=', 1), Qt::ISODate);
            QVERIFY(when >= before && when <= QDateTime::currentDateTime().addSecs(1));
        }
        restored.sort();
        QCOMPARE(restored, originals);
    }
};

QTEST_GUILESS_MAIN(TestFiles)
#include "tst_files.moc"
