#pragma once
// The body an RTF document stands for. Outlook keeps HTML and plain-text
// mails as RTF that encapsulates them: \fromhtml1 or \fromtext in the
// document's header; the original text lies outside the \htmlrtf ... \htmlrtf0
// stretches (which are there for RTF readers only), and the HTML's tags in
// {\*\htmltagN ...} groups ({\*\mhtmltagN ...} holds a tag as the MIME
// message had it, which then stands for the \htmltagN that follows it). Any
// other RTF is a genuine RTF body, of which a plain-text rendering is made:
// its text without the font, colour, style and other tables, pictures,
// field instructions and ignorable destinations.
//
// 8-bit text is in the code page of its font (\fcharset, \cpg) or of the
// document (\ansicpg); \uN gives UTF-16 units. Bytes in, UTF-16 out, and the
// code-page conversion is the caller's: no system calls, so the reader is
// built and fuzzed on any platform. Work and output grow linearly with the
// input; nesting beyond a fixed depth is followed without keeping state.
#include "items/code_page.h"

#include <string>
#include <string_view>

enum class RtfBodyKind {
    Html, // \fromhtml1: the text is the HTML
    Text, // \fromtext: the text is the plain text
    Rtf,  // anything else: the text is a plain rendering of the RTF
};

struct RtfBody {
    RtfBodyKind kind = RtfBodyKind::Rtf;
    std::u16string text;
};

// What the document's header says it encapsulates.
RtfBodyKind rtfBodyKindOf(std::string_view rtf);

// The de-encapsulated HTML or text, or the plain rendering.
RtfBody readRtfBody(std::string_view rtf, const CodePageDecoder& decode);

// The plain rendering whatever the document encapsulates: of encapsulated
// HTML its text as RTF readers show it, without the HTML's markup.
std::u16string rtfPlainText(std::string_view rtf, const CodePageDecoder& decode);
