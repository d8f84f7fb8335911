// OFD (GB/T 33190-2016), the fixed-layout format Chinese archives take: a zip package with
//   OFD.xml                              the entry point, naming Doc_0/Document.xml
//   Doc_0/Document.xml                   the page list and MaxUnitID
//   Doc_0/DocumentRes.xml                one MultiMedia image resource per page, under Res/
//   Doc_0/Pages/Page_<i>/Content.xml     the page box and one ImageObject, Page_0 first
//   Doc_0/Res/Image_<i>.jpg / .png       colour JPEG, black-and-white 1-bit PNG
// Every length is in millimetres. IDs are unique in the document: page i uses 4i+1 (page),
// 4i+2 (image resource), 4i+3 (layer), 4i+4 (image object), so MaxUnitID is 4n.
#include "devicelib/portable/core.h"
#include "devicelib/portable/documents/documents.h"

#include <QBuffer>
#include <QDateTime>
#include <QFile>
#include <QUuid>
#include <QXmlStreamWriter>

#include <zip.h>

#include <list>

namespace portable {

namespace {

const QString kNs = QStringLiteral("http://www.ofdspec.org/2016");

QString num(double v)
{
    QString s = QString::number(v, 'f', 3);
    while (s.endsWith(QLatin1Char('0')))
        s.chop(1);
    if (s.endsWith(QLatin1Char('.')))
        s.chop(1);
    return s;
}

QString box(double x, double y, double w, double h)
{
    return QStringLiteral("%1 %2 %3 %4").arg(num(x), num(y), num(w), num(h));
}

// Writes one XML part: the ofd prefix on every element, as readers expect.
template <class F>
QByteArray xml(const QString& root, F&& body, const QList<QPair<QString, QString>>& attributes = {})
{
    QByteArray out;
    QXmlStreamWriter w(&out);
    w.setAutoFormatting(true);
    w.writeStartDocument();
    w.writeNamespace(kNs, QStringLiteral("ofd"));
    w.writeStartElement(kNs, root);
    for (const auto& a : attributes)
        w.writeAttribute(a.first, a.second);
    body(w);
    w.writeEndElement();
    w.writeEndDocument();
    return out;
}

void element(QXmlStreamWriter& w, const QString& name, const QString& text)
{
    w.writeTextElement(kNs, name, text);
}

}  // namespace

bool writeOfd(const QString& path, const std::vector<DocPage>& pages)
{
    const int n = static_cast<int>(pages.size());
    std::list<QByteArray> data;   // zip_close reads the buffers; they must stay put until then
    QList<QPair<QString, const QByteArray*>> entries;
    auto add = [&](const QString& name, QByteArray bytes) {
        data.push_back(std::move(bytes));
        entries.append({name, &data.back()});
    };

    add(QStringLiteral("OFD.xml"), xml(QStringLiteral("OFD"), [&](QXmlStreamWriter& w) {
            w.writeStartElement(kNs, QStringLiteral("DocBody"));
            w.writeStartElement(kNs, QStringLiteral("DocInfo"));
            element(w, QStringLiteral("DocID"), QUuid::createUuid().toString(QUuid::Id128));
            element(w, QStringLiteral("Creator"), QStringLiteral("rvowebSocketServer"));
            element(w, QStringLiteral("CreationDate"), QDate::currentDate().toString(Qt::ISODate));
            w.writeEndElement();
            element(w, QStringLiteral("DocRoot"), QStringLiteral("Doc_0/Document.xml"));
            w.writeEndElement();
        }, {{QStringLiteral("Version"), QStringLiteral("1.0")}, {QStringLiteral("DocType"), QStringLiteral("OFD")}}));

    add(QStringLiteral("Doc_0/Document.xml"), xml(QStringLiteral("Document"), [&](QXmlStreamWriter& w) {
            w.writeStartElement(kNs, QStringLiteral("CommonData"));
            element(w, QStringLiteral("MaxUnitID"), QString::number(4 * n));
            w.writeStartElement(kNs, QStringLiteral("PageArea"));
            element(w, QStringLiteral("PhysicalBox"), box(0, 0, pages.front().pageMm.width(), pages.front().pageMm.height()));
            w.writeEndElement();
            element(w, QStringLiteral("DocumentRes"), QStringLiteral("DocumentRes.xml"));
            w.writeEndElement();
            w.writeStartElement(kNs, QStringLiteral("Pages"));
            for (int i = 0; i < n; ++i) {
                w.writeEmptyElement(kNs, QStringLiteral("Page"));
                w.writeAttribute(QStringLiteral("ID"), QString::number(4 * i + 1));
                w.writeAttribute(QStringLiteral("BaseLoc"), QStringLiteral("Pages/Page_%1/Content.xml").arg(i));
            }
            w.writeEndElement();
        }));

    add(QStringLiteral("Doc_0/DocumentRes.xml"), xml(QStringLiteral("Res"), [&](QXmlStreamWriter& w) {
            w.writeStartElement(kNs, QStringLiteral("MultiMedias"));
            for (int i = 0; i < n; ++i) {
                const bool mono = pages[static_cast<size_t>(i)].isMono();
                w.writeStartElement(kNs, QStringLiteral("MultiMedia"));
                w.writeAttribute(QStringLiteral("ID"), QString::number(4 * i + 2));
                w.writeAttribute(QStringLiteral("Type"), QStringLiteral("Image"));
                w.writeAttribute(QStringLiteral("Format"), mono ? QStringLiteral("PNG") : QStringLiteral("JPEG"));
                element(w, QStringLiteral("MediaFile"), QStringLiteral("Image_%1.%2").arg(i).arg(mono ? "png" : "jpg"));
                w.writeEndElement();
            }
            w.writeEndElement();
        }, {{QStringLiteral("BaseLoc"), QStringLiteral("Res")}}));

    for (int i = 0; i < n; ++i) {
        const DocPage& p = pages[static_cast<size_t>(i)];
        add(QStringLiteral("Doc_0/Pages/Page_%1/Content.xml").arg(i), xml(QStringLiteral("Page"), [&](QXmlStreamWriter& w) {
                w.writeStartElement(kNs, QStringLiteral("Area"));
                element(w, QStringLiteral("PhysicalBox"), box(0, 0, p.pageMm.width(), p.pageMm.height()));
                w.writeEndElement();
                w.writeStartElement(kNs, QStringLiteral("Content"));
                w.writeStartElement(kNs, QStringLiteral("Layer"));
                w.writeAttribute(QStringLiteral("ID"), QString::number(4 * i + 3));
                w.writeEmptyElement(kNs, QStringLiteral("ImageObject"));
                w.writeAttribute(QStringLiteral("ID"), QString::number(4 * i + 4));
                w.writeAttribute(QStringLiteral("Boundary"), box(p.imageMm.x(), p.imageMm.y(), p.imageMm.width(), p.imageMm.height()));
                // The image space is the unit square, stretched over the boundary.
                w.writeAttribute(QStringLiteral("CTM"), QStringLiteral("%1 0 0 %2 0 0").arg(num(p.imageMm.width()), num(p.imageMm.height())));
                w.writeAttribute(QStringLiteral("ResourceID"), QString::number(4 * i + 2));
                w.writeEndElement();
                w.writeEndElement();
            }));
        if (p.isMono()) {
            QByteArray png;
            QBuffer buffer(&png);
            buffer.open(QIODevice::WriteOnly);
            if (!p.mono.save(&buffer, "PNG")) {
                logLine(QStringLiteral("bSaveOFDEnd: page %1 of \"%2\" cannot be encoded").arg(i + 1).arg(path));
                return false;
            }
            add(QStringLiteral("Doc_0/Res/Image_%1.png").arg(i), png);
        } else {
            add(QStringLiteral("Doc_0/Res/Image_%1.jpg").arg(i), p.jpeg);
        }
    }

    // libzip writes the package to a temporary file beside the name and renames it over the
    // name in zip_close, so a failed end leaves nothing under the final name.
    int error = 0;
    zip_t* zip = zip_open(QFile::encodeName(path).constData(), ZIP_CREATE | ZIP_TRUNCATE, &error);
    if (!zip) {
        zip_error_t ze;
        zip_error_init_with_code(&ze, error);
        logLine(QStringLiteral("bSaveOFDEnd: cannot write \"%1\" (%2)").arg(path, QString::fromLocal8Bit(zip_error_strerror(&ze))));
        zip_error_fini(&ze);
        return false;
    }
    for (const auto& e : entries) {
        zip_source_t* src = zip_source_buffer(zip, e.second->constData(), static_cast<zip_uint64_t>(e.second->size()), 0);
        const zip_int64_t index = src ? zip_file_add(zip, e.first.toUtf8().constData(), src, ZIP_FL_ENC_UTF_8) : -1;
        if (index < 0) {
            if (src)
                zip_source_free(src);
            logLine(QStringLiteral("bSaveOFDEnd: cannot add %1 to \"%2\" (%3)").arg(e.first, path, QString::fromLocal8Bit(zip_strerror(zip))));
            zip_discard(zip);
            return false;
        }
        // Pictures are compressed already; only the XML parts are deflated.
        if (!e.first.endsWith(QLatin1String(".xml")))
            zip_set_file_compression(zip, static_cast<zip_uint64_t>(index), ZIP_CM_STORE, 0);
    }
    if (zip_close(zip) != 0) {
        logLine(QStringLiteral("bSaveOFDEnd: cannot write \"%1\" (%2)").arg(path, QString::fromLocal8Bit(zip_strerror(zip))));
        zip_discard(zip);
        return false;
    }
    return true;
}

}  // namespace portable
