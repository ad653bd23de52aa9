#include "common/text_file.h"

#include "common/strings.h"
#include "common/unique_resource.h"

namespace {

// Configuration and text files are small; anything beyond this is not ours.
constexpr DWORD maxTextFileBytes = 4 * 1024 * 1024;

} // namespace

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

std::optional<std::string> readFileBytes(const std::wstring& path, size_t maxBytes)
{
    UniqueFile file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return std::nullopt;

    std::string bytes;
    char buffer[65536];
    DWORD read = 0;
    while (bytes.size() < maxBytes && ReadFile(file.get(), buffer, sizeof buffer, &read, nullptr) && read > 0) {
        const size_t room = maxBytes - bytes.size();
        bytes.append(buffer, read < room ? read : room);
    }
    return bytes;
}

std::optional<std::vector<std::wstring>> readUtf8Lines(const std::wstring& path, size_t maxLineChars)
{
    const std::optional<std::string> bytes = readFileBytes(path, maxTextFileBytes);
    if (!bytes)
        return std::nullopt;
    return splitUtf8Lines(*bytes, maxLineChars);
}

std::optional<std::pair<std::wstring, std::wstring>> splitKeyValue(std::wstring_view line)
{
    const size_t equals = line.find(L'=');
    if (equals == std::wstring_view::npos)
        return std::nullopt;
    return std::make_pair(trimBlanks(line.substr(0, equals)), trimBlanks(line.substr(equals + 1)));
}
