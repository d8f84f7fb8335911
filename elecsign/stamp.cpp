#include <qpdf/QPDF.hh>
#include <qpdf/QPDFPageDocumentHelper.hh>
#include <qpdf/QPDFPageObjectHelper.hh>
#include <qpdf/QPDFWriter.hh>

#include "elecsign/stamp.h"

#include <QFileInfo>
#include <QPointF>
#include <QStringList>
#include <QTemporaryFile>

#include <cstdio>
#include <exception>
#include <string>

namespace stamp {

bool parsePlace(const QString& text, Place* place, QString* why)
{
    const QStringList parts = text.split(QLatin1Char(','));
    if (parts.size() < 4) {
        *why = QStringLiteral("location needs page, x, y and width: %1").arg(text);
        return false;
    }
    double v[5] = {0, 0, 0, 0, 0};
    for (int i = 0; i < parts.size() && i < 5; ++i) {
        bool ok = false;
        v[i] = parts[i].trimmed().toDouble(&ok);
        if (!ok || v[i] < 0) {
            *why = QStringLiteral("location part %1 is not a number: %2").arg(i + 1).arg(parts[i]);
            return false;
        }
    }
    place->page = int(v[0]);
    place->x = v[1];
    place->y = v[2];
    place->width = v[3];
    place->height = v[4];
    if (place->width <= 0) {
        *why = QStringLiteral("location width must be positive: %1").arg(text);
        return false;
    }
    return true;
}

namespace {

std::vector<QPDFPageObjectHelper> pagesOf(QPDF& pdf)
{
    return QPDFPageDocumentHelper(pdf).getAllPages();
}

bool open(QPDF& pdf, const QString& path, const Place& place, QString* why)
{
    if (!QFileInfo(path).isFile()) {
        *why = QStringLiteral("no such PDF: %1").arg(path);
        return false;
    }
    try {
        pdf.setSuppressWarnings(true);
        pdf.processFile(QFile::encodeName(path).constData());
        const int n = int(pagesOf(pdf).size());
        if (place.page < 1 || place.page > n) {
            *why = QStringLiteral("page %1 out of range 1..%2").arg(place.page).arg(n);
            return false;
        }
    } catch (const std::exception& e) {
        *why = QStringLiteral("not a PDF: %1").arg(QString::fromLocal8Bit(e.what()));
        return false;
    }
    return true;
}

QString num(double v) { return QString::number(v, 'f', 4); }

}  // namespace

bool check(const QString& path, const Place& place, QString* why)
{
    QPDF pdf;
    return open(pdf, path, place, why);
}

bool apply(const QString& path, const QString& out, const QImage& image, const Place& place, QString* why)
{
    QPDF pdf;
    if (!open(pdf, path, place, why))
        return false;
    try {
        QPDFPageObjectHelper page = pagesOf(pdf)[size_t(place.page - 1)];
        const QPDFObjectHandle::Rectangle box = page.getCropBox(true).getArrayAsRectangle();
        const double llx = std::min(box.llx, box.urx), urx = std::max(box.llx, box.urx);
        const double lly = std::min(box.lly, box.ury), ury = std::max(box.lly, box.ury);
        QPDFObjectHandle rotate = page.getAttribute("/Rotate", false);
        const int rotation = ((rotate.isInteger() ? int(rotate.getIntValue()) : 0) % 360 + 360) % 360;

        // From the shown page (top-left origin, y down) to the page's own space.
        const auto toPage = [&](double X, double Y) {
            switch (rotation) {
            case 90: return QPointF(llx + Y, lly + X);
            case 180: return QPointF(urx - X, lly + Y);
            case 270: return QPointF(urx - Y, ury - X);
            default: return QPointF(llx + X, ury - Y);
            }
        };
        const QImage img = image.convertToFormat(QImage::Format_RGBA8888);
        const double w = place.width;
        const double h = place.height > 0 ? place.height : w * img.height() / std::max(1, img.width());
        // The image's unit square: its bottom-left, bottom-right and top-left corners, upright as shown.
        const QPointF o = toPage(place.x, place.y + h), r = toPage(place.x + w, place.y + h), t = toPage(place.x, place.y);

        std::string rgb, alpha;
        rgb.reserve(size_t(img.width()) * img.height() * 3);
        alpha.reserve(size_t(img.width()) * img.height());
        for (int yy = 0; yy < img.height(); ++yy) {
            const uchar* line = img.constScanLine(yy);
            for (int xx = 0; xx < img.width(); ++xx) {
                rgb.append(reinterpret_cast<const char*>(line + xx * 4), 3);
                alpha.push_back(char(line[xx * 4 + 3]));
            }
        }
        const auto imageStream = [&](const std::string& bytes, const char* space) {
            QPDFObjectHandle s = pdf.newStream(bytes);
            QPDFObjectHandle d = s.getDict();
            d.replaceKey("/Type", QPDFObjectHandle::newName("/XObject"));
            d.replaceKey("/Subtype", QPDFObjectHandle::newName("/Image"));
            d.replaceKey("/Width", QPDFObjectHandle::newInteger(img.width()));
            d.replaceKey("/Height", QPDFObjectHandle::newInteger(img.height()));
            d.replaceKey("/ColorSpace", QPDFObjectHandle::newName(space));
            d.replaceKey("/BitsPerComponent", QPDFObjectHandle::newInteger(8));
            return s;
        };
        QPDFObjectHandle mask = imageStream(alpha, "/DeviceGray");
        QPDFObjectHandle picture = imageStream(rgb, "/DeviceRGB");
        picture.getDict().replaceKey("/SMask", mask);

        QPDFObjectHandle resources = page.getAttribute("/Resources", true);
        if (!resources.isDictionary()) {
            resources = QPDFObjectHandle::newDictionary();
            page.getObjectHandle().replaceKey("/Resources", resources);
        }
        if (!resources.getKey("/XObject").isDictionary())
            resources.replaceKey("/XObject", QPDFObjectHandle::newDictionary());
        QPDFObjectHandle xobjects = resources.getKey("/XObject");
        std::string name = "/RvoSignature";
        for (int i = 1; xobjects.hasKey(name); ++i)
            name = "/RvoSignature" + std::to_string(i);
        xobjects.replaceKey(name, picture);

        // The page's own drawing is wrapped so that a state it leaves behind cannot move ours.
        const QString draw = QStringLiteral("Q q %1 %2 %3 %4 %5 %6 cm %7 Do Q\n")
                                 .arg(num(r.x() - o.x()), num(r.y() - o.y()), num(t.x() - o.x()), num(t.y() - o.y()),
                                      num(o.x()), num(o.y()), QString::fromStdString(name));
        page.addPageContents(pdf.newStream("q\n"), true);
        page.addPageContents(pdf.newStream(draw.toStdString()), false);

        QTemporaryFile tmp(QFileInfo(out).absolutePath() + QStringLiteral("/.signing-XXXXXX.pdf"));
        tmp.setAutoRemove(false);
        if (!tmp.open()) {
            *why = QStringLiteral("cannot write beside %1: %2").arg(out, tmp.errorString());
            return false;
        }
        const QString tmpPath = tmp.fileName();
        tmp.close();
        {
            // The writer keeps the file name it is given until it has written: hold the bytes.
            const QByteArray tmpName = QFile::encodeName(tmpPath);
            QPDFWriter writer(pdf, tmpName.constData());
            writer.write();
        }
        if (std::rename(QFile::encodeName(tmpPath).constData(), QFile::encodeName(out).constData()) != 0) {
            QFile::remove(tmpPath);
            *why = QStringLiteral("cannot replace %1").arg(out);
            return false;
        }
    } catch (const std::exception& e) {
        *why = QStringLiteral("stamping failed: %1").arg(QString::fromLocal8Bit(e.what()));
        return false;
    }
    return true;
}

}  // namespace stamp
