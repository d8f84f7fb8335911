// Barcodes read from pictures ZXing's own writer made, and from the synthetic camera; the
// watermark on kept pictures and not on preview frames.
#define ZX_USE_UTF8 1
#include "devicelib/doccamera.h"
#include "devicelib/portable/core.h"
#include "fixture.h"

#include <QImage>
#include <QTest>

#include <ZXing/BitMatrix.h>
#include <ZXing/MultiFormatWriter.h>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <cstdlib>

namespace {

using ZXing::BarcodeFormat;

// One symbol: 2D codes at 4 pixels a module, 1D codes at 2 and 80 pixels high.
cv::Mat symbol(BarcodeFormat format, const std::string& text)
{
    const bool linear = format == BarcodeFormat::Code128 || format == BarcodeFormat::EAN13 || format == BarcodeFormat::Code39
                        || format == BarcodeFormat::ITF;
    const int scale = linear ? 2 : 4;
    const ZXing::BitMatrix m = ZXing::MultiFormatWriter(format).setMargin(0).encode(text, 0, linear ? 1 : 0);
    cv::Mat img(linear ? 80 : m.height() * scale, m.width() * scale, CV_8UC1, cv::Scalar(255));
    for (int y = 0; y < img.rows; ++y)
        for (int x = 0; x < img.cols; ++x)
            if (m.get(x / scale, linear ? 0 : y / scale))
                img.at<uchar>(y, x) = 0;
    return img;
}

struct Placed {
    BarcodeFormat format;
    std::string text;
    int x, y;   // top-left in the picture
};

// A white picture with the symbols at their places, written as PNG.
QString picture(const QString& path, int w, int h, std::initializer_list<Placed> symbols)
{
    cv::Mat img(h, w, CV_8UC1, cv::Scalar(255));
    for (const Placed& p : symbols) {
        const cv::Mat s = symbol(p.format, p.text);
        s.copyTo(img(cv::Rect(p.x, p.y, s.cols, s.rows)));
    }
    cv::imwrite(path.toStdString(), img);
    return path;
}

QString take(char* text)
{
    const QString s = text ? QString::fromUtf8(text) : QStringLiteral("<null>");
    std::free(text);
    return s;
}

// Pixels near the colour (B, G, R) within rect.
int pixelsOf(const cv::Mat& bgr, const cv::Rect& rect, cv::Scalar colour)
{
    cv::Mat mask;
    cv::inRange(bgr(rect & cv::Rect(0, 0, bgr.cols, bgr.rows)), colour - cv::Scalar::all(70), colour + cv::Scalar::all(70), mask);
    return cv::countNonZero(mask);
}

}  // namespace

class TestImageMarks : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;

private slots:
    void init() { portable::loadProfileText(R"({"camera":{"sources":{"1":{"type":"synthetic","width":1280,"height":960}}}})"); }
    void cleanup() { bStopPlay(); }

    void barcodes_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<long>("kind");
        QTest::addColumn<QString>("texts");
        const auto row = [this](const char* tag, long kind, const QString& texts, std::initializer_list<Placed> symbols, int w = 640, int h = 480) {
            QTest::newRow(tag) << picture(m_dir.filePath(QString(tag) + ".png"), w, h, symbols) << kind << texts;
        };
        // The kind table, each kind from ZXing's own writer.
        row("1 QR", 1, "rvo:qr:1", {{BarcodeFormat::QRCode, "rvo:qr:1", 40, 40}});
        row("2 Code 128", 2, "RVO-128", {{BarcodeFormat::Code128, "RVO-128", 40, 40}});
        row("3 EAN-13", 3, "4006381333931", {{BarcodeFormat::EAN13, "4006381333931", 40, 40}});
        row("4 PDF417", 4, "RVO PDF417", {{BarcodeFormat::PDF417, "RVO PDF417", 40, 40}}, 800);
        row("5 Data Matrix", 5, "RVO-DM", {{BarcodeFormat::DataMatrix, "RVO-DM", 40, 40}});
        row("6 Code 39", 6, "RVO39", {{BarcodeFormat::Code39, "RVO39", 40, 40}}, 800);
        row("7 ITF", 7, "12345678", {{BarcodeFormat::ITF, "12345678", 40, 40}});
        row("0 any", 0, "RVO-128", {{BarcodeFormat::Code128, "RVO-128", 40, 40}});
        row("another kind finds nothing", 1, "", {{BarcodeFormat::Code128, "RVO-128", 40, 40}});
        row("unknown kind 8", 8, "", {{BarcodeFormat::QRCode, "rvo:qr:1", 40, 40}});
        row("unknown kind -1", -1, "", {{BarcodeFormat::QRCode, "rvo:qr:1", 40, 40}});
        row("nothing in it", 0, "", {});
        // Reading order: by the centre, top to bottom, then left to right.
        row("QR below Code 128", 0, "TOP-128|rvo:below", {{BarcodeFormat::QRCode, "rvo:below", 60, 200}, {BarcodeFormat::Code128, "TOP-128", 300, 40}});
        row("two QR side by side", 1, "rvo:left|rvo:right", {{BarcodeFormat::QRCode, "rvo:right", 360, 100}, {BarcodeFormat::QRCode, "rvo:left", 40, 100}});
        // Pictures that abort a downscaling libzxing 1.4.
        row("lone Code 128 in 700 x 520", 0, "RVO-700", {{BarcodeFormat::Code128, "RVO-700", 200, 220}}, 700, 520);
        row("Code 128 beside QR", 0, "rvo:beside|BESIDE-128", {{BarcodeFormat::Code128, "BESIDE-128", 300, 100}, {BarcodeFormat::QRCode, "rvo:beside", 40, 60}});
        QTest::newRow("0-byte file") << (writeFile(m_dir.filePath("empty.png"), {}) ? m_dir.filePath("empty.png") : QString()) << 0L << "";
        QTest::newRow("missing file") << m_dir.filePath("missing.png") << 0L << "";
    }
    void barcodes()
    {
        QFETCH(QString, file); QFETCH(long, kind); QFETCH(QString, texts);
        QCOMPARE(take(sGetBarCodeEx(kind, file.toLocal8Bit().constData())), texts);
        if (kind == 0)
            QCOMPARE(take(sGetBarCode(file.toLocal8Bit().constData())), texts.section('|', 0, 0));
    }

    // The synthetic camera's page carries its number in both codes.
    void online()
    {
        QCOMPARE(take(sGetBarCodeOnline()), QStringLiteral("<null>"));   // no camera open
        using Start = bool (*)(int);
        for (auto [start, n] : {std::pair<Start, int>{bStartPlay, 1}, std::pair<Start, int>{bStartPlay3, 3}}) {
            QVERIFY(start(0));
            QCOMPARE(take(sGetBarCodeOnline()), QStringLiteral("RVO-CAMERA-%1").arg(n));
            QVERIFY(bSaveJPG(m_dir.path().toUtf8().constData(), "page"));
            QCOMPARE(take(sGetBarCodeEx(0, m_dir.filePath("page.jpg").toLocal8Bit().constData())),
                     QStringLiteral("RVO-CAMERA-%1|rvo:camera:%1").arg(n));
        }
    }

    // Saves carry the watermark in its colour at its place, drawn with CJK glyphs; the preview does not.
    void watermark()
    {
        QVERIFY(bStartPlay(0));
        vSetWaterPrintFontColor(0x00C000);
        vSetWaterPrintFontSize(60);
        vSetWaterPrintPos(100, 300);
        const cv::Rect box(100, 300, 4 * 60 + 10, 75), elsewhere(100, 600, 400, 200);
        cv::Mat shots[2];
        const char* const texts[] = {"仅供办理", "业务使用"};
        for (int i = 0; i < 2; ++i) {
            vSetWaterPrint(1, QString::fromUtf8(texts[i]).toLocal8Bit().constData(), 100);
            QVERIFY(bSaveJPG(m_dir.path().toUtf8().constData(), "stamped"));
            shots[i] = cv::imread(m_dir.filePath("stamped.jpg").toStdString());
            QVERIFY(pixelsOf(shots[i], box, {0, 192, 0}) > 800);
            QCOMPARE(pixelsOf(shots[i], elsewhere, {0, 192, 0}), 0);
        }
        // Missing glyphs would draw the same box for every character: the two texts look alike.
        cv::Mat a, b, diff;
        cv::inRange(shots[0](box), cv::Scalar(0, 122, 0), cv::Scalar(70, 255, 70), a);
        cv::inRange(shots[1](box), cv::Scalar(0, 122, 0), cv::Scalar(70, 255, 70), b);
        cv::bitwise_xor(a, b, diff);
        QVERIFY2(cv::countNonZero(diff) > cv::countNonZero(a) / 3, "the characters are drawn alike (empty boxes?)");
        QImage preview;
        QVERIFY(getVideoFrame(preview));
        const QImage rgb = preview.convertToFormat(QImage::Format_RGB888);
        const cv::Mat p(rgb.height(), rgb.width(), CV_8UC3, const_cast<uchar*>(rgb.bits()), static_cast<size_t>(rgb.bytesPerLine()));
        QCOMPARE(pixelsOf(p, cv::Rect(0, 0, p.cols, p.rows), {0, 192, 0}), 0);   // RGB order, green either way
        cv::Mat pushed, captured;   // the frame push has none, the server's base64 capture has it
        QVERIFY(getVideoFrameMat(pushed) && getVideoFrameMatEx(captured));
        QCOMPARE(pixelsOf(pushed, box, {0, 192, 0}), 0);
        QVERIFY(pixelsOf(captured, box, {0, 192, 0}) > 800);
        // Off again, and a missing position means centred.
        vSetWaterPrint(0, "x", 0);
        QVERIFY(bSaveJPG(m_dir.path().toUtf8().constData(), "plain"));
        QCOMPARE(pixelsOf(cv::imread(m_dir.filePath("plain.jpg").toStdString()), box, {0, 192, 0}), 0);
    }
};

QTEST_MAIN(TestImageMarks)
#include "tst_imagemarks.moc"
