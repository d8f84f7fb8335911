// Stamping a signature image into a PDF page with qpdf.
#pragma once

#include <QImage>
#include <QRectF>
#include <QString>

namespace stamp {

// Where the signature goes: page (1-based) and a rectangle in points from the top-left corner
// of the page's crop box as the page is shown (its rotation applied). A height of 0 follows the
// image's aspect.
struct Place {
    int page = 0;
    double x = 0, y = 0, width = 0, height = 0;
};

// Reads "page,x,y,width[,height]"; false when fewer than four numbers or one is not a number.
bool parsePlace(const QString& text, Place* place, QString* why);

// Checks that path is a PDF with the place's page; the reason otherwise.
bool check(const QString& path, const Place& place, QString* why);

// Writes path with the image drawn at place to out (which may be path itself: it is replaced
// atomically). The reason on failure.
bool apply(const QString& path, const QString& out, const QImage& image, const Place& place, QString* why);

}  // namespace stamp
