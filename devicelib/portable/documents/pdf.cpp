// PDF through Qt's PDF writer: one page per picture, the page exactly the picture's size on
// paper (or A4 around it). Qt embeds colour pictures as JPEG and keeps a Format_Mono picture
// with the colour table {black, white} as a 1-bit image.
#include "devicelib/portable/core.h"
#include "devicelib/portable/documents/documents.h"

#include <QFileInfo>
#include <QPageLayout>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>
#include <QSaveFile>

namespace portable {

bool writePdf(const QString& path, const std::vector<DocPage>& pages)
{
    QSaveFile file(path);   // a temporary beside it, renamed over the name on commit
    if (!file.open(QIODevice::WriteOnly)) {
        logLine(QStringLiteral("bSavePDFEnd: cannot write \"%1\" (%2)").arg(path, file.errorString()));
        return false;
    }
    bool ok = true;
    {
        QPdfWriter writer(&file);
        writer.setCreator(QStringLiteral("rvowebSocketServer"));
        writer.setTitle(QFileInfo(path).completeBaseName());
        writer.setResolution(600);
        auto layout = [](const DocPage& p) {
            // ExactMatch: a shot a hair off A4 keeps its own size instead of snapping to A4.
            return QPageLayout(QPageSize(p.pageMm, QPageSize::Millimeter, QString(), QPageSize::ExactMatch),
                               QPageLayout::Portrait, QMarginsF(0, 0, 0, 0), QPageLayout::Millimeter);
        };
        writer.setPageLayout(layout(pages.front()));
        QPainter painter;
        if (!painter.begin(&writer)) {
            logLine(QStringLiteral("bSavePDFEnd: the PDF writer cannot start on \"%1\"").arg(path));
            ok = false;
        }
        const double unitsPerMm = writer.resolution() / 25.4;
        for (size_t i = 0; ok && i < pages.size(); ++i) {
            const DocPage& p = pages[i];
            if (i > 0) {
                writer.setPageLayout(layout(p));   // applies from the next page on
                if (!writer.newPage()) {
                    logLine(QStringLiteral("bSavePDFEnd: cannot start page %1 of \"%2\"").arg(i + 1).arg(path));
                    ok = false;
                    break;
                }
            }
            const QRectF target(p.imageMm.x() * unitsPerMm, p.imageMm.y() * unitsPerMm, p.imageMm.width() * unitsPerMm,
                                p.imageMm.height() * unitsPerMm);
            if (p.isMono()) {
                painter.drawImage(target, p.mono);
            } else {
                const QImage image = QImage::fromData(p.jpeg, "JPEG");
                if (image.isNull()) {
                    logLine(QStringLiteral("bSavePDFEnd: page %1 of \"%2\" cannot be decoded").arg(i + 1).arg(path));
                    ok = false;
                    break;
                }
                painter.drawImage(target, image);
            }
        }
        if (painter.isActive())
            painter.end();
    }
    if (!ok) {
        file.cancelWriting();
        return false;
    }
    if (!file.commit()) {
        logLine(QStringLiteral("bSavePDFEnd: cannot write \"%1\" (%2)").arg(path, file.errorString()));
        return false;
    }
    return true;
}

}  // namespace portable
