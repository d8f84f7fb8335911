// The upload itself. What a document server sees:
//
//   POST /archive/upload HTTP/1.1
//   Content-Type: multipart/form-data; boundary=------------------------...
//   [Authorization: Bearer <token>]
//
//   ...; name="<each extra field>"          (in the order the page wrote them)
//   ...; name="<fieldName>"; filename="<the file's own name>"
//   Content-Type: <from the extension>
//
// Rules a page can rely on:
//  - Only http and https, for the URL and for every redirect (at most 5): a file:// URL or a
//    redirect to one must never hand a local file to the page.
//  - The file must be a readable regular file; it is checked before connecting and streamed from
//    disk, so a big scan never sits whole in memory.
//  - The answer body comes back whatever the status; at most 8 MiB of it are kept.
//  - https verifies the server against the system's certificate store, or against the profile's
//    "upload.caFile" (a bank's own CA); "upload.verify": false turns that off for a test server.
#include "devicelib/portable/upload/httpupload.h"

#include "devicelib/portable/core.h"

#include <QFile>
#include <QFileInfo>

#include <curl/curl.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>

#ifndef RVO_PORTABLE_VERSION
#define RVO_PORTABLE_VERSION "dev"
#endif

namespace portable {
namespace upload {
namespace {

constexpr size_t kMaxBody = 8u * 1024u * 1024u;
constexpr long kDefaultSeconds = 30;
constexpr int kMaxRedirects = 5;

void initCurlOnce()
{
    // curl_global_init is not thread-safe; the first upload may come from any thread.
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

// A URL as the log shows it: long ones cut, so one bad page cannot flood the log.
QString shown(const QByteArray& url)
{
    const QString s = QString::fromUtf8(url.left(200));
    return url.size() > 200 ? s + QStringLiteral("... (%1 bytes)").arg(url.size()) : s;
}

// One log line about an upload: the entry point, the URL, and what happened.
void note(const Request& r, const QString& what)
{
    logLine(QStringLiteral("%1: %2: %3").arg(QLatin1String(r.fn), shown(r.url), what));
}

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// "%XX" becomes its byte; a "%" without two hex digits stays as it is, and so does "+".
QByteArray percentDecoded(const QByteArray& in)
{
    QByteArray out;
    out.reserve(in.size());
    for (int i = 0; i < in.size(); ++i) {
        if (in[i] == '%' && i + 2 < in.size() && hexValue(in[i + 1]) >= 0 && hexValue(in[i + 2]) >= 0) {
            out += char(hexValue(in[i + 1]) * 16 + hexValue(in[i + 2]));
            i += 2;
        } else {
            out += in[i];
        }
    }
    return out;
}

bool httpScheme(const QByteArray& url)
{
    const QByteArray head = url.left(8).toLower();
    return head.startsWith("http://") || head.startsWith("https://");
}

// Why a file cannot be sent, or an empty text when it can.
QString unsendable(const QString& path)
{
    if (path.isEmpty())
        return QStringLiteral("no file named");
    const QFileInfo fi(path);
    if (!fi.exists())
        return QStringLiteral("%1 does not exist").arg(path);
    if (!fi.isFile())
        return QStringLiteral("%1 is not a regular file; nothing sent").arg(path);
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return QStringLiteral("cannot read %1 (%2)").arg(path, f.errorString());
    return QString();
}

struct Sink {
    std::string body;
    bool cut = false;
};

size_t onBody(char* data, size_t size, size_t count, void* user)
{
    Sink* sink = static_cast<Sink*>(user);
    const size_t n = size * count;
    const size_t room = kMaxBody - sink->body.size();
    if (n > room) {
        // Keep what fits and stop reading: returning short ends the transfer.
        sink->body.append(data, room);
        sink->cut = true;
        return 0;
    }
    sink->body.append(data, n);
    return n;
}

struct CurlDeleter {
    void operator()(CURL* c) const { curl_easy_cleanup(c); }
    void operator()(curl_mime* m) const { curl_mime_free(m); }
    void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};

}  // namespace

QList<QPair<QByteArray, QByteArray>> parseFields(const QByteArray& text)
{
    QList<QPair<QByteArray, QByteArray>> fields;
    for (const QByteArray& item : text.split('&')) {
        if (item.isEmpty())
            continue;
        const int eq = item.indexOf('=');
        const QByteArray key = percentDecoded(eq < 0 ? item : item.left(eq));
        if (key.isEmpty())
            continue;
        fields.append({key, eq < 0 ? QByteArray() : percentDecoded(item.mid(eq + 1))});
    }
    return fields;
}

const char* contentTypeFor(const QString& path)
{
    const QString ext = QFileInfo(path).suffix().toLower();
    if (ext == QLatin1String("jpg") || ext == QLatin1String("jpeg"))
        return "image/jpeg";
    if (ext == QLatin1String("png"))
        return "image/png";
    if (ext == QLatin1String("bmp"))
        return "image/bmp";
    if (ext == QLatin1String("tif") || ext == QLatin1String("tiff"))
        return "image/tiff";
    if (ext == QLatin1String("pdf"))
        return "application/pdf";
    return "application/octet-stream";
}

Result post(const Request& r)
{
    Result result;
    if (!httpScheme(r.url)) {
        note(r, QStringLiteral("refused: only http and https URLs are uploaded to"));
        return result;
    }
    const QString why = unsendable(r.file);
    if (!why.isEmpty()) {
        note(r, why);
        return result;
    }
    if (r.token.contains('\r') || r.token.contains('\n')) {
        note(r, QStringLiteral("refused: the token holds a line break"));
        return result;
    }

    initCurlOnce();
    std::unique_ptr<CURL, CurlDeleter> curl(curl_easy_init());
    if (!curl) {
        note(r, QStringLiteral("cannot start a transfer"));
        return result;
    }
    CURL* c = curl.get();

    std::unique_ptr<curl_mime, CurlDeleter> mime(curl_mime_init(c));
    for (const auto& field : parseFields(r.fields)) {
        curl_mimepart* part = curl_mime_addpart(mime.get());
        curl_mime_name(part, field.first.constData());
        curl_mime_data(part, field.second.constData(), static_cast<size_t>(field.second.size()));
    }
    curl_mimepart* filePart = curl_mime_addpart(mime.get());
    curl_mime_name(filePart, r.fieldName.isEmpty() ? "file" : r.fieldName.constData());
    curl_mime_filedata(filePart, QFile::encodeName(r.file).constData());   // streamed, named after the file
    curl_mime_type(filePart, contentTypeFor(r.file));

    // No "Expect: 100-continue": some document servers never answer it, which costs a second.
    std::unique_ptr<curl_slist, CurlDeleter> headers(curl_slist_append(nullptr, "Expect:"));
    if (!r.token.isEmpty())
        headers.reset(curl_slist_append(headers.release(), ("Authorization: Bearer " + r.token).constData()));

    const QString caFile = profileText(QStringLiteral("upload.caFile"), QString());
    const bool verify = profileFlag(QStringLiteral("upload.verify"), true);
    if (!verify)
        note(r, QStringLiteral("upload.verify is false: the server's certificate is not checked"));

    Sink sink;
    char error[CURL_ERROR_SIZE] = {};
    const long seconds = r.seconds > 0 ? r.seconds : kDefaultSeconds;
    const QByteArray caPath = QFile::encodeName(caFile);
    curl_easy_setopt(c, CURLOPT_URL, r.url.constData());
    curl_easy_setopt(c, CURLOPT_MIMEPOST, mime.get());
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(c, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(c, CURLOPT_MAXREDIRS, static_cast<long>(kMaxRedirects));
    curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, seconds * 1000L);
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);   // no SIGALRM: uploads run on any thread
    curl_easy_setopt(c, CURLOPT_USERAGENT, "portable-devicelib/" RVO_PORTABLE_VERSION);
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, &onBody);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &sink);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, error);
    if (!caFile.isEmpty())
        curl_easy_setopt(c, CURLOPT_CAINFO, caPath.constData());
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, verify ? 1L : 0L);
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, verify ? 2L : 0L);

    const CURLcode code = curl_easy_perform(c);
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &result.status);
    if (code != CURLE_OK && !(code == CURLE_WRITE_ERROR && sink.cut)) {
        note(r, QStringLiteral("no answer: %1").arg(QString::fromUtf8(error[0] ? error : curl_easy_strerror(code))));
        result.status = 0;
        return result;
    }
    result.answered = true;
    if (sink.cut)
        note(r, QStringLiteral("the answer is longer than %1 bytes; only those are kept").arg(kMaxBody));
    const size_t nul = sink.body.find('\0');
    result.body = nul == std::string::npos ? std::move(sink.body) : sink.body.substr(0, nul);
    note(r, QStringLiteral("status %1, %2 bytes").arg(result.status).arg(result.body.size()));

    if (r.deleteAfter && result.ok() && !QFile::remove(r.file))
        note(r, QStringLiteral("uploaded, but %1 could not be removed").arg(r.file));
    return result;
}

}  // namespace upload
}  // namespace portable
