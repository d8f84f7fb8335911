// An open PDF or OFD document: pages collect in memory (colour pages as JPEG, black-and-white
// pages as 1-bit pictures) and the file is written whole at the end.
#include "devicelib/portable/core.h"
#include "devicelib/portable/documents/documents.h"

#include <QFile>

namespace portable {

bool PageDocument::start(const char* fn, const char* folder, const char* name)
{
    const QString path = documentPath(fn, folder, name, m_kind == Pdf ? QStringLiteral(".pdf") : QStringLiteral(".ofd"));
    if (path.isEmpty())
        return false;   // an open document stays as it was
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_open)
        logLine(QStringLiteral("%1: the unfinished document \"%2\" (%3 pages) is discarded").arg(QLatin1String(fn), m_path).arg(m_pages.size()));
    m_open = true;
    m_path = path;
    m_pages.clear();
    return true;
}

bool PageDocument::add(const char* fn, std::optional<DocPage> page)
{
    if (!page)
        return false;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_open) {
        logLine(QStringLiteral("%1: no document is open").arg(QLatin1String(fn)));
        return false;
    }
    m_pages.push_back(std::move(*page));
    return true;
}

bool PageDocument::addCamera(const char* fn, bool mono)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_open) {
            logLine(QStringLiteral("%1: no document is open").arg(QLatin1String(fn)));
            return false;
        }
    }
    return add(fn, pages::fromCamera(fn, mono));
}

bool PageDocument::addFile(const char* fn, const char* path, double scale, bool mono)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_open) {
            logLine(QStringLiteral("%1: no document is open").arg(QLatin1String(fn)));
            return false;
        }
    }
    // PDF pages name their file in the local 8-bit encoding, OFD pages in UTF-8.
    const QString file = !path ? QString() : m_kind == Pdf ? QFile::decodeName(path) : QString::fromUtf8(path);
    const auto picture = pages::readFile(fn, file);
    if (!picture)
        return false;
    DocPage page = pages::place(*picture, scale, mono);
    // PDF readers take pages up to 200 inches a side; a scale that gives more (or less than a
    // tenth of a millimetre) is a mistake, not a page.
    const double w = page.pageMm.width(), h = page.pageMm.height();
    if (!(w >= 0.1 && h >= 0.1 && w <= 5080 && h <= 5080)) {
        logLine(QStringLiteral("%1: a scale of %2 makes a page of %3 x %4 mm").arg(QLatin1String(fn)).arg(scale).arg(w).arg(h));
        return false;
    }
    return add(fn, std::move(page));
}

bool PageDocument::addBase64(const char* fn, const char* text)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_open) {
            logLine(QStringLiteral("%1: no document is open").arg(QLatin1String(fn)));
            return false;
        }
    }
    // Base64 pages take the defaults of file pages: A4 for PDF, natural size for OFD.
    const auto picture = pages::readBase64(fn, text);
    return picture && add(fn, pages::place(*picture, m_kind == Pdf ? -1.0 : 1.0, false));
}

bool PageDocument::end(const char* fn)
{
    std::vector<DocPage> pages;
    QString path;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_open) {
            logLine(QStringLiteral("%1: no document is open").arg(QLatin1String(fn)));
            return false;
        }
        m_open = false;   // closed whether or not the file gets written
        pages.swap(m_pages);
        path = m_path;
    }
    if (pages.empty()) {
        logLine(QStringLiteral("%1: \"%2\" has no page; nothing written").arg(QLatin1String(fn), path));
        return false;
    }
    return m_kind == Pdf ? writePdf(path, pages) : writeOfd(path, pages);
}

void PageDocument::discard()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_open = false;
    m_pages.clear();
}

}  // namespace portable
