#include "support/scratch.h"

#include "core/log.h"
#include "common/module_path.h"
#include "common/text_file.h"
#include "common/unique_resource.h"
#include "core/reg_util.h"

#include <algorithm>
#include <atomic>

#include <gtest/gtest.h>

namespace {

std::atomic<int> scratchCounter{0};

std::wstring uniqueSuffix()
{
    return std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++scratchCounter) + L"-" +
           std::to_wstring(GetTickCount());
}

} // namespace

ScratchFolder::ScratchFolder()
{
    wchar_t temp[MAX_PATH + 1] = {};
    GetTempPathW(MAX_PATH, temp);
    path_ = std::wstring(temp) + L"korvane-test-" + uniqueSuffix();
    if (!CreateDirectoryW(path_.c_str(), nullptr))
        ADD_FAILURE() << "cannot create scratch folder";
}

ScratchFolder::~ScratchFolder()
{
    deleteTree(path_);
}

void deleteTree(const std::wstring& path)
{
    WIN32_FIND_DATAW found{};
    UniqueFindHandle find(FindFirstFileW((path + L"\\*").c_str(), &found));
    if (find) {
        do {
            const std::wstring name = found.cFileName;
            if (name == L"." || name == L"..")
                continue;
            const std::wstring child = path + L"\\" + name;
            SetFileAttributesW(child.c_str(), FILE_ATTRIBUTE_NORMAL);
            if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                deleteTree(child);
            else
                DeleteFileW(child.c_str());
        } while (FindNextFileW(find.get(), &found));
    }
    find.reset();
    RemoveDirectoryW(path.c_str());
}

std::vector<std::wstring> filesIn(const std::wstring& folder)
{
    std::vector<std::wstring> files;
    WIN32_FIND_DATAW found{};
    UniqueFindHandle find(FindFirstFileW((folder + L"\\*").c_str(), &found));
    if (!find)
        return files;
    do {
        if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
            files.push_back(found.cFileName);
    } while (FindNextFileW(find.get(), &found));
    std::sort(files.begin(), files.end());
    return files;
}

void writeBytes(const std::wstring& path, const std::string& bytes)
{
    UniqueFile file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(file.valid());
    DWORD written = 0;
    ASSERT_TRUE(WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr));
    ASSERT_EQ(written, bytes.size());
}

std::string readBytes(const std::wstring& path)
{
    return readFileBytes(path).value_or(std::string());
}

bool fileExists(const std::wstring& path)
{
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::wstring testProgramFolder()
{
    const std::wstring path = modulePath(nullptr, 1000);
    return path.substr(0, path.find_last_of(L'\\'));
}

TestSettingsKeys::TestSettingsKeys() : product_(L"Bench-" + uniqueSuffix())
{
    removeAll();
}

TestSettingsKeys::~TestSettingsKeys()
{
    removeAll();
}

std::wstring TestSettingsKeys::userPath(const std::wstring& name) const
{
    return std::wstring(L"HKCU\\Software\\") + company + L"\\" + product_ + (name.empty() ? L"" : L"\\" + name);
}

std::wstring TestSettingsKeys::machinePath(const std::wstring& name) const
{
    return std::wstring(L"HKLM\\Software\\") + company + L"\\" + product_ + (name.empty() ? L"" : L"\\" + name);
}

void TestSettingsKeys::removeAll() const
{
    const REGSAM view = RegUtil::registryView();
    for (REGSAM each : {REGSAM(0), REGSAM(KEY_WOW64_32KEY)}) {
        RegUtil::setRegistryView(each);
        RegUtil::deleteKeyIfExists(userPath(L""));
        RegUtil::deleteKeyIfExists(machinePath(L""));
        // The company key goes too once no other test uses it.
        const std::wstring companyKey = std::wstring(L"Software\\") + company;
        RegDeleteKeyExW(HKEY_CURRENT_USER, companyKey.c_str(), each, 0);
        RegDeleteKeyExW(HKEY_LOCAL_MACHINE, companyKey.c_str(), each, 0);
    }
    RegUtil::setRegistryView(view);
}

LogCapture::LogCapture(int level, bool append) : path_(folder_.file(L"test.log"))
{
    LogFile::instance().open(path_, level, append);
}

LogCapture::~LogCapture()
{
    LogFile::instance().close();
}

std::string LogCapture::contents() const
{
    return readBytes(path_);
}

AddinCopy::AddinCopy(const ScratchFolder& folder)
{
    const std::wstring copy = folder.file(L"addin-copy.dll");
    // Test programs live beside the DLL, or one folder below it.
    const std::wstring beside = testProgramFolder() + L"\\" + KORVANE_DLL_FILE;
    const std::wstring above = testProgramFolder() + L"\\..\\" + KORVANE_DLL_FILE;
    if (!CopyFileW(beside.c_str(), copy.c_str(), FALSE) && !CopyFileW(above.c_str(), copy.c_str(), FALSE)) {
        ADD_FAILURE() << "cannot copy the add-in DLL";
        return;
    }
    module_ = LoadLibraryW(copy.c_str());
    if (!module_)
        ADD_FAILURE() << "cannot load the copied add-in DLL, err=" << GetLastError();
}

AddinCopy::~AddinCopy()
{
    if (module_)
        FreeLibrary(module_);
}
