#include "core/base64.h"

namespace {

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int sextetOf(char c)
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

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

} // namespace

std::string encodeBase64(std::string_view bytes)
{
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const unsigned group = (static_cast<unsigned char>(bytes[i]) << 16) |
                               (static_cast<unsigned char>(bytes[i + 1]) << 8) | static_cast<unsigned char>(bytes[i + 2]);
        text += alphabet[(group >> 18) & 63];
        text += alphabet[(group >> 12) & 63];
        text += alphabet[(group >> 6) & 63];
        text += alphabet[group & 63];
    }
    const size_t rest = bytes.size() - i;
    if (rest > 0) {
        unsigned group = static_cast<unsigned char>(bytes[i]) << 16;
        if (rest == 2)
            group |= static_cast<unsigned char>(bytes[i + 1]) << 8;
        text += alphabet[(group >> 18) & 63];
        text += alphabet[(group >> 12) & 63];
        text += rest == 2 ? alphabet[(group >> 6) & 63] : '=';
        text += '=';
    }
    return text;
}

std::optional<std::string> decodeBase64(std::string_view text)
{
    std::string bytes;
    bytes.reserve(text.size() / 4 * 3);
    unsigned group = 0;
    int count = 0;
    int padding = 0;
    for (char c : text) {
        if (isBlank(c))
            continue;
        if (c == '=') {
            ++padding;
            continue;
        }
        const int sextet = sextetOf(c);
        if (sextet < 0 || padding > 0)
            return std::nullopt; // foreign character, or data after the padding
        group = (group << 6) | static_cast<unsigned>(sextet);
        if (++count == 4) {
            bytes += static_cast<char>((group >> 16) & 0xFF);
            bytes += static_cast<char>((group >> 8) & 0xFF);
            bytes += static_cast<char>(group & 0xFF);
            group = 0;
            count = 0;
        }
    }
    if (count == 1 || padding > 2 || (padding > 0 && count + padding != 4))
        return std::nullopt;
    if (count == 2) {
        bytes += static_cast<char>((group >> 4) & 0xFF);
    } else if (count == 3) {
        bytes += static_cast<char>((group >> 10) & 0xFF);
        bytes += static_cast<char>((group >> 2) & 0xFF);
    }
    return bytes;
}
