// One preview frame as the pages receive it: scaled to the page's preview size and sent as the
// bare base64 text of a JPEG at the image library's default quality.
#pragma once

#include <QByteArray>
#include <QImage>

// Scales to width x height (nearest pixel, aspect ignored), unless that would blow the frame up
// beyond tenfold, in which case it is scaled to ten times its own size; encodes it as JPEG
// (quality -1) and returns the base64 text (standard alphabet, "=" padding, no line breaks).
QByteArray previewFrameBase64(const QImage& frame, int width, int height);
