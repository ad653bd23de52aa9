#include "items/mime_body_encoding.h"

#include "common/hresult.h"

#include <algorithm>

namespace {

constexpr size_t base64LineChars = 76;
constexpr size_t base64LineBytes = base64LineChars / 4 * 3; // 57
// Source bytes encoded at a time: whole lines, about a megabyte of text.
constexpr size_t base64ChunkBytes = base64LineBytes * 13797;

constexpr size_t qpLineChars = 76;

const char hexDigits[] = "0123456789ABCDEF";

bool isLiteralQp(unsigned char c)
{
    return (c >= 33 && c <= 126 && c != '=') || c == ' ' || c == '\t';
}

void appendEscaped(std::string& out, unsigned char c)
{
    out += '=';
    out += hexDigits[c >> 4];
    out += hexDigits[c & 15];
}

// One line of the text (without its line break) as quoted-printable lines.
void encodeQpLine(std::string_view line, std::string& out)
{
    size_t column = 0;
    for (size_t i = 0; i < line.size(); ++i) {
        const auto c = static_cast<unsigned char>(line[i]);
        const bool last = i + 1 == line.size();
        // A blank or tab at the end of a line would be lost in transport.
        const bool literal = isLiteralQp(c) && !(last && (c == ' ' || c == '\t'));
        const size_t width = literal ? 1 : 3;
        // Room for the piece and, unless it ends the line, a soft break's "=".
        const size_t room = last ? qpLineChars : qpLineChars - 1;
        if (column + width > room) {
            out += "=\r\n";
            column = 0;
        }
        if (literal)
            out += static_cast<char>(c);
        else
            appendEscaped(out, c);
        column += width;
    }
}

} // namespace

std::string normalizeLineBreaks(std::string_view text)
{
    std::string out;
    out.reserve(text.size() + text.size() / 32);
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\r') {
            out += "\r\n";
            if (i + 1 < text.size() && text[i + 1] == '\n')
                ++i;
        } else if (c == '\n') {
            out += "\r\n";
        } else {
            out += c;
        }
    }
    return out;
}

std::string encodeQuotedPrintable(std::string_view text)
{
    std::string out;
    out.reserve(text.size() + text.size() / 8);
    size_t at = 0;
    while (at <= text.size()) {
        const size_t end = text.find("\r\n", at);
        if (end == std::string_view::npos) {
            encodeQpLine(text.substr(at), out);
            break;
        }
        encodeQpLine(text.substr(at, end - at), out);
        out += "\r\n";
        at = end + 2;
    }
    return out;
}

// One chunk (whole lines but for the last chunk of all) as base64 lines into
// `text`, in one pass into a buffer sized for it, line breaks included. The
// general encoder builds its text a character at a time, and a fresh buffer
// per chunk costs as much again: a large block comes as new pages each time.
static void encodeBase64Chunk(std::string_view chunk, std::string& text)
{
    static constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const size_t lines = (chunk.size() + base64LineBytes - 1) / base64LineBytes;
    text.resize((chunk.size() + 2) / 3 * 4 + lines * 2);
    char* out = text.data();
    const auto* in = reinterpret_cast<const unsigned char*>(chunk.data());
    size_t left = chunk.size();
    while (left > 0) {
        const size_t lineBytes = std::min(left, base64LineBytes);
        const size_t whole = lineBytes / 3 * 3;
        for (size_t i = 0; i < whole; i += 3, in += 3) {
            const unsigned group = unsigned(in[0]) << 16 | unsigned(in[1]) << 8 | in[2];
            *out++ = alphabet[group >> 18];
            *out++ = alphabet[(group >> 12) & 63];
            *out++ = alphabet[(group >> 6) & 63];
            *out++ = alphabet[group & 63];
        }
        const size_t rest = lineBytes - whole;
        if (rest > 0) {
            // Only the last line of all can end in a partial group.
            const unsigned group = unsigned(in[0]) << 16 | (rest > 1 ? unsigned(in[1]) << 8 : 0);
            *out++ = alphabet[group >> 18];
            *out++ = alphabet[(group >> 12) & 63];
            *out++ = rest > 1 ? alphabet[(group >> 6) & 63] : '=';
            *out++ = '=';
            in += rest;
        }
        *out++ = '\r';
        *out++ = '\n';
        left -= lineBytes;
    }
    text.resize(static_cast<size_t>(out - text.data()));
}

HRESULT writeBase64Lines(std::string_view bytes, const TextSink& sink)
{
    std::string text;
    for (size_t at = 0; at < bytes.size(); at += base64ChunkBytes) {
        encodeBase64Chunk(bytes.substr(at, base64ChunkBytes), text);
        RETURN_IF_FAILED(sink(text));
    }
    return S_OK;
}

HRESULT writeBase64LinesFromStream(IStream* stream, const TextSink& sink, ULONGLONG& bytesRead)
{
    bytesRead = 0;
    if (!stream)
        return E_POINTER;
    // Every chunk but the last is whole lines, so the lines run on unbroken
    // from one chunk to the next.
    std::string chunk(base64ChunkBytes, '\0');
    std::string text;
    bool ended = false;
    while (!ended) {
        size_t filled = 0;
        while (filled < chunk.size()) {
            ULONG got = 0;
            const HRESULT hr = stream->Read(chunk.data() + filled, static_cast<ULONG>(chunk.size() - filled), &got);
            if (FAILED(hr))
                return hr;
            if (got == 0 || got > chunk.size() - filled) {
                ended = true;
                break;
            }
            filled += got;
        }
        if (filled > 0) {
            encodeBase64Chunk(std::string_view(chunk.data(), filled), text);
            RETURN_IF_FAILED(sink(text));
        }
        bytesRead += filled;
    }
    return S_OK;
}
