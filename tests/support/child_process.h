#pragma once
// Other programs run by a test: the Outlook stand-in, the drop target,
// msiexec, rundll32.
#include <windows.h>

#include <string>
#include <utility>
#include <vector>

std::wstring quoted(const std::wstring& text);

// The current environment with some variables replaced, as a block for CreateProcessW.
std::wstring environmentBlock(const std::vector<std::pair<std::wstring, std::wstring>>& overrides);

// A started program, ended when it is still running at the end.
class ChildProcess {
public:
    ChildProcess(std::wstring commandLine, const std::wstring* environment);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool started() const { return started_; }
    bool running() const { return started_ && WaitForSingleObject(info_.hProcess, 0) == WAIT_TIMEOUT; }
    // The exit code, or 0xFFFFFFFF after ending a process that didn't finish in time.
    DWORD wait(DWORD timeoutMs);

private:
    PROCESS_INFORMATION info_{};
    bool started_ = false;
};

// Runs a command line to its end: its exit code, 0xFFFFFFFF when it could not start or run in time.
DWORD runProgram(const std::wstring& commandLine, DWORD timeoutMs = 180000);
