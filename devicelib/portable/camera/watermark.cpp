#include "devicelib/portable/camera/watermark.h"
#include "devicelib/portable/core.h"

#include <QCoreApplication>
#include <QFont>
#include <QFontMetrics>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>

#include <algorithm>
#include <mutex>

namespace portable {

namespace {

const char kDefaultFont[] = "WenQuanYi Micro Hei";   // CJK-capable, so Chinese text never shows as boxes

struct Settings {
    bool enabled = false;
    QString text;
    int opacity = 40;
    QString family = QString::fromLatin1(kDefaultFont);
    int pixels = 0;
    long rgb = 0x808080;
    int x = -1, y = -1;
};

std::mutex g_mutex;
Settings g_settings;

Settings current()
{
    static std::once_flag hook;
    std::call_once(hook, [] {
        addResetHook([] {
            std::lock_guard<std::mutex> lock(g_mutex);
            g_settings = Settings();
        });
    });
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_settings;
}

template <class F>
void change(F&& f)
{
    current();   // registers the reset hook
    std::lock_guard<std::mutex> lock(g_mutex);
    f(g_settings);
}

}  // namespace

void setWatermark(short enable, const char* text, short opacity)
{
    change([&](Settings& s) {
        s.enabled = enable != 0;
        s.text = QString::fromLocal8Bit(text ? text : "");
        s.opacity = opacity <= 0 ? 40 : std::min<int>(opacity, 100);
    });
}

void setWatermarkFont(const char* family)
{
    const QString f = QString::fromLocal8Bit(family ? family : "").trimmed();
    change([&](Settings& s) { s.family = f.isEmpty() ? QString::fromLatin1(kDefaultFont) : f; });
}

void setWatermarkSize(short pixels)
{
    change([&](Settings& s) { s.pixels = std::max<int>(0, pixels); });
}

void setWatermarkColour(long rgb)
{
    change([&](Settings& s) { s.rgb = rgb & 0xFFFFFF; });
}

void setWatermarkPos(short x, short y)
{
    change([&](Settings& s) {
        s.x = x;
        s.y = y;
    });
}

void stampWatermark(cv::Mat& image)
{
    const Settings s = current();
    if (!s.enabled || s.text.isEmpty() || image.empty() || (image.type() != CV_8UC3 && image.type() != CV_8UC1))
        return;
    if (!qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
        logLine(QStringLiteral("watermark: no GUI application to draw fonts with; the picture is left without one"));
        return;
    }
    QFont font(s.family);
    font.setPixelSize(s.pixels > 0 ? s.pixels : std::max(12, image.rows / 20));
    const QFontMetrics metrics(font);
    const QRect box = metrics.boundingRect(s.text);
    // The text drawn alone, white on transparent; its alpha says how much colour each pixel takes.
    QImage layer(box.size().expandedTo(QSize(1, 1)), QImage::Format_ARGB32_Premultiplied);
    layer.fill(Qt::transparent);
    {
        QPainter p(&layer);
        p.setRenderHint(QPainter::TextAntialiasing);
        p.setFont(font);
        p.setPen(Qt::white);
        p.drawText(-box.left(), -box.top(), s.text);
    }
    const int left = s.x >= 0 ? s.x : (image.cols - layer.width()) / 2;
    const int top = s.y >= 0 ? s.y : (image.rows - layer.height()) / 2;
    const double opacity = s.opacity / 100.0;
    const double colour[3] = {double(s.rgb & 0xFF), double((s.rgb >> 8) & 0xFF), double((s.rgb >> 16) & 0xFF)};   // B, G, R
    const double grey = 0.114 * colour[0] + 0.587 * colour[1] + 0.299 * colour[2];
    for (int ly = 0; ly < layer.height(); ++ly) {
        const int iy = top + ly;
        if (iy < 0 || iy >= image.rows)
            continue;
        const QRgb* src = reinterpret_cast<const QRgb*>(layer.constScanLine(ly));
        uchar* dst = image.ptr<uchar>(iy);
        for (int lx = 0; lx < layer.width(); ++lx) {
            const int ix = left + lx;
            if (ix < 0 || ix >= image.cols || qAlpha(src[lx]) == 0)
                continue;
            const double a = qAlpha(src[lx]) / 255.0 * opacity;
            if (image.channels() == 1) {
                dst[ix] = cv::saturate_cast<uchar>(dst[ix] * (1 - a) + grey * a);
            } else {
                for (int c = 0; c < 3; ++c)
                    dst[ix * 3 + c] = cv::saturate_cast<uchar>(dst[ix * 3 + c] * (1 - a) + colour[c] * a);
            }
        }
    }
}

}  // namespace portable
