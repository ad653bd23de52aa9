// The exported Base64 file tools: turn a file into its Base64 text and back,
// for setup programs that carry images and configuration as text.
#include <windows.h>

#include "install/base64_files.h"
#include "core/exception_barrier.h"
#include "core/log.h"
#include "common/unique_resource.h"
#include "core/base64.h"

#include <optional>
#include <string>

namespace {

Logger logger("korvane");

// The tools handle images and configuration files, never mail.
constexpr LONGLONG maxToolFileBytes = 64LL * 1024 * 1024;

std::optional<std::string> readWholeFile(const wchar_t* path)
{
    UniqueFile file(CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                                nullptr));
    LARGE_INTEGER size{};
    if (!file || !GetFileSizeEx(file.get(), &size) || size.QuadPart > maxToolFileBytes)
        return std::nullopt;
    std::string bytes(static_cast<size_t>(size.QuadPart), '\0');
    DWORD read = 0;
    if (!bytes.empty() && (!ReadFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr) ||
                           read != bytes.size()))
        return std::nullopt;
    return bytes;
}

HRESULT writeWholeFile(const wchar_t* path, const std::string& bytes)
{
    UniqueFile file(
        CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return HRESULT_FROM_WIN32(GetLastError());
    DWORD written = 0;
    if (!WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) ||
        written != bytes.size())
        return HRESULT_FROM_WIN32(GetLastError());
    return S_OK;
}

template <typename Transform>
HRESULT transformFile(const char* name, const wchar_t* inputFile, const wchar_t* outputFile, Transform transform)
{
    return exportedCall(name, [&] {
        if (!inputFile || !outputFile)
            return E_POINTER;
        KV_DEBUG(logger) << "inputFile=" << inputFile << ", outputFile=" << outputFile;
        HRESULT hr = E_FAIL;
        if (const auto input = readWholeFile(inputFile)) {
            const std::optional<std::string> output = transform(*input);
            hr = output ? writeWholeFile(outputFile, *output) : HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
        } else {
            hr = HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
        }
        if (FAILED(hr)) {
            KV_WARN(logger) << name << " failed for " << inputFile << ", hr=" << hr;
        }
        return hr;
    });
}

} // namespace

extern "C" HRESULT WINAPI EncodeBase64(const wchar_t* inputFile, const wchar_t* outputFile)
{
    return transformFile("EncodeBase64", inputFile, outputFile,
                         [](const std::string& bytes) -> std::optional<std::string> { return encodeBase64(bytes); });
}

extern "C" HRESULT WINAPI DecodeBase64(const wchar_t* inputFile, const wchar_t* outputFile)
{
    return transformFile("DecodeBase64", inputFile, outputFile,
                         [](const std::string& text) { return decodeBase64(text); });
}
