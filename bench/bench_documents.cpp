// Documents from a 5 MP camera, in process: how long a page and the end take, and what a
// colour and a black-and-white page cost in the file. Prints "key value" lines.
//   bench_documents [pages]      (default 10)
#include "devicelib/doccamera.h"
#include "devicelib/portable/core.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QGuiApplication>
#include <QTemporaryDir>

#include <cstdio>
#include <functional>

namespace {

// Wall time of one call in milliseconds; false from the call aborts the run.
double timed(const char* what, const std::function<bool()>& call)
{
    QElapsedTimer t;
    t.start();
    if (!call()) {
        std::fprintf(stderr, "%s failed\n", what);
        std::exit(1);
    }
    return t.nsecsElapsed() / 1e6;
}

void document(const char* kind, int pages, bool mono, const QString& dir)
{
    const bool pdf = kind[0] == 'p';
    const QByteArray folder = dir.toUtf8();
    const QByteArray name = QByteArray(kind) + (mono ? "_bw" : "_colour");
    timed("start", [&] { return pdf ? bSavePDFStart(folder, name) : bSaveOFDStart(folder, name); });
    double pageMs = 0;
    for (int i = 0; i < pages; ++i)
        pageMs += timed("page", [&] {
            return pdf ? (mono ? bSavePDFBWPage() : bSavePDFColorPage()) : (mono ? bSaveOFDBWPage() : bSaveOFDColorPage());
        });
    const double endMs = timed("end", [&] { return pdf ? bSavePDFEnd() : bSaveOFDEnd(); });
    const qint64 bytes = QFileInfo(dir + "/" + name + (pdf ? ".pdf" : ".ofd")).size();
    std::printf("%s_page_ms %.1f\n%s_end_ms %.1f\n%s_kib_per_page %.1f\n", name.constData(), pageMs / pages, name.constData(),
                endMs, name.constData(), bytes / 1024.0 / pages);
}

}  // namespace

int main(int argc, char** argv)
{
    QGuiApplication app(argc, argv);
    const int pages = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10;
    portable::loadProfileText(R"({"camera":{"sources":{"1":{"type":"synthetic","width":2592,"height":1944,"fps":15}}}})");
    QTemporaryDir dir;
    if (!bStartPlay(0))
        return 1;
    for (const char* kind : {"pdf", "ofd"})
        for (bool mono : {false, true})
            document(kind, pages, mono, dir.path());
    bStopPlay();
    return 0;
}
