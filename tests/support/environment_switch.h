#pragma once
// An environment variable of this process set for the length of a test (a
// null value removes it), and put back as it was afterwards. The stand-ins
// read their switches from the environment at every call.
#include <windows.h>

#include <optional>
#include <string>

class EnvironmentSwitch {
public:
    EnvironmentSwitch(const wchar_t* name, const wchar_t* value) : name_(name)
    {
        if (const DWORD size = GetEnvironmentVariableW(name, nullptr, 0)) {
            old_.emplace(size - 1, L'\0');
            GetEnvironmentVariableW(name, old_->data(), size);
        }
        SetEnvironmentVariableW(name, value);
    }
    ~EnvironmentSwitch() { SetEnvironmentVariableW(name_.c_str(), old_ ? old_->c_str() : nullptr); }
    EnvironmentSwitch(const EnvironmentSwitch&) = delete;

private:
    std::wstring name_;
    std::optional<std::wstring> old_;
};
