#include "support/child_process.h"

#include <map>

std::wstring quoted(const std::wstring& text)
{
    return L"\"" + text + L"\"";
}

std::wstring environmentBlock(const std::vector<std::pair<std::wstring, std::wstring>>& overrides)
{
    std::map<std::wstring, std::wstring> variables;
    std::vector<std::wstring> order;
    if (wchar_t* strings = GetEnvironmentStringsW()) {
        for (const wchar_t* entry = strings; *entry; entry += wcslen(entry) + 1) {
            const std::wstring text = entry;
            const size_t equals = text.find(L'=', 1);
            if (equals == std::wstring::npos)
                continue;
            std::wstring name = text.substr(0, equals);
            if (!variables.count(name))
                order.push_back(name);
            variables[name] = text.substr(equals + 1);
        }
        FreeEnvironmentStringsW(strings);
    }
    for (const auto& [name, value] : overrides) {
        if (!variables.count(name))
            order.push_back(name);
        variables[name] = value;
    }
    std::wstring block;
    for (const std::wstring& name : order)
        block += name + L"=" + variables[name] + L'\0';
    block += L'\0';
    return block;
}

ChildProcess::ChildProcess(std::wstring commandLine, const std::wstring* environment)
{
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    started_ = CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, CREATE_UNICODE_ENVIRONMENT,
                              environment ? const_cast<wchar_t*>(environment->c_str()) : nullptr, nullptr, &startup,
                              &info_);
}

ChildProcess::~ChildProcess()
{
    if (!started_)
        return;
    if (WaitForSingleObject(info_.hProcess, 0) == WAIT_TIMEOUT) {
        TerminateProcess(info_.hProcess, 0xFFFFFFFF);
        WaitForSingleObject(info_.hProcess, 5000);
    }
    CloseHandle(info_.hThread);
    CloseHandle(info_.hProcess);
}

DWORD ChildProcess::wait(DWORD timeoutMs)
{
    if (!started_)
        return 0xFFFFFFFF;
    if (WaitForSingleObject(info_.hProcess, timeoutMs) == WAIT_TIMEOUT) {
        TerminateProcess(info_.hProcess, 0xFFFFFFFF);
        WaitForSingleObject(info_.hProcess, 5000);
    }
    DWORD code = 0xFFFFFFFF;
    GetExitCodeProcess(info_.hProcess, &code);
    return code;
}

DWORD runProgram(const std::wstring& commandLine, DWORD timeoutMs)
{
    ChildProcess program(commandLine, nullptr);
    return program.wait(timeoutMs);
}
