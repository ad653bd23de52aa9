#include "items/code_page.h"

#include <algorithm>
#include <iterator>

namespace {

struct CodePagePair {
    uint32_t from;
    uint32_t to;
};

// Sorted by `from`.
constexpr CodePagePair internetToWindows[] = {
    {20127, 1252},  // US-ASCII
    {20866, 1251},  // KOI8-R
    {20932, 932},   // EUC-JP (JIS X 0208)
    {20936, 936},   // GB2312-80
    {21866, 1251},  // KOI8-U
    {28591, 1252},  // ISO-8859-1
    {28592, 1250},  // ISO-8859-2
    {28593, 1254},  // ISO-8859-3
    {28594, 1257},  // ISO-8859-4
    {28595, 1251},  // ISO-8859-5
    {28596, 1256},  // ISO-8859-6
    {28597, 1253},  // ISO-8859-7
    {28598, 1255},  // ISO-8859-8
    {28599, 1254},  // ISO-8859-9
    {28603, 1257},  // ISO-8859-13
    {28605, 1252},  // ISO-8859-15
    {38598, 1255},  // ISO-8859-8-I
    {50220, 932},   // ISO-2022-JP
    {50221, 932},   // ISO-2022-JP with half-width katakana
    {50222, 932},   // ISO-2022-JP, JIS X 0201-1989
    {50225, 949},   // ISO-2022-KR
    {50227, 936},   // ISO-2022-CN, simplified
    {50229, 950},   // ISO-2022-CN, traditional
    {51932, 932},   // EUC-JP
    {51936, 936},   // EUC-CN
    {51949, 949},   // EUC-KR
    {51950, 950},   // EUC-TW
    {52936, 936},   // HZ-GB2312
    {54936, 936},   // GB18030
};

// Sorted by `from`.
constexpr CodePagePair rtfCharsets[] = {
    {77, 10000}, {78, 10001}, {79, 10003}, {80, 10008}, {81, 10002}, {83, 10005},
    {84, 10004}, {85, 10006}, {86, 10081}, {87, 10021}, {88, 10029}, {89, 10007}, {128, 932},
    {129, 949},  {130, 1361}, {134, 936},  {136, 950},  {161, 1253}, {162, 1254}, {163, 1258},
    {177, 1255}, {178, 1256}, {186, 1257}, {204, 1251}, {222, 874},  {238, 1250}, {254, 437},
};

template <size_t N>
uint32_t lookUp(const CodePagePair (&table)[N], uint32_t from)
{
    const auto found =
        std::lower_bound(std::begin(table), std::end(table), from, [](const CodePagePair& pair, uint32_t value) {
            return pair.from < value;
        });
    return found != std::end(table) && found->from == from ? found->to : 0;
}

bool isWindowsCodePage(uint32_t codePage)
{
    // The ANSI and OEM code pages of Windows, the DBCS ones and the Mac ones.
    return (codePage >= 1250 && codePage <= 1258) || codePage == 874 || codePage == 932 || codePage == 936 ||
           codePage == 949 || codePage == 950 || codePage == 1361 || (codePage >= 437 && codePage <= 869) ||
           (codePage >= 10000 && codePage <= 10082);
}

} // namespace

uint32_t windowsCodePageOf(uint32_t codePage)
{
    if (isWindowsCodePage(codePage))
        return codePage;
    return lookUp(internetToWindows, codePage);
}

uint32_t stringCodePageOf(std::optional<uint32_t> messageCodePage, std::optional<uint32_t> internetCodePage)
{
    for (const auto& given : {messageCodePage, internetCodePage}) {
        if (given) {
            if (const uint32_t codePage = windowsCodePageOf(*given))
                return codePage;
        }
    }
    return CodePage::machine;
}

uint32_t codePageOfRtfCharset(uint32_t charset)
{
    return lookUp(rtfCharsets, charset);
}
