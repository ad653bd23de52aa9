#include "common/text_lines.h"

#include "common/strings.h"

std::vector<std::wstring> splitUtf8Lines(std::string_view bytes, size_t maxLineChars)
{
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    if (bytes.substr(0, byteOrderMark.size()) == byteOrderMark)
        bytes.remove_prefix(byteOrderMark.size());

    const std::wstring text = utf8ToWide(bytes);
    std::vector<std::wstring> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find(L'\n', start);
        if (end == std::wstring::npos)
            end = text.size();
        std::wstring_view line(text.data() + start, end - start);
        if (!line.empty() && line.back() == L'\r')
            line.remove_suffix(1);
        lines.emplace_back(line.substr(0, maxLineChars));
        start = end + 1;
    }
    return lines;
}

std::optional<std::pair<std::wstring, std::wstring>> splitKeyValue(std::wstring_view line)
{
    const size_t equals = line.find(L'=');
    if (equals == std::wstring_view::npos)
        return std::nullopt;
    return std::make_pair(trimBlanks(line.substr(0, equals)), trimBlanks(line.substr(equals + 1)));
}
