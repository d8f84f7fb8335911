// Pages of a document: from the camera, from image files and from base64 text; their size on
// paper from their resolution; the 1-bit form of black-and-white pages.
#include "devicelib/portable/camera/camera.h"
#include "devicelib/portable/camera/camerasource.h"
#include "devicelib/portable/camera/camerastills.h"
#include "devicelib/portable/core.h"
#include "devicelib/portable/documents/documents.h"

#include <QBuffer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImageReader>
#include <QPainter>
#include <QtEndian>

#include <opencv2/imgproc.hpp>

#include <algorithm>

namespace portable {

namespace {

constexpr double kMmPerInch = 25.4;
constexpr double kA4Short = 210.0;
constexpr double kA4Long = 297.0;
constexpr double kDefaultDpi = 200.0;
constexpr int kMaxSide = 20000;                  // a side longer than this is no page
constexpr qint64 kMaxFileBytes = 256LL << 20;    // nor is a file bigger than this

QSizeF sizeMm(const QSize& px, double dpiX, double dpiY)
{
    return QSizeF(px.width() / dpiX * kMmPerInch, px.height() / dpiY * kMmPerInch);
}

// The resolution a file states, in dots per inch; false when it states none. Read from the
// headers directly: Qt fills in the screen's resolution when a file has none, which would
// make an undated scan come out at 96 DPI.
bool statedDpi(const QByteArray& b, const QImage& decoded, const QByteArray& format, double* x, double* y)
{
    auto u8 = [&](int i) { return static_cast<unsigned char>(b.at(i)); };
    if (format == "jpeg") {
        // JFIF APP0 right after the start marker: "JFIF\0", version, units, Xdensity, Ydensity.
        if (b.size() >= 20 && u8(2) == 0xff && u8(3) == 0xe0 && b.mid(6, 5) == QByteArray("JFIF\0", 5)) {
            const int units = u8(13);
            const int dx = (u8(14) << 8) | u8(15);
            const int dy = (u8(16) << 8) | u8(17);
            if ((units == 1 || units == 2) && dx > 0 && dy > 0) {
                const double f = units == 2 ? 2.54 : 1.0;
                *x = dx * f;
                *y = dy * f;
                return true;
            }
        }
        return false;
    }
    if (format == "png") {
        for (int i = 8; i + 12 <= b.size();) {
            const quint32 len = qFromBigEndian<quint32>(b.constData() + i);
            if (b.mid(i + 4, 4) == "pHYs" && len == 9 && i + 17 <= b.size()) {
                const quint32 px = qFromBigEndian<quint32>(b.constData() + i + 8);
                const quint32 py = qFromBigEndian<quint32>(b.constData() + i + 12);
                if (u8(i + 16) == 1 && px > 0 && py > 0) {   // per metre
                    *x = px * 0.0254;
                    *y = py * 0.0254;
                    return true;
                }
                return false;
            }
            if (b.mid(i + 4, 4) == "IDAT" || len > static_cast<quint32>(b.size()))
                return false;
            i += 12 + static_cast<int>(len);
        }
        return false;
    }
    if (format == "bmp") {
        if (b.size() < 46)
            return false;
        const qint32 px = qFromLittleEndian<qint32>(b.constData() + 38);
        const qint32 py = qFromLittleEndian<qint32>(b.constData() + 42);
        if (px <= 0 || py <= 0)
            return false;
        *x = px * 0.0254;
        *y = py * 0.0254;
        return true;
    }
    // TIFF: Qt's reader sets the resolution only when the file has one.
    const QImage plain(1, 1, QImage::Format_RGB32);
    if (decoded.dotsPerMeterX() == plain.dotsPerMeterX() && decoded.dotsPerMeterY() == plain.dotsPerMeterY())
        return false;
    *x = decoded.dotsPerMeterX() * 0.0254;
    *y = decoded.dotsPerMeterY() * 0.0254;
    return true;
}

std::optional<Picture> decode(const char* fn, const QByteArray& bytes, const QString& what, bool base64Kinds)
{
    QBuffer buffer;
    buffer.setData(bytes);
    buffer.open(QIODevice::ReadOnly);
    QImageReader reader(&buffer);
    const QByteArray format = reader.format();
    const QList<QByteArray> allowed = base64Kinds ? QList<QByteArray>{"jpeg", "png", "bmp"}
                                                  : QList<QByteArray>{"jpeg", "png", "bmp", "tiff"};
    if (!allowed.contains(format)) {
        logLine(QStringLiteral("%1: %2 is not a %3 image").arg(QLatin1String(fn), what,
                                                                base64Kinds ? QStringLiteral("JPEG, PNG or BMP")
                                                                            : QStringLiteral("JPEG, PNG, BMP or TIFF")));
        return std::nullopt;
    }
    const QSize size = reader.size();
    if (size.isValid() && (size.width() > kMaxSide || size.height() > kMaxSide)) {
        logLine(QStringLiteral("%1: %2 is %3 x %4 pixels, over %5 a side").arg(QLatin1String(fn), what).arg(size.width()).arg(size.height()).arg(kMaxSide));
        return std::nullopt;
    }
    Picture p;
    if (!reader.read(&p.image) || p.image.isNull() || p.image.width() > kMaxSide || p.image.height() > kMaxSide) {
        logLine(QStringLiteral("%1: %2 cannot be decoded (%3)").arg(QLatin1String(fn), what, reader.errorString()));
        return std::nullopt;
    }
    if (!statedDpi(bytes, p.image, format, &p.dpiX, &p.dpiY)) {
        p.dpiX = p.dpiY = kDefaultDpi;
    }
    if (format == "jpeg")
        p.jpeg = bytes;
    return p;
}

QByteArray jpegOf(const QImage& image, int quality)
{
    // Transparent parts of a PNG become white paper.
    QImage flat(image.size(), QImage::Format_RGB32);
    flat.fill(Qt::white);
    {
        QPainter p(&flat);
        p.drawImage(0, 0, image);
    }
    const cv::Mat bgr = pages::toMat(flat);
    const std::vector<unsigned char> jpeg = encodeJpeg(bgr, quality);
    return QByteArray(reinterpret_cast<const char*>(jpeg.data()), static_cast<int>(jpeg.size()));
}

}  // namespace

QString documentPath(const char* fn, const char* folder, const char* name, const QString& ext)
{
    const QString dir = folder ? QString::fromUtf8(folder) : QString();
    QString file = name ? QString::fromUtf8(name) : QString();
    if (file.isEmpty()) {
        logLine(QStringLiteral("%1: no file name given").arg(QLatin1String(fn)));
        return QString();
    }
    const QFileInfo fi(dir);
    if (dir.isEmpty() || !fi.isDir()) {
        logLine(QStringLiteral("%1: the folder \"%2\" does not exist").arg(QLatin1String(fn), dir));
        return QString();
    }
    if (!fi.isWritable()) {
        logLine(QStringLiteral("%1: the folder \"%2\" cannot be written").arg(QLatin1String(fn), dir));
        return QString();
    }
    if (!ext.isEmpty() && !file.endsWith(ext, Qt::CaseInsensitive))
        file += ext;
    return QDir(dir).filePath(file);
}

namespace pages {

cv::Mat toMat(const QImage& image)
{
    const QImage rgb = image.convertToFormat(QImage::Format_RGB888);
    cv::Mat out;
    cv::cvtColor(cv::Mat(rgb.height(), rgb.width(), CV_8UC3, const_cast<uchar*>(rgb.bits()), static_cast<size_t>(rgb.bytesPerLine())),
                 out, cv::COLOR_RGB2BGR);
    return out;
}

QImage toMono(const cv::Mat& bgrOrGrey)
{
    cv::Mat grey;
    if (bgrOrGrey.channels() == 1)
        grey = bgrOrGrey;
    else
        cv::cvtColor(bgrOrGrey, grey, cv::COLOR_BGR2GRAY);
    // Each pixel against the mean of its neighbourhood (about a thirtieth of the page): uneven
    // light and shadows at the edges stay white, strokes stay black.
    const int block = std::max(3, std::min(grey.cols, grey.rows) / 30) | 1;
    cv::Mat bw;
    cv::adaptiveThreshold(grey, bw, 255, cv::ADAPTIVE_THRESH_MEAN_C, cv::THRESH_BINARY, block, 15);
    QImage mono(bw.cols, bw.rows, QImage::Format_Mono);
    if (mono.isNull())
        return mono;
    // Index 0 black, 1 white, in that order: only then does the PDF writer keep it 1-bit.
    mono.setColorTable({qRgb(0, 0, 0), qRgb(255, 255, 255)});
    for (int y = 0; y < bw.rows; ++y) {
        const uchar* src = bw.ptr<uchar>(y);
        uchar* dst = mono.scanLine(y);
        std::fill(dst, dst + mono.bytesPerLine(), 0);
        for (int x = 0; x < bw.cols; ++x)
            if (src[x])
                dst[x >> 3] |= static_cast<uchar>(0x80 >> (x & 7));
    }
    return mono;
}

std::optional<DocPage> fromCamera(const char* fn, bool mono)
{
    StillFormat format;
    const cv::Mat img = camera().stillFrame(fn, &format, mono ? 1 : -1);
    if (img.empty())
        return std::nullopt;
    DocPage page;
    page.pixels = QSize(img.cols, img.rows);
    page.pageMm = sizeMm(page.pixels, format.dpiX, format.dpiY);
    page.imageMm = QRectF(QPointF(0, 0), page.pageMm);
    if (mono) {
        page.mono = toMono(img);
    } else {
        const std::vector<unsigned char> jpeg = encodeJpeg(img, format.quality, format.dpiX, format.dpiY);
        page.jpeg = QByteArray(reinterpret_cast<const char*>(jpeg.data()), static_cast<int>(jpeg.size()));
    }
    if ((mono && page.mono.isNull()) || (!mono && page.jpeg.isEmpty())) {
        logLine(QStringLiteral("%1: the shot could not be encoded").arg(QLatin1String(fn)));
        return std::nullopt;
    }
    return page;
}

std::optional<Picture> readFile(const char* fn, const QString& path)
{
    QFile f(path);
    if (path.isEmpty() || !QFileInfo(path).isFile()) {
        logLine(QStringLiteral("%1: the image file \"%2\" does not exist").arg(QLatin1String(fn), path));
        return std::nullopt;
    }
    if (f.size() > kMaxFileBytes) {
        logLine(QStringLiteral("%1: \"%2\" is too big for a page (%3 bytes)").arg(QLatin1String(fn), path).arg(f.size()));
        return std::nullopt;
    }
    if (!f.open(QIODevice::ReadOnly)) {
        logLine(QStringLiteral("%1: cannot read \"%2\" (%3)").arg(QLatin1String(fn), path, f.errorString()));
        return std::nullopt;
    }
    return decode(fn, f.readAll(), QStringLiteral("\"%1\"").arg(path), false);
}

std::optional<Picture> readBase64(const char* fn, const char* text)
{
    QByteArray data = text ? QByteArray(text) : QByteArray();
    if (data.startsWith("data:")) {
        const int comma = data.indexOf(',');
        if (comma < 0 || !data.left(comma).startsWith("data:image/") || !data.left(comma).endsWith(";base64")) {
            logLine(QStringLiteral("%1: the data prefix is not \"data:image/...;base64,\"").arg(QLatin1String(fn)));
            return std::nullopt;
        }
        data.remove(0, comma + 1);
    }
    // Pages wrap long texts; line breaks and blanks are not data.
    data = data.simplified().replace(' ', QByteArray());
    const auto decoded = QByteArray::fromBase64Encoding(data, QByteArray::AbortOnBase64DecodingErrors);
    if (data.isEmpty() || !decoded) {
        logLine(QStringLiteral("%1: the text (%2 characters) is not base64").arg(QLatin1String(fn)).arg(data.size()));
        return std::nullopt;
    }
    return decode(fn, *decoded, QStringLiteral("the base64 image"), true);
}

DocPage place(const Picture& picture, double scale, bool mono)
{
    DocPage page;
    page.pixels = picture.image.size();
    const QSizeF natural = sizeMm(page.pixels, picture.dpiX, picture.dpiY);
    if (scale > 0) {
        page.pageMm = natural * scale;
        page.imageMm = QRectF(QPointF(0, 0), page.pageMm);
    } else {
        const bool landscape = page.pixels.width() > page.pixels.height();
        page.pageMm = landscape ? QSizeF(kA4Long, kA4Short) : QSizeF(kA4Short, kA4Long);
        const QSizeF fitted = natural.scaled(page.pageMm, Qt::KeepAspectRatio);
        page.imageMm = QRectF(QPointF((page.pageMm.width() - fitted.width()) / 2, (page.pageMm.height() - fitted.height()) / 2), fitted);
    }
    if (mono)
        page.mono = toMono(toMat(picture.image));
    else
        page.jpeg = picture.jpeg.isEmpty() ? jpegOf(picture.image, 90) : picture.jpeg;
    return page;
}

}  // namespace pages
}  // namespace portable
