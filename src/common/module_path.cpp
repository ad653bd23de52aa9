#include "common/module_path.h"

#include <vector>

HMODULE thisModule()
{
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCWSTR>(&thisModule), &module);
    return module;
}

std::wstring modulePath(HMODULE module, DWORD maxChars)
{
    std::vector<wchar_t> buffer(maxChars + 1, L'\0');
    const DWORD length = GetModuleFileNameW(module, buffer.data(), maxChars);
    if (length == 0 || length >= maxChars)
        return {};
    return std::wstring(buffer.data(), length);
}

std::wstring replaceFileName(const std::wstring& path, const std::wstring& fileName)
{
    const size_t separator = path.find_last_of(L"\\/:");
    const std::wstring folder = separator == std::wstring::npos ? std::wstring() : path.substr(0, separator + 1);
    return folder + fileName;
}
