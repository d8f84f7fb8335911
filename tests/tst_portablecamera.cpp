// The portable device library's document camera: sources, frames, settings, stills, button.
#include "devicelib/doccamera.h"
#include "devicelib/portable/core.h"
#include "fixture.h"

#include <QImage>
#include <QTemporaryDir>
#include <QtTest>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include <tiffio.h>

#include <atomic>
#include <thread>

namespace {

void useProfile(const QString& json) { portable::loadProfileText(json.toUtf8()); }

QString synthetic(int w, int h, bool mjpeg = false, int previewWidth = 1280)
{
    return QStringLiteral(R"({"camera":{"previewWidth":%4,"sources":{"1":{"type":"synthetic","width":%1,"height":%2,"fps":30,)"
                          R"("mjpeg":%3}}}})")
        .arg(w).arg(h).arg(mjpeg ? "true" : "false").arg(previewWidth);
}

// A test card whose top-left quadrant is white and the rest black, so orientation shows.
QString writeQuadrantImage(const QTemporaryDir& dir, const QString& ext)
{
    cv::Mat img(60, 100, CV_8UC3, cv::Scalar(0, 0, 0));
    img(cv::Rect(0, 0, 50, 30)).setTo(cv::Scalar(255, 255, 255));
    const QString path = dir.filePath("card." + ext);
    cv::imwrite(path.toStdString(), img);
    return path;
}

// Which quadrant of an image is the bright one: 0 TL, 1 TR, 2 BL, 3 BR.
int brightQuadrant(const cv::Mat& m)
{
    const int w = m.cols / 2, h = m.rows / 2;
    std::vector<double> means;
    for (int q = 0; q < 4; ++q)
        means.push_back(cv::mean(m(cv::Rect((q % 2) * w, (q / 2) * h, w, h)))[0]);
    return int(std::max_element(means.begin(), means.end()) - means.begin());
}

int brightQuadrant(const QImage& img)
{
    QImage rgb = img.convertToFormat(QImage::Format_RGB32);
    return brightQuadrant(cv::Mat(rgb.height(), rgb.width(), CV_8UC4, rgb.bits(), size_t(rgb.bytesPerLine())));
}

struct TiffInfo {
    bool ok = false;   // the pixels decode too, not just the header
    uint32_t width = 0, height = 0;
    uint16_t compression = 0;
    float xres = 0, yres = 0;
};

TiffInfo readTiff(const QString& path)
{
    TiffInfo i;
    if (TIFF* t = TIFFOpen(path.toLocal8Bit().constData(), "r")) {
        TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &i.width);
        TIFFGetField(t, TIFFTAG_IMAGELENGTH, &i.height);
        TIFFGetField(t, TIFFTAG_COMPRESSION, &i.compression);
        TIFFGetField(t, TIFFTAG_XRESOLUTION, &i.xres);
        TIFFGetField(t, TIFFTAG_YRESOLUTION, &i.yres);
        std::vector<uint32_t> raster(size_t(i.width) * i.height);
        i.ok = TIFFReadRGBAImageOriented(t, i.width, i.height, raster.data(), ORIENTATION_TOPLEFT, 0) == 1;
        TIFFClose(t);
    }
    return i;
}

}  // namespace

class TestPortableCamera : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { qunsetenv("DEVICE_TRACE_FRAMES"); }   // read once, at the first library call
    void init() { useProfile(synthetic(640, 480)); }
    void cleanup() { bStopPlay(); bStopPlay4(); }

    // Frame fetches stay out of the library's call trace.
    void framesAreNewAndStopEndsThem()
    {
        Trace trace;
        QVERIFY(bStartPlay(0));
        QImage previous;
        for (int i = 0; i < 4; ++i) {
            QImage frame;
            QVERIFY(getVideoFrame(frame));
            QCOMPARE(frame.size(), QSize(640, 480));
            // Each frame carries its counter, so a frame handed over twice would compare equal.
            QVERIFY(frame != previous);
            previous = frame;
        }
        QVERIFY(bStopPlay());
        cv::Mat mat;
        QVERIFY(!getVideoFrame(previous) && !getVideoFrameMat(mat));
        QVERIFY(bStopPlay());   // stopping with nothing open is fine
        QCOMPARE(trace.functions(), (QStringList{"bStartPlay", "bStopPlay", "bStopPlay"}));
    }

    void everyStartCommandWorksWithoutHardware()
    {
        QStringList sources;
        for (const char* n : {"1", "3", "4", "5", "6", "8", "9"})
            sources << QStringLiteral(R"("%1":{"type":"synthetic","width":320,"height":240})").arg(n);
        sources << R"("2":{"type":"synthetic","width":160,"height":120})";
        useProfile(R"({"camera":{"sources":{)" + sources.join(',') + "}}}");
        for (auto start : {bStartPlay, bStartPlay2, bStartPlay3, bStartPlay5, bStartPlay6, bStartPlay8, bStartPlay9}) {
            QVERIFY(start(0));
            cv::Mat m;
            QVERIFY(getVideoFrameMat(m));
        }
        QVERIFY(bStartPlayOpen());
        cv::Mat both;
        QVERIFY(getVideoFrameMat(both));
        // Camera 2 (160 x 120) is scaled to camera 1's height beside it.
        QCOMPARE(QSize(both.cols, both.rows), QSize(320 + 320, 240));
        QVERIFY(bStartPlay4());
        QVERIFY(bStopPlay());
        QVERIFY(bStopPlay4());
    }

    void previewFrameSize_data()
    {
        QTest::addColumn<bool>("mjpeg");
        QTest::addColumn<int>("previewWidth");
        QTest::addColumn<int>("expectedWidth");
        QTest::newRow("mjpeg, half scale keeps 1280") << true << 1280 << 1296;
        QTest::newRow("mjpeg, quarter scale keeps 640") << true << 640 << 648;
        QTest::newRow("mjpeg, wider than half: full") << true << 1400 << 2592;
        QTest::newRow("decoded source: never reduced") << false << 640 << 2592;
    }

    void previewFrameSize()
    {
        QFETCH(bool, mjpeg);
        QFETCH(int, previewWidth);
        QFETCH(int, expectedWidth);
        useProfile(synthetic(2592, 1944, mjpeg, previewWidth));
        QVERIFY(bStartPlay(0));
        QImage frame;
        QVERIFY(getVideoFrame(frame));
        QCOMPARE(frame.size(), QSize(expectedWidth, expectedWidth * 1944 / 2592));
        QCOMPARE(frame.format(), QImage::Format_RGB32);
        cv::Mat full;   // stills always get the full frame
        QVERIFY(getVideoFrameMatEx(full));
        QCOMPARE(QSize(full.cols, full.rows), QSize(2592, 1944));
        QCOMPARE(full.type(), CV_8UC3);
    }

    void orientation_data()
    {
        QTest::addColumn<QString>("ext");
        QTest::addColumn<int>("rotate");
        QTest::addColumn<int>("flip");
        QTest::addColumn<int>("quadrant");
        for (const QString ext : {"png", "jpg"}) {
            QTest::newRow(qPrintable(ext + " as is")) << ext << 0 << 0 << 0;
            QTest::newRow(qPrintable(ext + " 90")) << ext << 90 << 0 << 1;
            QTest::newRow(qPrintable(ext + " 180")) << ext << 180 << 0 << 3;
            QTest::newRow(qPrintable(ext + " 270")) << ext << 270 << 0 << 2;
            QTest::newRow(qPrintable(ext + " flip h")) << ext << 0 << 1 << 1;
            QTest::newRow(qPrintable(ext + " flip v")) << ext << 0 << 2 << 2;
            QTest::newRow(qPrintable(ext + " flip both")) << ext << 0 << 3 << 3;
            QTest::newRow(qPrintable(ext + " 90 then flip h")) << ext << 90 << 1 << 0;
        }
    }

    void orientation()
    {
        QFETCH(QString, ext);
        QFETCH(int, rotate);
        QFETCH(int, flip);
        QFETCH(int, quadrant);
        QTemporaryDir dir;
        useProfile(QStringLiteral(R"({"camera":{"sources":{"1":{"type":"file","path":"%1","fps":30}}}})").arg(writeQuadrantImage(dir, ext)));
        QVERIFY(bStartPlay(rotate));   // the start's argument sets the rotation
        vSetFlip(static_cast<short>(flip));
        const QSize expected = rotate % 180 ? QSize(60, 100) : QSize(100, 60);
        QImage frame;
        QVERIFY(getVideoFrame(frame));
        QCOMPARE(frame.size(), expected);
        QCOMPARE(brightQuadrant(frame), quadrant);
        cv::Mat mat;
        QVERIFY(getVideoFrameMat(mat));
        QCOMPARE(QSize(mat.cols, mat.rows), expected);
        QCOMPARE(brightQuadrant(mat), quadrant);
    }

    void resolution()
    {
        useProfile(synthetic(1280, 960));
        std::vector<std::pair<double, double>> sizes;
        getResolutionIndex(1, sizes);
        QVERIFY(sizes.size() > 2);
        QCOMPARE(sizes.front(), std::make_pair(1280.0, 960.0));
        const auto vga = std::find(sizes.begin(), sizes.end(), std::make_pair(640.0, 480.0));
        QVERIFY(vga != sizes.end());

        QVERIFY(bStartPlay(0));
        QCOMPARE(iGetResolutionX(1), 1280);
        vSetResolutionEx(1, static_cast<int>(vga - sizes.begin()));
        QCOMPARE(iGetResolutionX(1), 640);
        QCOMPARE(iGetResolutionY(1), 480);
        cv::Mat m;
        QVERIFY(getVideoFrameMat(m));
        QCOMPARE(m.cols, 640);

        setResolution(1, 800, 600);
        QImage frame;
        QVERIFY(getVideoFrame(frame));
        QCOMPARE(frame.size(), QSize(800, 600));

        vSetResolutionEx(1, 99);   // no such index: size kept
        QCOMPARE(iGetResolutionX(1), 800);
        // A camera that is not open reports the size it would open with.
        QCOMPARE(iGetResolutionX(2), 2592);
        getResolutionIndex(0, sizes);
        QVERIFY(sizes.empty());
    }

    void controlsAdjustSyntheticFrames()
    {
        QVERIFY(!vSetBrightness(10));   // no camera open
        QVERIFY(bStartPlay(0));
        cv::Mat before;
        QVERIFY(getVideoFrameMat(before));
        QVERIFY(vSetBrightness(-60));
        QVERIFY(!vSetBrightness(500));
        QVERIFY(vSetContrast(32));
        QVERIFY(vSetExposure(156));
        QVERIFY(AutoFocus());
        QImage skip;
        QVERIFY(getVideoFrame(skip));   // a frame made after the change
        QVERIFY(getVideoFrame(skip));
        cv::Mat after;
        QVERIFY(getVideoFrameMat(after));
        QVERIFY(cv::mean(after)[0] < cv::mean(before)[0] - 50);
    }

    void settingsValidate_data()
    {
        QTest::addColumn<QString>("what");
        QTest::addColumn<QList<int>>("args");
        QTest::addColumn<bool>("result");
        QTest::newRow("area") << "area" << QList<int>{10, 20, 110, 220} << true;
        QTest::newRow("area whole frame") << "area" << QList<int>{0, 0, 0, 0} << true;
        QTest::newRow("area reversed") << "area" << QList<int>{110, 20, 10, 220} << false;
        QTest::newRow("area negative") << "area" << QList<int>{-1, 0, 10, 10} << false;
        QTest::newRow("area empty") << "area" << QList<int>{5, 5, 5, 50} << false;
        QTest::newRow("quality 1") << "quality" << QList<int>{1} << true;
        QTest::newRow("quality 100") << "quality" << QList<int>{100} << true;
        QTest::newRow("quality 0") << "quality" << QList<int>{0} << false;
        QTest::newRow("quality 101") << "quality" << QList<int>{101} << false;
        QTest::newRow("dpi") << "dpi" << QList<int>{600, 200} << true;
        QTest::newRow("dpi zero") << "dpi" << QList<int>{0, 300} << false;
        QTest::newRow("mode grey") << "mode" << QList<int>{1} << true;
        QTest::newRow("mode 3") << "mode" << QList<int>{3} << false;
        QTest::newRow("book on") << "book" << QList<int>{1} << true;
        QTest::newRow("book 7") << "book" << QList<int>{7} << false;
    }

    void settingsValidate()
    {
        QFETCH(QString, what);
        QFETCH(QList<int>, args);
        QFETCH(bool, result);
        if (what == "area") {
            QCOMPARE(bSetImageArea(args[0], args[1], args[2], args[3]), result);
            const QList<long> got{lGetImageAreaX1(), lGetImageAreaY1(), lGetImageAreaX2(), lGetImageAreaY2()};
            const QList<long> want = result ? QList<long>{args[0], args[1], args[2], args[3]} : QList<long>{0, 0, 0, 0};
            QCOMPARE(got, want);
        } else if (what == "quality") {
            QCOMPARE(vSetImageQuality(args[0]), result);
            QCOMPARE(int(sGetImageQuality()), result ? args[0] : 80);
        } else if (what == "dpi") {
            QCOMPARE(vSetDPI(args[0], args[1]), result);
            int x = 0, y = 0;
            vGetDPI(&x, &y);
            QCOMPARE(QPoint(x, y), result ? QPoint(args[0], args[1]) : QPoint(300, 300));
        } else if (what == "mode") {
            QCOMPARE(bSetMode(args[0]), result);
        } else if (what == "book") {
            QCOMPARE(bSetBookScannerMode(args[0]), result);
            QCOMPARE(igetBookScannerMode(), result ? args[0] : 0);
        }
    }

    void saves_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<int>("mode");   // 0 colour, 1 grey, 2 black and white
        QTest::addColumn<int>("dpi");
        QTest::addColumn<QRect>("area");
        QTest::newRow("jpg whole") << "jpg" << 0 << 300 << QRect();
        QTest::newRow("jpg cropped 200 dpi") << "jpg" << 0 << 200 << QRect(10, 20, 300, 100);
        QTest::newRow("png cropped 600 dpi") << "png" << 0 << 600 << QRect(0, 0, 64, 48);
        QTest::newRow("png black and white") << "png" << 2 << 300 << QRect();
        QTest::newRow("bmp 150 dpi") << "bmp" << 0 << 150 << QRect(100, 100, 200, 200);
        QTest::newRow("gray 400 dpi") << "gray" << 0 << 400 << QRect();
        QTest::newRow("gray and tif, grey mode") << "grayandtif" << 1 << 300 << QRect();
        QTest::newRow("tif 300 dpi") << "tif" << 0 << 300 << QRect(1, 2, 33, 44);
        QTest::newRow("tifjpg 250 dpi") << "tifjpg" << 0 << 250 << QRect();
    }

    void saves()
    {
        QFETCH(QString, kind);
        QFETCH(int, mode);
        QFETCH(int, dpi);
        QFETCH(QRect, area);
        QTemporaryDir dir;
        QVERIFY(bStartPlay(0));
        QVERIFY(bSetMode(mode));
        QVERIFY(vSetDPI(dpi, dpi));
        if (!area.isNull())
            QVERIFY(bSetImageArea(area.left(), area.top(), area.left() + area.width(), area.top() + area.height()));
        const QSize size = area.isNull() ? QSize(640, 480) : area.size();
        const int dpm = qRound(dpi / 0.0254);

        const QMap<QString, std::pair<bool (*)(const char*, const char*), QString>> savers{
            {"jpg", {bSaveJPG, "scan.jpg"}}, {"gray", {bSaveGray, "scan.jpg"}}, {"png", {bSavePNG, "scan.png"}},
            {"bmp", {bSaveBMP, "scan.bmp"}}, {"tif", {bSaveTIF, "scan.tif"}}, {"tifjpg", {bSaveTifJPG, "scan.tif"}},
            {"grayandtif", {[](const char* d, const char* n) { return bSaveGrayAndTIF(d, n, d, "page"); }, "scan.jpg"}}};
        QVERIFY(savers[kind].first(dir.path().toUtf8(), "scan"));
        const QString file = dir.filePath(savers[kind].second);
        if (kind.startsWith("tif")) {
            const TiffInfo t = readTiff(file);
            QVERIFY(t.ok);
            QCOMPARE(QSize(int(t.width), int(t.height)), size);
            QCOMPARE(qRound(t.xres), dpi);
            QCOMPARE(qRound(t.yres), dpi);
            QCOMPARE(t.compression == COMPRESSION_JPEG, kind == "tifjpg");
            return;
        }
        const QImage img(file);
        QVERIFY(!img.isNull());
        QCOMPARE(img.size(), size);
        QVERIFY(qAbs(img.dotsPerMeterX() - dpm) <= 1);
        QVERIFY(qAbs(img.dotsPerMeterY() - dpm) <= 1);
        const bool grey = kind.startsWith("gray") || mode == 2;
        QCOMPARE(img.format() == QImage::Format_Grayscale8, grey);
        QCOMPARE(img.isGrayscale(), grey);
        if (kind == "grayandtif")
            QVERIFY(readTiff(dir.filePath("page.tif")).ok);
        if (mode == 2) {   // black and white: no grey left
            const QImage g = img.convertToFormat(QImage::Format_Grayscale8);
            QSet<int> levels;
            for (int y = 0; y < g.height(); y += 3)
                for (int x = 0; x < g.width(); x += 3)
                    levels.insert(g.constScanLine(y)[x]);
            QCOMPARE(levels, (QSet<int>{0, 255}));
        }
    }

    void saveRefusals_data()
    {
        QTest::addColumn<bool>("open");
        QTest::addColumn<QString>("folder");
        QTest::newRow("no camera open") << false << "";
        QTest::newRow("missing folder") << true << "missing/sub";
        QTest::newRow("a file, not a folder") << true << "afile";
    }

    void saveRefusals()
    {
        QFETCH(bool, open);
        QFETCH(QString, folder);
        QTemporaryDir dir;
        QVERIFY(writeFile(dir.filePath("afile"), ""));
        if (open)
            QVERIFY(bStartPlay(0));
        const QByteArray d = dir.filePath(folder).toUtf8();
        QVERIFY(!bSaveJPG(d, "x"));
        QVERIFY(!bSavePNG(d, "x"));
        QVERIFY(!bSaveTIF(d, "x"));
        QVERIFY(!bSaveGrayAndTIF(d, "x", d, "y"));
        QVERIFY(!QFile::exists(QDir(QString::fromUtf8(d)).filePath("x.jpg")));
    }

    void splitPic_data()
    {
        QTest::addColumn<int>("bandAt");   // 0: no spine drawn
        QTest::addColumn<bool>("dark");
        QTest::addColumn<int>("expectedLeft");
        QTest::newRow("dark gutter left of middle") << 180 << true << 180;
        QTest::newRow("bright gap right of middle") << 230 << false << 230;
        QTest::newRow("nothing stands out: middle") << 0 << true << 200;
    }

    void splitPic()
    {
        QFETCH(int, bandAt);
        QFETCH(bool, dark);
        QFETCH(int, expectedLeft);
        QTemporaryDir dir;
        cv::Mat spread(300, 400, CV_8UC3, cv::Scalar(150, 150, 150));
        if (bandAt)
            spread(cv::Rect(bandAt - 3, 0, 7, 300)).setTo(cv::Scalar::all(dark ? 10 : 250));
        const QString src = dir.filePath("spread.png");
        QVERIFY(cv::imwrite(src.toStdString(), spread));
        QVERIFY(SplitPic(src.toUtf8(), dir.filePath("page").toUtf8()));
        const QImage left(dir.filePath("page_1.jpg")), right(dir.filePath("page_2.jpg"));
        QVERIFY(!left.isNull() && !right.isNull());
        QVERIFY(qAbs(left.width() - expectedLeft) <= 4);
        QCOMPARE(left.width() + right.width(), 400);
        QCOMPARE(left.height(), 300);
        QVERIFY(!SplitPic(dir.filePath("nothing.txt").toUtf8(), dir.filePath("page").toUtf8()));
    }

    void base64Frame()
    {
        QCOMPARE(QByteArray(sGetImageBase64_Byte(80)), QByteArray());   // no camera open
        QVERIFY(bStartPlay(0));
        const QByteArray jpeg = QByteArray::fromBase64(sGetImageBase64_Byte(50));
        QVERIFY(jpeg.startsWith("\xff\xd8"));
        const QImage img = QImage::fromData(jpeg, "JPG");
        QCOMPARE(img.size(), QSize(640, 480));
        const QByteArray tiny = QByteArray::fromBase64(sGetImageBase64_Byte(1));
        const QByteArray fine = QByteArray::fromBase64(sGetImageBase64_Byte(100));
        QVERIFY(tiny.size() < fine.size());
    }

    void badSourceKeyIsLoggedAndDefaulted()
    {
        LogCapture log;
        portable::loadProfileText(R"({"camera":{"sources":{"1":{"type":"synthetic","width":"big"},"2":{"type":"scanner"},)"
                                  R"("3":{"type":"synthetic","width":0.5},"4":{"type":"synthetic","fps":1e-12}}}})",
                                  "bad-profile.json");
        for (int camera = 1; camera <= 4; ++camera)
            QCOMPARE(iGetResolutionX(camera), 2592);   // the default synthetic camera
        for (const char* key : {"camera.sources.1.width", "camera.sources.2.type", "camera.sources.3.width", "camera.sources.4.fps"})
            QVERIFY2(!log.lines().filter("bad-profile.json").filter(key).isEmpty(), key);
    }

    // The server's capture thread fetches frames while the page changes settings and saves.
    void fetchWhileSettingsChange()
    {
        QTemporaryDir dir;
        QVERIFY(bStartPlay(0));
        std::atomic<bool> done{false};
        std::atomic<int> frames{0};
        std::thread fetcher([&] {
            while (!done) {
                QImage f;
                if (getVideoFrame(f) && !f.isNull())
                    ++frames;
            }
        });
        struct Join {   // also when a check below fails
            std::atomic<bool>& done;
            std::thread& t;
            ~Join() { done = true; t.join(); }
        } join{done, fetcher};
        for (int i = 0; i < 6; ++i) {
            vSetRotate(static_cast<short>(90 * i));
            setResolution(1, i % 2 ? 320 : 640, i % 2 ? 240 : 480);
            QVERIFY(bSaveJPG(dir.path().toUtf8(), QByteArray::number(i)));
            if (i == 3) {
                QVERIFY(bStopPlay());
                QVERIFY(bStartPlay(0));
            }
        }
        QTRY_VERIFY(frames > 0);
        QCOMPARE(QDir(dir.path()).entryList(QDir::Files).size(), 6);
    }
};

QTEST_GUILESS_MAIN(TestPortableCamera)
#include "tst_portablecamera.moc"
