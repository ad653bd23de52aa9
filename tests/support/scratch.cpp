#include "support/scratch.h"

#include "common/module_path.h"
#include "common/unique_resource.h"
#include "core/reg_util.h"

#include <algorithm>
#include <atomic>
#include <filesystem>

#include <gtest/gtest.h>

std::wstring uniqueName(const std::wstring& prefix)
{
    static std::atomic<int> counter{0};
    return prefix + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++counter) + L"-" +
           std::to_wstring(GetTickCount());
}

ScratchFolder::ScratchFolder()
{
    wchar_t temp[MAX_PATH + 1] = {};
    path_ = std::wstring(temp, GetTempPathW(MAX_PATH, temp)) + uniqueName(L"korvane-test-");
    if (!CreateDirectoryW(path_.c_str(), nullptr))
        ADD_FAILURE() << "cannot create scratch folder";
}

void deleteTree(const std::wstring& path)
{
    // Read-only files (the add-in makes them by setting) go too.
    std::error_code error;
    for (std::filesystem::recursive_directory_iterator it(path, error), end; !error && it != end; it.increment(error))
        SetFileAttributesW(it->path().c_str(), FILE_ATTRIBUTE_NORMAL);
    std::filesystem::remove_all(path, error);
}

std::vector<std::wstring> filesIn(const std::wstring& folder)
{
    std::vector<std::wstring> files;
    std::error_code error;
    for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
        if (!it->is_directory(error))
            files.push_back(it->path().filename().wstring());
    }
    std::sort(files.begin(), files.end());
    return files;
}

void writeBytes(const std::wstring& path, const std::string& bytes)
{
    UniqueFile file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    ASSERT_TRUE(WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr));
    ASSERT_EQ(written, bytes.size());
}

std::wstring testProgramFolder()
{
    const std::wstring path = modulePath(nullptr, 1000);
    return path.substr(0, path.find_last_of(L'\\'));
}

void removeSettingsKeys(const std::wstring& company, const std::wstring& product)
{
    const REGSAM view = RegUtil::registryView();
    for (REGSAM each : {REGSAM(0), REGSAM(KEY_WOW64_32KEY)}) {
        RegUtil::setRegistryView(each);
        for (auto [root, name] : {std::pair{HKEY_CURRENT_USER, L"HKCU\\"}, std::pair{HKEY_LOCAL_MACHINE, L"HKLM\\"}}) {
            RegUtil::deleteKeyIfExists(name + (L"Software\\" + company + L"\\" + product));
            RegDeleteKeyExW(root, (L"Software\\" + company).c_str(), each, 0);  // only when empty
        }
    }
    RegUtil::setRegistryView(view);
}

AddinCopy::AddinCopy(const ScratchFolder& folder)
{
    const std::wstring copy = folder.file(L"addin-copy.dll");
    // Test programs live beside the DLL, or one folder below it.
    for (const wchar_t* place : {L"\\", L"\\..\\"}) {
        if (CopyFileW((testProgramFolder() + place + KORVANE_DLL_FILE).c_str(), copy.c_str(), FALSE)) {
            module_ = LoadLibraryW(copy.c_str());
            break;
        }
    }
    if (!module_)
        ADD_FAILURE() << "cannot copy and load the add-in DLL, err=" << GetLastError();
}
