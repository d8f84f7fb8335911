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

// An image's size and which quadrant of it is the bright one: 0 TL, 1 TR, 2 BL, 3 BR.
QString sizeAndBrightQuadrant(const cv::Mat& m)
{
    const int w = m.cols / 2, h = m.rows / 2;
    std::vector<double> means;
    for (int q = 0; q < 4; ++q)
        means.push_back(cv::mean(m(cv::Rect((q % 2) * w, (q / 2) * h, w, h)))[0]);
    return QStringLiteral("%1x%2 q%3").arg(m.cols).arg(m.rows).arg(std::max_element(means.begin(), means.end()) - means.begin());
}

// A TIFF file as {width, height, x dpi, y dpi, JPEG-compressed}; empty unless its pixels decode too.
QList<int> readTiff(const QString& path)
{
    uint32_t w = 0, h = 0;
    uint16_t compression = 0;
    float xres = 0, yres = 0;
    TIFF* t = TIFFOpen(path.toLocal8Bit().constData(), "r");
    if (!t)
        return {};
    TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &w);
    TIFFGetField(t, TIFFTAG_IMAGELENGTH, &h);
    TIFFGetField(t, TIFFTAG_COMPRESSION, &compression);
    TIFFGetField(t, TIFFTAG_XRESOLUTION, &xres);
    TIFFGetField(t, TIFFTAG_YRESOLUTION, &yres);
    std::vector<uint32_t> raster(size_t(w) * h);
    const bool ok = TIFFReadRGBAImageOriented(t, w, h, raster.data(), ORIENTATION_TOPLEFT, 0) == 1;
    TIFFClose(t);
    return ok ? QList<int>{int(w), int(h), qRound(xres), qRound(yres), compression == COMPRESSION_JPEG} : QList<int>();
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
        QImage previous, frame;
        for (int i = 0; i < 4; ++i, previous = frame) {
            QVERIFY(getVideoFrame(frame));
            QCOMPARE(frame.size(), QSize(640, 480));
            QVERIFY(frame != previous);   // each frame carries its counter: one handed over twice would compare equal
        }
        QVERIFY(bStopPlay());
        cv::Mat mat;
        QVERIFY(!getVideoFrame(previous) && !getVideoFrameMat(mat));
        QVERIFY(bStopPlay());   // stopping with nothing open is fine
        QCOMPARE(trace.functions(), (QStringList{"bStartPlay", "bStopPlay", "bStopPlay"}));
    }

    void everyStartCommandWorksWithoutHardware()
    {
        QString sources = R"("2":{"type":"synthetic","width":160,"height":120})";
        for (const char* n : {"1", "3", "4", "5", "6", "8", "9"})
            sources += QStringLiteral(R"(,"%1":{"type":"synthetic","width":320,"height":240})").arg(n);
        useProfile(R"({"camera":{"sources":{)" + sources + "}}}");
        cv::Mat m;
        for (auto start : {bStartPlay, bStartPlay2, bStartPlay3, bStartPlay5, bStartPlay6, bStartPlay8, bStartPlay9})
            QVERIFY(start(0) && getVideoFrameMat(m));
        QVERIFY(bStartPlayOpen() && getVideoFrameMat(m));
        QCOMPARE(QSize(m.cols, m.rows), QSize(320 + 320, 240));   // camera 2 (160 x 120) scaled to camera 1's height beside it
        QVERIFY(bStartPlay4() && bStopPlay() && bStopPlay4());
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
        QFETCH(bool, mjpeg); QFETCH(int, previewWidth); QFETCH(int, expectedWidth);
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
        struct Case { const char* name; int rotate, flip, quadrant; };
        for (const QString ext : {"png", "jpg"})
            for (const Case& c : {Case{"as is", 0, 0, 0}, {"90", 90, 0, 1}, {"180", 180, 0, 3}, {"270", 270, 0, 2}, {"flip h", 0, 1, 1},
                                  {"flip v", 0, 2, 2}, {"flip both", 0, 3, 3}, {"90 then flip h", 90, 1, 0}})
                QTest::newRow(qPrintable(ext + " " + c.name)) << ext << c.rotate << c.flip << c.quadrant;
    }

    void orientation()
    {
        QFETCH(QString, ext); QFETCH(int, rotate); QFETCH(int, flip); QFETCH(int, quadrant);
        // A test card whose top-left quadrant is white and the rest black, so orientation shows.
        QTemporaryDir dir;
        cv::Mat card(60, 100, CV_8UC3, cv::Scalar::all(0));
        card(cv::Rect(0, 0, 50, 30)).setTo(cv::Scalar::all(255));
        QVERIFY(cv::imwrite(dir.filePath("card." + ext).toStdString(), card));
        useProfile(QStringLiteral(R"({"camera":{"sources":{"1":{"type":"file","path":"%1","fps":30}}}})").arg(dir.filePath("card." + ext)));
        QVERIFY(bStartPlay(rotate));   // the start's argument sets the rotation
        vSetFlip(static_cast<short>(flip));
        const QString expected = QStringLiteral("%1 q%2").arg(rotate % 180 ? "60x100" : "100x60").arg(quadrant);
        QImage frame;
        cv::Mat mat;
        QVERIFY(getVideoFrame(frame) && getVideoFrameMat(mat));
        frame = frame.convertToFormat(QImage::Format_RGB32);
        QCOMPARE(sizeAndBrightQuadrant(cv::Mat(frame.height(), frame.width(), CV_8UC4, frame.bits(), size_t(frame.bytesPerLine()))), expected);
        QCOMPARE(sizeAndBrightQuadrant(mat), expected);
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
        QVERIFY(vSetBrightness(-60) && !vSetBrightness(500) && vSetContrast(32) && vSetExposure(156) && AutoFocus());
        QImage skip;
        QVERIFY(getVideoFrame(skip) && getVideoFrame(skip));   // then a frame made after the change
        cv::Mat after;
        QVERIFY(getVideoFrameMat(after));
        QVERIFY(cv::mean(after)[0] < cv::mean(before)[0] - 50);
    }

    void settingsValidate_data()
    {
        QTest::addColumn<QString>("what");
        QTest::addColumn<QList<int>>("args");
        QTest::addColumn<bool>("result");
        struct Case { const char* name; QList<int> args; bool result; };
        for (const Case& c : {Case{"area", {10, 20, 110, 220}, true}, {"area whole frame", {0, 0, 0, 0}, true},
                              {"area reversed", {110, 20, 10, 220}, false}, {"area negative", {-1, 0, 10, 10}, false},
                              {"area empty", {5, 5, 5, 50}, false}, {"quality 1", {1}, true}, {"quality 100", {100}, true},
                              {"quality 0", {0}, false}, {"quality 101", {101}, false}, {"dpi", {600, 200}, true},
                              {"dpi zero", {0, 300}, false}, {"mode grey", {1}, true}, {"mode 3", {3}, false},
                              {"book on", {1}, true}, {"book 7", {7}, false}})
            QTest::newRow(c.name) << QString(c.name).section(' ', 0, 0) << c.args << c.result;
    }

    // A refused setting leaves the one before it (here the default) in place.
    void settingsValidate()
    {
        QFETCH(QString, what); QFETCH(QList<int>, args); QFETCH(bool, result);
        const int a = args[0], b = args.value(1);
        int x = 0, y = 0;
        if (what == "area") {
            QCOMPARE(bSetImageArea(a, b, args[2], args[3]), result);
            QCOMPARE((QList<int>{int(lGetImageAreaX1()), int(lGetImageAreaY1()), int(lGetImageAreaX2()), int(lGetImageAreaY2())}),
                     result ? args : QList<int>({0, 0, 0, 0}));
        } else if (what == "quality") {
            QCOMPARE(vSetImageQuality(a), result);
            QCOMPARE(int(sGetImageQuality()), result ? a : 80);
        } else if (what == "dpi") {
            QCOMPARE(vSetDPI(a, b), result);
            vGetDPI(&x, &y);
            QCOMPARE(QPoint(x, y), result ? QPoint(a, b) : QPoint(300, 300));
        } else if (what == "mode") {
            QCOMPARE(bSetMode(a), result);
        } else {
            QCOMPARE(bSetBookScannerMode(a), result);
            QCOMPARE(igetBookScannerMode(), result ? a : 0);
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
        QFETCH(QString, kind); QFETCH(int, mode); QFETCH(int, dpi); QFETCH(QRect, area);
        QTemporaryDir dir;
        QVERIFY(bStartPlay(0));
        QVERIFY(bSetMode(mode));
        QVERIFY(vSetDPI(dpi, dpi));
        if (!area.isNull())
            QVERIFY(bSetImageArea(area.left(), area.top(), area.left() + area.width(), area.top() + area.height()));
        const QSize size = area.isNull() ? QSize(640, 480) : area.size();
        const QMap<QString, std::pair<bool (*)(const char*, const char*), QString>> savers{
            {"jpg", {bSaveJPG, "scan.jpg"}}, {"gray", {bSaveGray, "scan.jpg"}}, {"png", {bSavePNG, "scan.png"}},
            {"bmp", {bSaveBMP, "scan.bmp"}}, {"tif", {bSaveTIF, "scan.tif"}}, {"tifjpg", {bSaveTifJPG, "scan.tif"}},
            {"grayandtif", {[](const char* d, const char* n) { return bSaveGrayAndTIF(d, n, d, "page"); }, "scan.jpg"}}};
        QVERIFY(savers[kind].first(dir.path().toUtf8(), "scan"));
        const QString file = dir.filePath(savers[kind].second);
        if (kind.startsWith("tif")) {
            QCOMPARE(readTiff(file), (QList<int>{size.width(), size.height(), dpi, dpi, kind == "tifjpg"}));
            return;
        }
        const QImage img(file);
        QCOMPARE(img.size(), size);
        const int dpm = qRound(dpi / 0.0254);
        QVERIFY(qAbs(img.dotsPerMeterX() - dpm) <= 1 && qAbs(img.dotsPerMeterY() - dpm) <= 1);
        const bool grey = kind.startsWith("gray") || mode == 2;
        QCOMPARE(img.format() == QImage::Format_Grayscale8, grey);
        QCOMPARE(img.isGrayscale(), grey);
        if (kind == "grayandtif")
            QCOMPARE(readTiff(dir.filePath("page.tif")).size(), 5);
        if (mode == 2) {   // black and white: no grey left, and both left
            const cv::Mat g = cv::imread(file.toStdString(), cv::IMREAD_GRAYSCALE);
            QCOMPARE(cv::countNonZero((g > 0) & (g < 255)), 0);
            QVERIFY(cv::countNonZero(g) > 0 && cv::countNonZero(g) < int(g.total()));
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
        QFETCH(bool, open); QFETCH(QString, folder);
        QTemporaryDir dir;
        QVERIFY(writeFile(dir.filePath("afile"), ""));
        if (open)
            QVERIFY(bStartPlay(0));
        const QByteArray d = dir.filePath(folder).toUtf8();
        QVERIFY(!bSaveJPG(d, "x") && !bSavePNG(d, "x") && !bSaveTIF(d, "x") && !bSaveGrayAndTIF(d, "x", d, "y"));
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
        QFETCH(int, bandAt); QFETCH(bool, dark); QFETCH(int, expectedLeft);
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
        QVERIFY(QByteArray::fromBase64(sGetImageBase64_Byte(1)).size() < QByteArray::fromBase64(sGetImageBase64_Byte(100)).size());
    }

    void badSourceKeyIsLoggedAndDefaulted()
    {
        LogCapture log;
        portable::loadProfileText(R"({"camera":{"sources":{"1":{"type":"synthetic","width":"big"},"2":{"type":"scanner"},)"
                                  R"("3":{"type":"synthetic","width":0.5},"4":{"type":"synthetic","fps":1e-12}}}})",
                                  "bad-profile.json");
        for (int camera = 1; camera <= 4; ++camera)
            QCOMPARE(iGetResolutionX(camera), camera == 4 ? 640 : 2592);   // the default synthetic camera (4: the face)
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
        const auto join = qScopeGuard([&] { done = true; fetcher.join(); });   // also when a check below fails
        for (int i = 0; i < 6; ++i) {
            vSetRotate(static_cast<short>(90 * i));
            setResolution(1, i % 2 ? 320 : 640, i % 2 ? 240 : 480);
            QVERIFY(bSaveJPG(dir.path().toUtf8(), QByteArray::number(i)));
            if (i == 3)
                QVERIFY(bStopPlay() && bStartPlay(0));
        }
        QTRY_VERIFY(frames > 0);
        QCOMPARE(QDir(dir.path()).entryList(QDir::Files).size(), 6);
    }
};

QTEST_GUILESS_MAIN(TestPortableCamera)
#include "tst_portablecamera.moc"
