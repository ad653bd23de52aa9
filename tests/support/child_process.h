#pragma once
// Other programs run by a test: the Outlook stand-in, the drop target,
// msiexec, rundll32.
#include <windows.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

inline std::wstring quoted(const std::wstring& text) { return L"\"" + text + L"\""; }

// The current environment with some variables replaced, as a block for CreateProcessW.
inline std::wstring environmentBlock(const std::vector<std::pair<std::wstring, std::wstring>>& overrides)
{
    std::wstring block;
    for (const auto& [name, value] : overrides)
        block += name + L"=" + value + L'\0';
    wchar_t* strings = GetEnvironmentStringsW();
    for (const wchar_t* entry = strings; *entry; entry += wcslen(entry) + 1) {
        const std::wstring name(entry, wcscspn(entry + 1, L"=") + 1);
        const auto overridden = [&name](const auto& each) { return _wcsicmp(each.first.c_str(), name.c_str()) == 0; };
        if (std::none_of(overrides.begin(), overrides.end(), overridden))
            block += std::wstring(entry) + L'\0';
    }
    FreeEnvironmentStringsW(strings);
    return block + L'\0';
}

// A started program, ended when it is still running at the end.
class ChildProcess {
public:
    ChildProcess(std::wstring commandLine, const std::wstring* environment)
    {
        STARTUPINFOW startup{};
        startup.cb = sizeof(startup);
        started_ = CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, CREATE_UNICODE_ENVIRONMENT,
                                  environment ? const_cast<wchar_t*>(environment->c_str()) : nullptr, nullptr,
                                  &startup, &info_);
    }
    ~ChildProcess()
    {
        wait(0);
        CloseHandle(info_.hThread);
        CloseHandle(info_.hProcess);
    }
    ChildProcess(const ChildProcess&) = delete;
    bool running() const { return started_ && WaitForSingleObject(info_.hProcess, 0) == WAIT_TIMEOUT; }
    // The exit code, or 0xFFFFFFFF when it didn't start or was ended after the time.
    DWORD wait(DWORD timeoutMs)
    {
        DWORD code = 0xFFFFFFFF;
        if (started_ && WaitForSingleObject(info_.hProcess, timeoutMs) == WAIT_TIMEOUT) {
            TerminateProcess(info_.hProcess, 0xFFFFFFFF);
            WaitForSingleObject(info_.hProcess, 5000);
        }
        return started_ && GetExitCodeProcess(info_.hProcess, &code) ? code : 0xFFFFFFFF;
    }

private:
    PROCESS_INFORMATION info_{};
    bool started_ = false;
};

inline DWORD runProgram(const std::wstring& commandLine, DWORD timeoutMs = 180000)
{
    return ChildProcess(commandLine, nullptr).wait(timeoutMs);
}
