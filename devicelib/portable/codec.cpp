// File <-> base64 text for pages that move images as text.
//  - Base64Encode(path): the file's bytes as base64 (standard alphabet, "=" padding, one line).
//  - Base64Decode(text, path): the decoded bytes written to path, replacing what was there;
//    line breaks and blanks inside the text are ignored (mail-style wrapped text decodes),
//    anything else outside the alphabet, or misplaced padding, refuses the text.
#include "devicelib/doccamera.h"
#include "devicelib/portable/core.h"

#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

namespace portable {
namespace {

Text encodeFile(const char* path)
{
    const QString p = path ? QString::fromUtf8(path) : QString();
    if (p.isEmpty()) {
        logLine(QStringLiteral("Base64Encode: the path is empty"));
        return std::nullopt;
    }
    QFile f(p);
    if (QFileInfo(p).isDir() || !f.open(QIODevice::ReadOnly)) {
        logLine(QStringLiteral("Base64Encode: cannot read %1 (%2)").arg(p, QFileInfo(p).isDir() ? QStringLiteral("a folder") : f.errorString()));
        return std::nullopt;
    }
    const QByteArray bytes = f.readAll();
    if (f.error() != QFileDevice::NoError) {
        logLine(QStringLiteral("Base64Encode: reading %1 failed (%2)").arg(p, f.errorString()));
        return std::nullopt;
    }
    return bytes.toBase64().toStdString();
}

bool decodeToFile(const char* base64, const char* path)
{
    const QString p = path ? QString::fromUtf8(path) : QString();
    if (p.isEmpty()) {
        logLine(QStringLiteral("Base64Decode: the destination path is empty"));
        return false;
    }
    QByteArray text = base64 ? QByteArray(base64) : QByteArray();
    text.replace('\r', "").replace('\n', "").replace(' ', "").replace('\t', "");
    if (text.isEmpty()) {
        logLine(QStringLiteral("Base64Decode: no text to decode for %1").arg(p));
        return false;
    }
    const auto decoded = QByteArray::fromBase64Encoding(text, QByteArray::AbortOnBase64DecodingErrors);
    // A lone character after the last full group carries under one byte: not base64 either.
    const bool loneCharacter = (text.size() - text.count('=')) % 4 == 1;
    if (decoded.decodingStatus != QByteArray::Base64DecodingStatus::Ok || loneCharacter) {
        logLine(QStringLiteral("Base64Decode: the text for %1 is not valid base64").arg(p));
        return false;
    }
    QSaveFile out(p);
    if (!out.open(QIODevice::WriteOnly)) {
        logLine(QStringLiteral("Base64Decode: cannot write %1 (%2)").arg(p, out.errorString()));
        return false;
    }
    if (out.write(decoded.decoded) != decoded.decoded.size() || !out.commit()) {
        logLine(QStringLiteral("Base64Decode: writing %1 failed (%2)").arg(p, out.errorString()));
        return false;
    }
    return true;
}

}  // namespace
}  // namespace portable

using namespace portable;

extern "C" {

char* Base64Encode(const char* path)
{
    return heapText(traced<Text>("Base64Encode", {path}, [&] { return encodeFile(path); }));
}

bool Base64Decode(const char* base64, const char* path)
{
    return traced<bool>("Base64Decode", {base64, path}, [&] { return decodeToFile(base64, path); });
}

}  // extern "C"
