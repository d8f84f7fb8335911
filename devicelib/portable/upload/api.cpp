// The upload entry points of the document-camera library.
#include "devicelib/doccamera.h"
#include "devicelib/portable/core.h"
#include "devicelib/portable/upload/httpupload.h"

#include <QFile>
#include <QString>

namespace portable {
namespace {

QByteArray bytes(const char* s)
{
    return s ? QByteArray(s) : QByteArray();
}

upload::Request request(const char* fn, const char* url, const char* file, long seconds, const char* fields)
{
    upload::Request r;
    r.fn = fn;
    r.url = bytes(url);
    r.file = file ? QFile::decodeName(file) : QString();
    r.seconds = seconds;
    r.fields = bytes(fields);
    return r;
}

Text bodyOf(const upload::Request& r)
{
    const upload::Result result = upload::post(r);
    return result.answered ? Text(result.body) : std::nullopt;
}

}  // namespace
}  // namespace portable

using namespace portable;

extern "C" {

char* sUpLoadImage(const char* url, const char* file, const char* fields, bool deleteAfter, const char* fieldName)
{
    return heapText(traced<Text>("sUpLoadImage", {url, file, fields, deleteAfter, fieldName}, [&] {
        upload::Request r = request("sUpLoadImage", url, file, 0, fields);
        r.fieldName = bytes(fieldName);
        r.deleteAfter = deleteAfter;
        return bodyOf(r);
    }));
}

char* sUpLoadImageEx2(const char* url, const char* file, long seconds, const char* fields)
{
    return heapText(traced<Text>("sUpLoadImageEx2", {url, file, seconds, fields}, [&] {
        return bodyOf(request("sUpLoadImageEx2", url, file, seconds, fields));
    }));
}

bool bUpLoadImage(const char* url, const char* file, long seconds, const char* fields)
{
    return traced<bool>("bUpLoadImage", {url, file, seconds, fields}, [&] {
        return upload::post(request("bUpLoadImage", url, file, seconds, fields)).ok();
    });
}

bool sUpLoadImageEx5(const char* url, const char* file, long seconds, const char* fields, const char* token,
                     const char* fieldName, QString* out)
{
    OutQString outArg(out);
    return traced<bool>("sUpLoadImageEx5", {url, file, seconds, fields, token, fieldName, outArg}, [&] {
        upload::Request r = request("sUpLoadImageEx5", url, file, seconds, fields);
        r.token = bytes(token);
        r.fieldName = bytes(fieldName);
        const upload::Result result = upload::post(r);
        if (out)
            *out = QString::fromUtf8(result.body.data(), static_cast<int>(result.body.size()));
        return result.ok();
    });
}

}  // extern "C"
