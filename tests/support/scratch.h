#pragma once
// Real folders, registry keys and log files for tests, each removed again
// when the test ends.
#include <windows.h>

#include <string>
#include <vector>

// A fresh folder under %TEMP%, deleted with everything in it.
class ScratchFolder {
public:
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::wstring& path() const { return path_; }
    std::wstring file(const std::wstring& name) const { return path_ + L"\\" + name; }

private:
    std::wstring path_;
};

void writeBytes(const std::wstring& path, const std::string& bytes);
std::string readBytes(const std::wstring& path);
bool fileExists(const std::wstring& path);
void deleteTree(const std::wstring& path);
// The names of the files (not folders) in a folder, sorted.
std::vector<std::wstring> filesIn(const std::wstring& folder);

// The folder of the running test program.
std::wstring testProgramFolder();

// A company and product name of our own under HKCU and HKLM (both views),
// removed before and after the test.
class TestSettingsKeys {
public:
    TestSettingsKeys();
    ~TestSettingsKeys();
    TestSettingsKeys(const TestSettingsKeys&) = delete;
    TestSettingsKeys& operator=(const TestSettingsKeys&) = delete;

    static constexpr const wchar_t* company = L"KorvaneTest";
    const std::wstring& product() const { return product_; }
    std::wstring userPath(const std::wstring& name) const;
    std::wstring machinePath(const std::wstring& name) const;

private:
    void removeAll() const;
    std::wstring product_;
};

// Points the process-wide log at a scratch file; closes it at the end.
class LogCapture {
public:
    explicit LogCapture(int level, bool append = false);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    const std::wstring& path() const { return path_; }
    std::string contents() const;

private:
    ScratchFolder folder_;
    std::wstring path_;
};

// A copy of the add-in DLL loaded from a scratch folder, so that "the folder
// of the add-in file" is one the test controls.
class AddinCopy {
public:
    explicit AddinCopy(const ScratchFolder& folder);
    ~AddinCopy();
    AddinCopy(const AddinCopy&) = delete;
    AddinCopy& operator=(const AddinCopy&) = delete;

    HMODULE module() const { return module_; }

private:
    HMODULE module_ = nullptr;
};
