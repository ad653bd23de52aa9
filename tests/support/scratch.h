#pragma once
// Real folders, registry keys and log files for tests, each removed again
// when the test ends.
#include "core/log.h"
#include "common/text_file.h"

#include <windows.h>

#include <string>
#include <vector>

void writeBytes(const std::wstring& path, const std::string& bytes);
inline std::string readBytes(const std::wstring& path) { return readFileBytes(path).value_or(std::string()); }
inline bool fileExists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }
void deleteTree(const std::wstring& path);
std::vector<std::wstring> filesIn(const std::wstring& folder);  // files only, sorted
std::wstring testProgramFolder();
std::wstring uniqueName(const std::wstring& prefix);  // prefix + process, counter and time

// A fresh folder under %TEMP%, deleted with everything in it.
class ScratchFolder {
public:
    ScratchFolder();
    ~ScratchFolder() { deleteTree(path_); }
    ScratchFolder(const ScratchFolder&) = delete;
    const std::wstring& path() const { return path_; }
    std::wstring file(const std::wstring& name) const { return path_ + L"\\" + name; }

private:
    std::wstring path_;
};

// Removes HKCU and HKLM "Software\<company>\<product>" in both registry
// views, and the company key when nothing else is left in it.
void removeSettingsKeys(const std::wstring& company, const std::wstring& product);

// A company and product name of our own, removed before and after the test.
class TestSettingsKeys {
public:
    static constexpr const wchar_t* company = L"KorvaneTest";
    TestSettingsKeys() { removeSettingsKeys(company, product_); }
    ~TestSettingsKeys() { removeSettingsKeys(company, product_); }
    TestSettingsKeys(const TestSettingsKeys&) = delete;
    const std::wstring& product() const { return product_; }
    std::wstring userPath(const std::wstring& name) const
    {
        return L"HKCU\\Software\\" + std::wstring(company) + L"\\" + product_ + L"\\" + name;
    }

private:
    std::wstring product_ = uniqueName(L"Bench-");
};

// Points the process-wide log at a scratch file; closes it at the end.
class LogCapture {
public:
    explicit LogCapture(int level) { LogFile::instance().open(path_, level, false); }
    ~LogCapture() { LogFile::instance().close(); }
    LogCapture(const LogCapture&) = delete;
    std::string contents() const { return readBytes(path_); }

private:
    ScratchFolder folder_;
    std::wstring path_ = folder_.file(L"test.log");
};

// A copy of the add-in DLL loaded from a scratch folder, so that "the folder
// of the add-in file" is one the test controls.
class AddinCopy {
public:
    explicit AddinCopy(const ScratchFolder& folder);
    ~AddinCopy() { FreeLibrary(module_); }
    AddinCopy(const AddinCopy&) = delete;
    HMODULE module() const { return module_; }

private:
    HMODULE module_ = nullptr;
};
