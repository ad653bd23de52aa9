#include "common/text_file.h"

#include "common/unique_resource.h"

namespace {

// Configuration and text files are small; anything beyond this is not ours.
constexpr DWORD maxTextFileBytes = 4 * 1024 * 1024;

} // namespace

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
