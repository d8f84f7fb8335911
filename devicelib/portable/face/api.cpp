// The face functions' C entry points: each one line through traced() into the face module.
#include "devicelib/biometrics.h"
#include "devicelib/portable/core.h"
#include "devicelib/portable/face/facedevice.h"

#include <QJsonArray>

#include <cstring>

using portable::BytesArg;
using portable::CallbackArg;
using portable::PtrArg;
using portable::traced;

namespace {

const void* fnPtr(void (*f)()) { return reinterpret_cast<const void*>(f); }
template <class F>
const void* fnPtr(F f) { return reinterpret_cast<const void*>(f); }

// A scripted delivery for a function taking (int, context).
CallbackArg intCallback(FaceResultFn fn, void* context)
{
    return {fnPtr(fn), [fn, context](const QJsonArray& a) { fn(a.at(0).toInt(), context); }};
}
CallbackArg featureCallback(FaceFeatureFn fn, void* context, bool beforeReturn)
{
    return {fnPtr(fn),
            [fn, context](const QJsonArray& a) { fn(a.at(0).toString().toUtf8().constData(), context); },
            beforeReturn};
}
// A feature as far as its terminating zero (the library is handed no length).
BytesArg bytes(const char* p) { return {p, p ? std::strlen(p) : 0}; }

}  // namespace

extern "C" {

int lImageMatch(const char* a, const char* b) { return traced<int>("lImageMatch", {a, b}, [&] { return portable::imageMatch(a, b); }); }
long long lFaceMatch(const char* path) { return traced<long long>("lFaceMatch", {path}, [&] { return portable::faceMatch(path); }); }
long long lImageIdMatch(const char* a, const char* b) { return traced<long long>("lImageIdMatch", {a, b}, [&] { return portable::imageIdMatch(a, b); }); }
bool bImageMatch(const char* a, const char* b) { return traced<bool>("bImageMatch", {a, b}, [&] { return portable::imageMatch(a, b) >= portable::faceThreshold(); }); }
long long lFaceFeatureMatch(const char* f1, const char* f2) { return traced<long long>("lFaceFeatureMatch", {bytes(f1), bytes(f2)}, [&] { return portable::featureMatch(f1, f2); }); }

bool bFaceFeatureGet(bool fromCamera, const char* path, const char* cropPath, FaceFeatureFn fn, void* context)
{
    const CallbackArg cb = featureCallback(fn, context, true);
    return traced<bool>("bFaceFeatureGet", {fromCamera, path, cropPath, cb, PtrArg{context}}, [&] {
        const std::string feature = portable::featureGet(fromCamera, path, cropPath);
        if (feature.empty())
            return false;
        portable::traceCallback("bFaceFeatureGet", {feature.c_str(), PtrArg{context}});
        if (fn)
            fn(feature.c_str(), context);
        return true;
    });
}

bool bImageMatchOnline(const char* photo, int seconds, int threshold, int camera, FaceResultFn fn)
{
    const CallbackArg cb = intCallback(fn, nullptr);
    return traced<bool>("bImageMatchOnline", {photo, seconds, threshold, camera, cb}, [&] { return portable::imageMatchOnline(photo, seconds, threshold, camera, fn); });
}

bool bFaceFeatureGetOnline(int seconds, int camera, FaceFeatureFn fn)
{
    const CallbackArg cb = featureCallback(fn, nullptr, false);
    return traced<bool>("bFaceFeatureGetOnline", {seconds, camera, cb}, [&] { return portable::featureGetOnline(seconds, camera, fn); });
}

bool bLivingBodyDetectOnline(int seconds, int camera, FaceResultFn fn)
{
    const CallbackArg cb = intCallback(fn, nullptr);
    return traced<bool>("bLivingBodyDetectOnline", {seconds, camera, cb}, [&] { return portable::livingBodyOnline(seconds, camera, fn); });
}

bool bLivingBodyDetect(void) { return traced<bool>("bLivingBodyDetect", {}, [] { return portable::livingBodyDetect(); }); }

bool AutoLivingBody(LivingBodyDataFn fn)
{
    const CallbackArg cb{fnPtr(fn), [fn](const QJsonArray& a) {
                             // (data, length, kind); the length never past the data given.
                             const QByteArray data = a.at(0).toString().toUtf8();
                             fn(data.constData(), qBound(0, a.at(1).toInt(), data.size()), a.at(2).toInt());
                         }};
    return traced<bool>("AutoLivingBody", {cb}, [&] { return portable::autoLivingBody(fn); });
}

void CloseLivingBody(LivingBodyDoneFn fn)
{
    const CallbackArg cb{fnPtr(fn), [fn](const QJsonArray&) { fn(); }};
    traced<void>("CloseLivingBody", {cb}, [&] { portable::closeLivingBody(fn); });
}

void DemoUIShow(int seconds, DemoUIResultFn fn)
{
    const CallbackArg cb{fnPtr(fn), [fn](const QJsonArray& a) { fn(a.at(0).toInt()); }};
    traced<void>("DemoUIShow", {seconds, cb}, [&] { portable::demoUIShow(seconds, fn); });
}

}  // extern "C"
