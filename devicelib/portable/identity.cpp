// Who the library is: its version text and serial number, and whether the social-security
// card module is present. All come from the device profile ("library", "socialSecurityModule").
#include "devicelib/cardreader.h"
#include "devicelib/doccamera.h"
#include "devicelib/portable/core.h"

#include <algorithm>
#include <cstring>

namespace portable {
namespace {

// The caller's text buffer as an output parameter: traced as the text it holds after the call,
// scripted with a string (or null: nothing written).
class OutBuffer final : public Out {
public:
    OutBuffer(char* buffer, int capacity) : m_buffer(buffer), m_capacity(capacity) {}

    std::string traceJson() const override
    {
        if (!m_buffer || m_capacity <= 0)
            return "null";
        return jsonString(std::string(m_buffer, ::strnlen(m_buffer, static_cast<size_t>(m_capacity))));
    }

    bool fromScript(const QJsonValue& v) override
    {
        if (v.isNull())
            return true;
        if (!v.isString())
            return false;
        write(v.toString().toStdString());
        return true;
    }

    // Copies text, cut at a character boundary so that it fits with its terminating NUL.
    void write(const std::string& text)
    {
        if (!m_buffer || m_capacity <= 0) {
            logLine(QStringLiteral("doccameraVeriosn: no buffer to write the version to"));
            return;
        }
        size_t n = std::min(text.size(), static_cast<size_t>(m_capacity) - 1);
        if (n < text.size()) {
            // Back off over UTF-8 continuation bytes so no character is cut in two.
            while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80)
                --n;
            logLine(QStringLiteral("doccameraVeriosn: the version text is cut to %1 bytes").arg(n));
        }
        std::memcpy(m_buffer, text.data(), n);
        m_buffer[n] = '\0';
    }

private:
    char* m_buffer;
    int m_capacity;
};

}  // namespace
}  // namespace portable

using namespace portable;

extern "C" {

void doccameraVeriosn(char* buffer, int capacity)
{
    OutBuffer out(buffer, capacity);
    traced<void>("doccameraVeriosn", {out, capacity}, [&] {
        out.write(profileText(QStringLiteral("library.version"), QString()).toStdString());
    });
}

char* sGetSerialNum(void)
{
    return heapText(traced<Text>("sGetSerialNum", {}, [] {
        return Text(profileText(QStringLiteral("library.serial"), QString()).toStdString());
    }));
}

bool GetDeviceStatus_dc(void)
{
    return traced<bool>("GetDeviceStatus_dc", {}, [] { return profileFlag(QStringLiteral("socialSecurityModule"), true); });
}

}  // extern "C"
