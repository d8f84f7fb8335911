// Both base64 decoders, on arbitrary bytes taken two ways: as base64 text a page sends, and as
// the bytes of an image that goes out as text and must come back unchanged.
//  - the server's own codec (dispatch/base64): a string in, a string out;
//  - the device library's file codec (Base64Encode / Base64Decode): file to text, text to file.
#include "devicelib/doccamera.h"
#include "dispatch/base64.h"
#include "fuzzsupport.h"

#include <QByteArray>
#include <QDir>
#include <QFile>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

QString gDir;   // a private folder for the file codec, under TMPDIR

QByteArray readFile(const QString& path)
{
    QFile f(path);
    FUZZ_CHECK(f.open(QIODevice::ReadOnly));
    return f.readAll();
}

void writeFile(const QString& path, const QByteArray& bytes)
{
    QFile f(path);
    FUZZ_CHECK(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    FUZZ_CHECK(f.write(bytes) == bytes.size());
}

std::string serverEncode(const QByteArray& bytes, bool url)
{
    return base64_encode(reinterpret_cast<const unsigned char*>(bytes.constData()),
                         static_cast<unsigned long>(bytes.size()), url);
}

// The server's codec: it agrees with Qt's on its standard alphabet, decodes what it encodes, and
// stops at the first character outside that alphabet.
void serverCodec(const QByteArray& input)
{
    const std::string text(input.constData(), static_cast<size_t>(input.size()));
    const std::string decoded = base64_decode(text);
    int valid = 0;
    while (valid < input.size()) {
        const char c = input.at(valid);
        if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/'))
            break;
        ++valid;
    }
    const QByteArray qt = QByteArray::fromBase64(input.left(valid));
    FUZZ_CHECK(decoded == std::string(qt.constData(), static_cast<size_t>(qt.size())));

    // Round trip of the input as bytes, in both alphabets.
    const std::string standard = serverEncode(input, false);
    FUZZ_CHECK(standard == input.toBase64().toStdString());
    FUZZ_CHECK(base64_encode(reinterpret_cast<const unsigned char*>(input.constData()),
                             static_cast<unsigned int>(input.size())) == standard);
    FUZZ_CHECK(base64_decode(standard) == text);
    std::string url = serverEncode(input, true);
    FUZZ_CHECK(url.size() == standard.size());
    for (char& c : url)
        c = c == '-' ? '+' : c == '_' ? '/' : c == '.' ? '=' : c;
    FUZZ_CHECK(url == standard);
}

// The library's codec. A refused text leaves the destination as it was; an accepted one writes
// exactly the bytes the text stands for. A file's bytes come back unchanged through its text,
// also when the text is wrapped in lines as mail does.
void fileCodec(const QByteArray& input)
{
    const QString target = gDir + QStringLiteral("/decoded");
    const QByteArray path = QFile::encodeName(target);
    const QByteArray before("previous content");
    writeFile(target, before);
    const QByteArray text(input.constData());   // as a C string: up to the first NUL
    if (Base64Decode(text.constData(), path.constData())) {
        QByteArray bare = text;
        bare.replace('\r', "").replace('\n', "").replace(' ', "").replace('\t', "");
        FUZZ_CHECK(readFile(target) == QByteArray::fromBase64(bare));
    } else {
        FUZZ_CHECK(readFile(target) == before);
    }

    if (input.isEmpty())
        return;   // an empty file has empty text, which is not accepted as base64
    const QString source = gDir + QStringLiteral("/source");
    writeFile(source, input);
    char* encoded = Base64Encode(QFile::encodeName(source).constData());
    FUZZ_CHECK(encoded != nullptr);
    const QByteArray standard(encoded);
    std::free(encoded);
    FUZZ_CHECK(standard == input.toBase64());
    FUZZ_CHECK(Base64Decode(standard.constData(), path.constData()));
    FUZZ_CHECK(readFile(target) == input);
    QByteArray wrapped;
    for (int i = 0; i < standard.size(); i += 76)
        wrapped += standard.mid(i, 76) + "\r\n";
    writeFile(target, before);
    FUZZ_CHECK(Base64Decode(wrapped.constData(), path.constData()));
    FUZZ_CHECK(readFile(target) == input);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::installQuietLog();
    unsetenv("DEVICE_PROFILE");
    unsetenv("DEVICE_TRACE");
    const QByteArray base = qgetenv("TMPDIR").isEmpty() ? QByteArray("/tmp") : qgetenv("TMPDIR");
    QByteArray dir = base + "/fuzz_base64.XXXXXX";
    FUZZ_CHECK(mkdtemp(dir.data()) != nullptr);
    gDir = QFile::decodeName(dir);
    std::atexit([] { QDir(gDir).removeRecursively(); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray input(reinterpret_cast<const char*>(data), static_cast<int>(size));
    serverCodec(input);
    fileCodec(input);
    return 0;
}
