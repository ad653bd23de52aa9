#pragma once
// Which code page a mail's 8-bit text is in. An ANSI Outlook writes its
// 8-bit (PT_STRING8) strings in the code page of the message
// (PR_MESSAGE_CODEPAGE); where that is missing, the Internet code page the
// mail came in (PR_INTERNET_CPID) names the script, and the Windows code page
// of that script is the one the strings are in. RTF names its code pages by
// character set (\fcharset). The tables are plain data, free of system calls,
// so the units that use them build and are fuzzed on any platform.
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

// Turns 8-bit text in a code page (0: the machine's) into UTF-16 units.
using CodePageDecoder = std::function<std::u16string(std::string_view bytes, uint32_t codePage)>;

namespace CodePage {
inline constexpr uint32_t machine = 0; // the machine's ANSI code page
inline constexpr uint32_t utf8 = 65001;
inline constexpr uint32_t western = 1252;
} // namespace CodePage

// The Windows code page that holds the script of an Internet code page:
// Windows code pages as they are; ISO-2022-JP (50220, 50221, 50222) and
// EUC-JP as 932; ISO-8859-1 as 1252; KOI8-R and ISO-8859-5 as 1251; and so
// on. 0 when there is none (UTF-8 and UTF-7, which no 8-bit string is
// stored in, and numbers that are no code page).
uint32_t windowsCodePageOf(uint32_t codePage);

// The code page of a message's 8-bit strings: PR_MESSAGE_CODEPAGE, else
// PR_INTERNET_CPID, each as windowsCodePageOf makes it; 0 (the machine's)
// when neither names one.
uint32_t stringCodePageOf(std::optional<uint32_t> messageCodePage, std::optional<uint32_t> internetCodePage);

// The code page of an RTF font's \fcharset; 0 when the character set names
// none of its own (ANSI, default and symbol: the document's \ansicpg holds).
uint32_t codePageOfRtfCharset(uint32_t charset);
