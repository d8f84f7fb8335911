// A device profile as arbitrary JSON text: loaded as the library loads a profile file, then read
// by the calls that use it (identity, USB lists, version text, camera sources), and its scripted
// results taken the way the library's calls take them, for every result and output shape.
#include "devicelib/cardreader.h"
#include "devicelib/doccamera.h"
#include "devicelib/portable/camera/camerasource.h"
#include "devicelib/portable/core.h"
#include "fuzzsupport.h"

#include <QByteArray>
#include <QImage>
#include <QJsonArray>
#include <QJsonObject>

#include <opencv2/core.hpp>
#include <sanitizer/lsan_interface.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

using namespace portable;

namespace {

void takeText(char* p)
{
    if (p)
        FUZZ_CHECK(std::strlen(p) < (1u << 26));
    std::free(p);
}

// The version text always fits the caller's buffer, NUL included, and nothing is written past it.
void version(int capacity)
{
    char buffer[80];
    std::memset(buffer, 'x', sizeof buffer);
    buffer[0] = '\0';   // a scripted null writes nothing: the buffer keeps what the caller put there
    doccameraVeriosn(buffer, capacity);
    FUZZ_CHECK(::strnlen(buffer, static_cast<size_t>(capacity)) < static_cast<size_t>(capacity));
    for (size_t i = static_cast<size_t>(capacity); i < sizeof buffer; ++i)
        FUZZ_CHECK(buffer[i] == 'x');
}

// A camera source is chosen from the profile only when a page opens the camera; a small
// synthetic one is opened for real, larger ones are only described.
void cameraSource(int number)
{
    const QJsonValue v = profileValue(QStringLiteral("camera.sources.%1").arg(number), QJsonValue());
    if (!v.isObject() || v.toObject().value(QStringLiteral("type")).toString() != QLatin1String("synthetic"))
        return;
    const std::unique_ptr<CameraSource> source = makeCameraSource(number);
    FUZZ_CHECK(source != nullptr);
    (void)source->describe();
    const auto sizes = source->sizes();
    FUZZ_CHECK(!sizes.empty());
    const auto size = source->currentSize();
    if (static_cast<long long>(size.first) * size.second <= 640 * 480) {
        if (source->open(0, 0))
            source->close();
    }
}

// Every scripted entry of fn, consumed through the same path a library call takes, with the
// output parameters each kind of call has. The real work is a no-op: only the script is read.
void drainScript(const QString& key, int entries)
{
    const QByteArray fn = key.toUtf8();
    for (int k = 0; k < qMin(entries, 128); ++k) {
        int n = 0;
        double d = 0;
        QImage image;
        cv::Mat mat;
        std::vector<std::pair<double, double>> sizes;
        OutNumber<int> outInt(&n);
        OutNumber<double> outDouble(&d);
        OutImage outImage(&image);
        OutMat outMat(&mat);
        OutSizes outSizes(&sizes);
        switch (k % 9) {
        case 0: traced<void>(fn.constData(), {outInt, outInt}, [] {}); break;
        case 1: (void)traced<bool>(fn.constData(), {outImage}, [] { return false; }); break;
        case 2: (void)traced<bool>(fn.constData(), {outMat}, [] { return false; }); break;
        case 3: traced<void>(fn.constData(), {k, outSizes}, [] {}); break;
        case 4: (void)traced<int>(fn.constData(), {"arg", outDouble}, [] { return 0; }); break;
        case 5: (void)traced<short>(fn.constData(), {k}, [] { return short(0); }); break;
        case 6: (void)traced<long long>(fn.constData(), {}, [] { return 0LL; }); break;
        case 7: (void)traced<unsigned>(fn.constData(), {}, [] { return 0u; }); break;
        case 8: std::free(heapText(traced<Text>(fn.constData(), {1.5}, [] { return Text(); }))); break;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::installQuietLog();
    // The USB list reads only the profile's devices, never this machine's; the trace goes
    // nowhere but is still composed, so every scripted value is also written out.
    setenv("DEVICE_USB_SYSFS", "/nonexistent/usb-devices", 1);
    unsetenv("DEVICE_PROFILE");
    unsetenv("DEVICE_TRACE_FRAMES");
    setTraceFile(QStringLiteral("/dev/null"));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    {
        // Qt 5.15's JSON parser loses an object or array that a later duplicate key replaces
        // ({"a":{},"a":1}), inside Qt, a few bytes per load of such a broken profile. Loading is
        // left out of the leak check for that; the loader itself only moves Qt values around.
        // Everything below, which uses what was loaded, is checked.
        __lsan::ScopedDisabler qtJsonLeaks;
        loadProfileText(QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size)),
                        QStringLiteral("fuzz.json"));
    }

    takeText(sGetSerialNum());
    takeText(sEnumUSBDevice());
    takeText(sGetDevicesId());
    (void)GetDeviceStatus_dc();
    version(64);
    version(5);
    version(1);
    doccameraVeriosn(nullptr, 0);
    (void)profileText(QStringLiteral("open.command"), QString());
    (void)profileText(QStringLiteral("files.companionDir"), QString());
    (void)profileNumber(QStringLiteral("camera.previewWidth"), 1280);
    (void)profileFlag(QStringLiteral("socialSecurityModule"), true);
    for (int number = 1; number <= 4; ++number)
        cameraSource(number);

    const QJsonObject script = profile().value(QStringLiteral("script")).toObject();
    int keys = 0;
    for (auto it = script.begin(); it != script.end() && keys < 16; ++it, ++keys)
        drainScript(it.key(), it.value().toArray().size());
    return 0;
}
