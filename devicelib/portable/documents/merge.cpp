// Merged images: camera shots laid into a grid of cells, row by row, on white; the usual use
// is the front and back of an ID card in one column of two rows.
#include "devicelib/portable/camera/camera.h"
#include "devicelib/portable/camera/camerastills.h"
#include "devicelib/portable/core.h"
#include "devicelib/portable/documents/documents.h"

#include <QFileInfo>

#include <opencv2/imgproc.hpp>

#include <cstdio>

namespace portable {

namespace {

constexpr long long kMaxCells = 100;    // columns or rows
constexpr long long kMaxSide = 20000;   // pixels of the merged image, either side

}  // namespace

bool Merge::start(const char* folder, const char* name, long long columns, long long rows, long long cellWidth,
                  long long cellHeight)
{
    const char* fn = "bSaveMergeStart";
    if (columns < 0 || rows < 0 || columns > kMaxCells || rows > kMaxCells) {
        logLine(QStringLiteral("%1: %2 columns and %3 rows: each must be 0 to %4").arg(QLatin1String(fn)).arg(columns).arg(rows).arg(kMaxCells));
        return false;
    }
    const long long cols = columns == 0 ? 1 : columns;
    // Each side alone first, so that the products below cannot overflow.
    if (cellWidth < 0 || cellHeight < 0 || cellWidth > kMaxSide || cellHeight > kMaxSide || cols * cellWidth > kMaxSide
        || rows * cellHeight > kMaxSide) {
        logLine(QStringLiteral("%1: cells of %2 x %3 pixels in %4 columns and %5 rows: the image would be over %6 pixels a side")
                    .arg(QLatin1String(fn)).arg(cellWidth).arg(cellHeight).arg(cols).arg(rows).arg(kMaxSide));
        return false;
    }
    QString path = documentPath(fn, folder, name, QString());
    if (path.isEmpty())
        return false;
    if (QFileInfo(path).suffix().isEmpty())
        path += QStringLiteral(".jpg");
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_open)
        logLine(QStringLiteral("%1: the unfinished merge \"%2\" (%3 pages) is discarded").arg(QLatin1String(fn), m_path).arg(m_cells.size()));
    m_open = true;
    m_path = path;
    m_columns = static_cast<int>(cols);
    m_rows = static_cast<int>(rows);
    m_cellW = static_cast<int>(cellWidth);
    m_cellH = static_cast<int>(cellHeight);
    m_cells.clear();
    return true;
}

bool Merge::addCamera()
{
    const char* fn = "bSaveMergePage";
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_open) {
            logLine(QStringLiteral("%1: no merge is open").arg(QLatin1String(fn)));
            return false;
        }
        if (m_rows > 0 && static_cast<int>(m_cells.size()) >= m_columns * m_rows) {
            logLine(QStringLiteral("%1: all %2 cells of \"%3\" are full").arg(QLatin1String(fn)).arg(m_columns * m_rows).arg(m_path));
            return false;
        }
    }
    StillFormat format;
    cv::Mat shot = camera().stillFrame(fn, &format);
    if (shot.empty())
        return false;
    if (shot.channels() == 1)
        cv::cvtColor(shot, shot, cv::COLOR_GRAY2BGR);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_open)
        return false;
    int cw = m_cellW > 0 ? m_cellW : shot.cols;
    int ch = m_cellH > 0 ? m_cellH : shot.rows;
    const long long rowsNeeded = m_rows > 0 ? m_rows : static_cast<long long>(m_cells.size()) / m_columns + 1;
    if (static_cast<long long>(m_columns) * cw > kMaxSide || rowsNeeded * ch > kMaxSide) {
        logLine(QStringLiteral("%1: %2 x %3 cells of %4 x %5 pixels would be over %6 pixels a side")
                    .arg(QLatin1String(fn)).arg(m_columns).arg(rowsNeeded).arg(cw).arg(ch).arg(kMaxSide));
        return false;
    }
    if (m_cells.empty()) {
        m_cellW = cw;
        m_cellH = ch;
        m_dpiX = format.dpiX;
        m_dpiY = format.dpiY;
        m_quality = format.quality;
    }
    // Fitted into the cell keeping its aspect, centred on white.
    const double scale = std::min(static_cast<double>(cw) / shot.cols, static_cast<double>(ch) / shot.rows);
    const int w = std::max(1, std::min(cw, static_cast<int>(shot.cols * scale + 0.5)));
    const int h = std::max(1, std::min(ch, static_cast<int>(shot.rows * scale + 0.5)));
    cv::Mat cell(ch, cw, CV_8UC3, cv::Scalar(255, 255, 255));
    cv::Mat fitted;
    cv::resize(shot, fitted, cv::Size(w, h), 0, 0, scale < 1 ? cv::INTER_AREA : cv::INTER_LINEAR);
    fitted.copyTo(cell(cv::Rect((cw - w) / 2, (ch - h) / 2, w, h)));
    m_cells.push_back(cell);
    return true;
}

cv::Mat Merge::compose(const std::vector<cv::Mat>& cells, int columns, int rows, int cellWidth, int cellHeight)
{
    const int n = static_cast<int>(cells.size());
    const int r = rows > 0 ? rows : (n + columns - 1) / columns;
    cv::Mat out(r * cellHeight, columns * cellWidth, CV_8UC3, cv::Scalar(255, 255, 255));
    for (int i = 0; i < n && i < r * columns; ++i)
        cells[static_cast<size_t>(i)].copyTo(out(cv::Rect((i % columns) * cellWidth, (i / columns) * cellHeight, cellWidth, cellHeight)));
    return out;
}

bool Merge::end()
{
    const char* fn = "bSaveMergeEnd";
    std::vector<cv::Mat> cells;
    QString path;
    StillFormat format;
    int columns = 1, rows = 0, cw = 0, ch = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_open) {
            logLine(QStringLiteral("%1: no merge is open").arg(QLatin1String(fn)));
            return false;
        }
        m_open = false;
        cells.swap(m_cells);
        path = m_path;
        columns = m_columns;
        rows = m_rows;
        cw = m_cellW;
        ch = m_cellH;
        format.dpiX = m_dpiX;
        format.dpiY = m_dpiY;
        format.quality = m_quality;
    }
    if (cells.empty()) {
        logLine(QStringLiteral("%1: \"%2\" has no page; nothing written").arg(QLatin1String(fn), path));
        return false;
    }
    const cv::Mat image = compose(cells, columns, rows, cw, ch);
    // Written under a temporary name and renamed, so the name never holds half an image.
    const QFileInfo fi(path);
    const QString temp = fi.absolutePath() + QStringLiteral("/.") + fi.fileName() + QStringLiteral(".part");
    const QString suffix = fi.suffix().toLower();
    bool ok = false;
    if (suffix == QLatin1String("png"))
        ok = writeQtFile(temp, image, format, "PNG");
    else if (suffix == QLatin1String("bmp"))
        ok = writeQtFile(temp, image, format, "BMP");
    else if (suffix == QLatin1String("tif"))
        ok = writeTiffFile(temp, image, format, false);
    else
        ok = writeJpegFile(temp, image, format);
    if (ok && std::rename(QFile::encodeName(temp).constData(), QFile::encodeName(path).constData()) != 0) {
        logLine(QStringLiteral("%1: cannot write \"%2\"").arg(QLatin1String(fn), path));
        ok = false;
    }
    if (!ok)
        QFile::remove(temp);
    return ok;
}

void Merge::discard()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_open = false;
    m_cells.clear();
}

}  // namespace portable
