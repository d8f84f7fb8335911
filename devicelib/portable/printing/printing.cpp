#include "devicelib/portable/printing/printing.h"
#include "devicelib/portable/camera/camera.h"
#include "devicelib/portable/camera/camerastills.h"
#include "devicelib/portable/core.h"

#include <QCoreApplication>
#include <QGuiApplication>
#include <QImageReader>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>
#include <QTemporaryDir>
#include <QTransform>

#include <cups/cups.h>

#include <opencv2/imgproc.hpp>

#include <memory>
#include <utility>

namespace portable {

namespace {

constexpr double kMarginMm = 5;   // a printable area most printers reach

struct DestDeleter {
    void operator()(cups_dest_t* d) const { cupsFreeDests(1, d); }
};

// The paper the destination prints on by default: A4 unless it says letter.
QPageSize paperOf(const cups_dest_t* dest)
{
    const char* media = cupsGetOption("media", dest->num_options, dest->options);
    if (media && QByteArray(media).contains("letter"))
        return QPageSize(QPageSize::Letter);
    return QPageSize(QPageSize::A4);
}

// One page per copy is not made: the copies are the job's "copies" attribute.
bool printImage(const char* fn, QImage picture, double dpiX, double dpiY, int copies, bool fit)
{
    // Turned to the paper's orientation: a landscape picture is rotated onto the portrait sheet.
    if (picture.width() > picture.height()) {
        picture = picture.transformed(QTransform().rotate(90));
        std::swap(dpiX, dpiY);
    }
    if (!qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
        logLine(QStringLiteral("%1: printing needs the GUI application (for the PDF writer)").arg(QLatin1String(fn)));
        return false;
    }
    const QString wanted = profileText(QStringLiteral("printer.name"), QString());
    std::unique_ptr<cups_dest_t, DestDeleter> dest(
        cupsGetNamedDest(CUPS_HTTP_DEFAULT, wanted.isEmpty() ? nullptr : wanted.toUtf8().constData(), nullptr));
    if (!dest) {
        logLine(wanted.isEmpty() ? QStringLiteral("%1: there is no default printer (%2)").arg(QLatin1String(fn), QString::fromUtf8(cupsLastErrorString()))
                                 : QStringLiteral("%1: there is no printer \"%2\" (key \"printer.name\" of %3)").arg(QLatin1String(fn), wanted, profileSource()));
        return false;
    }
    QTemporaryDir dir;
    const QString pdf = dir.filePath(QStringLiteral("print.pdf"));
    {
        QPdfWriter writer(pdf);
        writer.setCreator(QStringLiteral("rvowebSocketServer"));
        writer.setResolution(300);
        writer.setPageLayout(QPageLayout(paperOf(dest.get()), QPageLayout::Portrait, QMarginsF(), QPageLayout::Millimeter));
        QPainter p;
        if (!p.begin(&writer)) {
            logLine(QStringLiteral("%1: the PDF for the printer cannot be written").arg(QLatin1String(fn)));
            return false;
        }
        const QRectF page = writer.pageLayout().fullRectPixels(300);
        const double margin = kMarginMm / 25.4 * 300;
        const QRectF area = page.adjusted(margin, margin, -margin, -margin);
        // At the picture's own DPI, or scaled to the printable area (always when it would not fit).
        QSizeF size(picture.width() * 300.0 / dpiX, picture.height() * 300.0 / dpiY);
        if (fit || size.width() > area.width() || size.height() > area.height())
            size.scale(area.size(), Qt::KeepAspectRatio);
        const QRectF target(area.center().x() - size.width() / 2, area.center().y() - size.height() / 2, size.width(), size.height());
        p.setRenderHint(QPainter::SmoothPixmapTransform);
        p.drawImage(target, picture);
        p.end();
    }
    cups_option_t* options = nullptr;
    int count = cupsAddOption("copies", QByteArray::number(std::max(1, copies)).constData(), 0, &options);
    const int job = cupsPrintFile2(CUPS_HTTP_DEFAULT, dest->name, pdf.toUtf8().constData(), "rvowebSocketServer", count, options);
    cupsFreeOptions(count, options);
    if (job <= 0) {
        logLine(QStringLiteral("%1: printer \"%2\" refused the job: %3").arg(QLatin1String(fn), QString::fromUtf8(dest->name), QString::fromUtf8(cupsLastErrorString())));
        return false;
    }
    logLine(QStringLiteral("%1: job %2 on printer \"%3\", %4 copies").arg(QLatin1String(fn)).arg(job).arg(QString::fromUtf8(dest->name)).arg(std::max(1, copies)));
    return true;
}

}  // namespace

bool printCameraStill(int copies)
{
    StillFormat format;
    const cv::Mat still = camera().stillFrame("bPrint", &format);
    if (still.empty())
        return false;
    cv::Mat rgb;
    cv::cvtColor(still, rgb, still.channels() == 1 ? cv::COLOR_GRAY2RGB : cv::COLOR_BGR2RGB);
    const QImage picture(rgb.data, rgb.cols, rgb.rows, static_cast<int>(rgb.step[0]), QImage::Format_RGB888);
    return printImage("bPrint", picture, format.dpiX, format.dpiY, copies, false);
}

bool printImageFile(const char* fn, const char* path, bool local8, int copies, bool fit)
{
    const QString file = path ? (local8 ? QString::fromLocal8Bit(path) : QString::fromUtf8(path)) : QString();
    QImageReader reader(file);
    reader.setAutoTransform(true);
    const QImage picture = reader.read();
    if (picture.isNull()) {
        logLine(QStringLiteral("%1: \"%2\" cannot be read as an image (%3)").arg(QLatin1String(fn), file, reader.errorString()));
        return false;
    }
    // A file without a density reads as 96 dpi, as Qt gives it.
    const double dpiX = picture.dotsPerMeterX() > 0 ? picture.dotsPerMeterX() * 0.0254 : 96;
    const double dpiY = picture.dotsPerMeterY() > 0 ? picture.dotsPerMeterY() * 0.0254 : 96;
    return printImage(fn, picture, dpiX, dpiY, copies, fit);
}

}  // namespace portable
