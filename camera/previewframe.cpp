#include "camera/previewframe.h"
#include "camera/jpegbase64.h"

QByteArray previewFrameBase64(const QImage& frame, int width, int height)
{
    // The page asks for its size; a tiny camera frame is not blown up beyond tenfold.
    const QImage scaled = (width < 10 * frame.width() && height < 10 * frame.height())
        ? frame.scaled(width, height, Qt::IgnoreAspectRatio, Qt::FastTransformation)
        : frame.scaled(10 * frame.width(), 10 * frame.height(), Qt::IgnoreAspectRatio, Qt::FastTransformation);
    return jpegBase64(scaled);
}
