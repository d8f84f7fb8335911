// Documents from the camera and from image files: multi-page PDF and OFD, merged images, and
// the automatic, timed and book scans. The C entry points (api.cpp) are one line each into
// the objects declared here.
#pragma once

#include <QByteArray>
#include <QImage>
#include <QPointer>
#include <QRectF>
#include <QSizeF>
#include <QString>

#include <opencv2/core.hpp>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

class QObject;

namespace portable {

struct StillFormat;

// One page of a document: the picture and where it sits, in millimetres.
struct DocPage {
    QByteArray jpeg;        // a colour page: JPEG bytes as the file or the camera gave them
    QImage mono;            // a black-and-white page: Format_Mono, colour table {black, white}
    QSize pixels;
    QSizeF pageMm;          // the page box
    QRectF imageMm;         // the picture's place on the page

    bool isMono() const { return !mono.isNull(); }
};

// A picture with its natural resolution, before it becomes a page.
struct Picture {
    QImage image;           // colour pictures: any format; mono pictures are made from it
    QByteArray jpeg;        // the original JPEG bytes when there are some (kept as they are)
    double dpiX = 200;
    double dpiY = 200;
};

namespace pages {

// The camera's current still (as bSaveJPG saves it) as a page at the camera's DPI, page size
// exactly the picture's. nullopt, with a log line, when no camera is open.
std::optional<DocPage> fromCamera(const char* fn, bool mono);
// An image file: JPEG, PNG, BMP or TIFF. nullopt, with a log line, when missing or unreadable.
std::optional<Picture> readFile(const char* fn, const QString& path);
// Base64 of a JPEG, PNG or BMP, with or without a "data:image/...;base64," prefix.
std::optional<Picture> readBase64(const char* fn, const char* text);
// A picture on a page: scale > 0 multiplies its natural size (page = picture, no margin);
// scale <= 0 fits it to A4 keeping its aspect, centred, landscape when wider than tall.
DocPage place(const Picture& picture, double scale, bool mono);
// 1-bit page: adaptive threshold, so text stays black across uneven lighting.
QImage toMono(const cv::Mat& bgrOrGrey);
cv::Mat toMat(const QImage& image);   // BGR copy

}  // namespace pages

// The folder and file name a start names: "<folder>/<name><ext>", the extension added when
// missing. Empty, with a log line, when the folder cannot be written or the name is empty.
QString documentPath(const char* fn, const char* folder, const char* name, const QString& ext);

// One open PDF or OFD document.
class PageDocument {
public:
    enum Kind { Pdf, Ofd };
    explicit PageDocument(Kind kind) : m_kind(kind) {}

    bool start(const char* fn, const char* folder, const char* name);
    bool addCamera(const char* fn, bool mono);
    bool addFile(const char* fn, const char* path, double scale, bool mono);
    bool addBase64(const char* fn, const char* text);
    bool end(const char* fn);
    void discard();

private:
    bool add(const char* fn, std::optional<DocPage> page);

    const Kind m_kind;
    std::mutex m_mutex;
    bool m_open = false;
    QString m_path;
    std::vector<DocPage> m_pages;
};

// Writers: atomic (a temporary name, then rename); false with a log line.
bool writePdf(const QString& path, const std::vector<DocPage>& pages);
bool writeOfd(const QString& path, const std::vector<DocPage>& pages);

// One open merged image.
class Merge {
public:
    bool start(const char* folder, const char* name, long long columns, long long rows, long long cellWidth,
               long long cellHeight);
    bool addCamera();
    bool end();
    void discard();

    // Composes the cells row by row on white; exposed for tests of the layout.
    static cv::Mat compose(const std::vector<cv::Mat>& cells, int columns, int rows, int cellWidth, int cellHeight);

private:
    std::mutex m_mutex;
    bool m_open = false;
    QString m_path;
    int m_columns = 1, m_rows = 0;
    int m_cellW = 0, m_cellH = 0;
    int m_dpiX = 300, m_dpiY = 300, m_quality = 80;
    std::vector<cv::Mat> m_cells;   // each page already fitted into its cell
};

// Thresholds of the automatic scan, on a grey picture 160 pixels wide, lightly blurred.
struct AutoScanTuning {
    int width = 160;
    int pixelDelta = 40;          // a pixel "differs" beyond this many grey levels
    double changed = 0.25;        // a new page: over a quarter of the picture differs from the last shot
    double small = 0.10;          // under a tenth is a small moving thing (a hand at the edge)
    int stillMs = 1000;           // held still this long before the shot
    int tickMs = 150;             // how often the newest frame is looked at
};

// The automatic and timed scans: one thread each, owned here, stopped with the camera.
class Scanner {
public:
    Scanner();
    ~Scanner();

    void setObserver(QObject* observer, const char* slot);
    int autoScan(int mode, const char* folder, const char* prefix);
    int timerScan(int mode, const char* folder, const char* prefix, int seconds);
    bool bookScan(const char* folder, const char* name, const char* name2);
    void stopAll();

private:
    struct Job {
        std::thread thread;
        std::mutex mutex;
        std::condition_variable wake;
        bool stop = false;
    };
    static void stopJob(std::unique_ptr<Job>& job);
    // What both scans do first: mode 0 stops the running one (1), any mode but 1 is refused (0),
    // a start needs a usable folder and an open camera (0). -1: the start may go on.
    int startOrStop(const char* fn, int mode, std::unique_ptr<Job>& running, const char* folder, QString* dir);
    void autoLoop(Job* job, QString folder, QString prefix);
    void timerLoop(Job* job, QString folder, QString prefix, int seconds);
    void report(int n);

    std::mutex m_mutex;   // the jobs and the observer
    std::unique_ptr<Job> m_auto;
    std::unique_ptr<Job> m_timer;
    QPointer<QObject> m_observer;
    QByteArray m_method;
};

// The module's state, made on first use; it stops its scans when the camera stops.
struct Documents {
    Documents();
    PageDocument pdf{PageDocument::Pdf};
    PageDocument ofd{PageDocument::Ofd};
    Merge merge;
    Scanner scanner;
};
Documents& documents();

// One scan shot: the camera's still saved as "<folder>/<file>" the way bSaveJPG saves it.
bool saveShot(const char* fn, const QString& folder, const QString& file);

}  // namespace portable
