#include "dispatch/base64.h"

namespace {
const char kStandard[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const char kUrl[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

int standardValue(unsigned char c)
{
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    if (c == '/')
        return 63;
    return -1;
}
}  // namespace

std::string base64_encode(const unsigned char* bytes, unsigned long length, bool url)
{
    const char* alphabet = url ? kUrl : kStandard;
    const char pad = url ? '.' : '=';
    std::string out;
    out.reserve((length + 2) / 3 * 4);
    unsigned long i = 0;
    for (; i + 3 <= length; i += 3) {
        const unsigned v = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
        out += alphabet[(v >> 18) & 63];
        out += alphabet[(v >> 12) & 63];
        out += alphabet[(v >> 6) & 63];
        out += alphabet[v & 63];
    }
    const unsigned long rest = length - i;
    if (rest > 0) {
        const unsigned v = (bytes[i] << 16) | (rest == 2 ? bytes[i + 1] << 8 : 0);
        out += alphabet[(v >> 18) & 63];
        out += alphabet[(v >> 12) & 63];
        out += rest == 2 ? alphabet[(v >> 6) & 63] : pad;
        out += pad;
    }
    return out;
}

std::string base64_encode(const unsigned char* bytes, unsigned int length)
{
    return base64_encode(bytes, static_cast<unsigned long>(length), false);
}

std::string base64_decode(const std::string& encoded)
{
    std::string out;
    out.reserve(encoded.size() / 4 * 3);
    unsigned v = 0;
    int n = 0;
    for (unsigned char c : encoded) {
        const int d = standardValue(c);
        if (d < 0)
            break;
        v = (v << 6) | static_cast<unsigned>(d);
        if (++n == 4) {
            out += static_cast<char>((v >> 16) & 0xFF);
            out += static_cast<char>((v >> 8) & 0xFF);
            out += static_cast<char>(v & 0xFF);
            v = 0;
            n = 0;
        }
    }
    if (n == 2) {
        out += static_cast<char>((v >> 4) & 0xFF);
    } else if (n == 3) {
        out += static_cast<char>((v >> 10) & 0xFF);
        out += static_cast<char>((v >> 2) & 0xFF);
    }
    return out;
}
