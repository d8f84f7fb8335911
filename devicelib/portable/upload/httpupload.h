// Uploads of one local file to a document server, as a multipart/form-data POST over http or
// https (libcurl). The C entry points in api.cpp are one line each through traced().
#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>

#include <string>

namespace portable {
namespace upload {

struct Request {
    const char* fn = "";        // the entry point, for log lines
    QByteArray url;
    QString file;
    QByteArray fields;          // "k=v&k2=v2"
    QByteArray fieldName;       // the file's field; empty means "file"
    QByteArray token;           // sent as a bearer token when not empty
    long seconds = 0;           // the whole time-out; 0 or less means 30
    bool deleteAfter = false;   // remove the local file after a 2xx answer
};

struct Result {
    bool answered = false;   // an HTTP answer came (of any status)
    long status = 0;
    std::string body;        // cut at its first zero byte and at 8 MiB

    bool ok() const { return answered && status >= 200 && status < 300; }
};

// Runs one upload; every refusal or failure writes one log line that says why.
Result post(const Request& request);

// The extra fields of a "k=v&k2=v2" text, in order: split at "&", then at the first "=";
// keys and values percent-decoded ("+" stays "+"); empty items and empty keys skipped.
QList<QPair<QByteArray, QByteArray>> parseFields(const QByteArray& text);

// The content type a file's part carries, from its extension.
const char* contentTypeFor(const QString& path);

}  // namespace upload
}  // namespace portable
