#pragma once
// An environment variable of this process set for the length of a test, and
// put back as it was afterwards. The stand-ins read their switches from the
// environment at every call, so a switch holds exactly as long as this lives.
#include <windows.h>

#include <optional>
#include <string>

class EnvironmentSwitch {
public:
    // A null value removes the variable for the time being.
    EnvironmentSwitch(const wchar_t* name, const wchar_t* value) : name_(name)
    {
        wchar_t old[1024] = {};
        const DWORD length = GetEnvironmentVariableW(name, old, 1024);
        if (length > 0 && length < 1024)
            old_ = std::wstring(old, length);
        SetEnvironmentVariableW(name, value);
    }
    ~EnvironmentSwitch() { SetEnvironmentVariableW(name_.c_str(), old_ ? old_->c_str() : nullptr); }
    EnvironmentSwitch(const EnvironmentSwitch&) = delete;
    EnvironmentSwitch& operator=(const EnvironmentSwitch&) = delete;

private:
    std::wstring name_;
    std::optional<std::wstring> old_;
};
