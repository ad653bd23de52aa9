#include "e2e_run.h"

#include "support/child_process.h"

#include "common/unique_resource.h"

#include <gtest/gtest.h>

namespace {

constexpr DWORD standInTimeoutMs = 180000;

bool registeredFlag = false;

using RegistrationFunction = HRESULT(STDAPICALLTYPE*)();

HRESULT callAddinExport(const char* name)
{
    UniqueLibrary dll(LoadLibraryW((testProgramFolder() + L"\\" + KORVANE_DLL_FILE).c_str()));
    if (!dll)
        return HRESULT_FROM_WIN32(GetLastError());
    auto function = reinterpret_cast<RegistrationFunction>(reinterpret_cast<void*>(GetProcAddress(dll.get(), name)));
    return function ? function() : E_NOINTERFACE;
}

// Registers the add-in for the whole program, as an installer would, and
// takes it away at the end.
class AddinRegistrationEnvironment : public testing::Environment {
public:
    void SetUp() override { registeredFlag = SUCCEEDED(callAddinExport("DllRegisterServer")); }
    void TearDown() override
    {
        if (registeredFlag)
            callAddinExport("DllUnregisterServer");
        registeredFlag = false;
    }
};

[[maybe_unused]] testing::Environment* const registration =
    testing::AddGlobalTestEnvironment(new AddinRegistrationEnvironment);

} // namespace

bool addinRegistered()
{
    return registeredFlag;
}

StandInStep E2eOutcome::step(const std::string& name) const
{
    for (const StandInStep& step : steps) {
        if (step.name() == name)
            return step;
    }
    return {};
}

E2eRun::E2eRun() = default;

E2eOutcome E2eRun::run(const std::vector<std::wstring>& settings, const std::vector<std::wstring>& steps)
{
    E2eOutcome outcome;
    const std::wstring bin = testProgramFolder();
    const std::wstring report = folder_.file(L"target-report.txt");
    const std::wstring result = folder_.file(L"standin-result.txt");
    // A title of this run's own, so that no target left by another run is found.
    const std::wstring title = L"Korvane e2e target " + std::to_wstring(GetTickCount64());

    std::wstring targetCommand = quoted(bin + L"\\drop_target.exe") + L" --report " + quoted(report) + L" --title " +
                                 quoted(title);
    for (const std::wstring& option : targetOptions)
        targetCommand += L" " + quoted(option);
    ChildProcess target(targetCommand, nullptr);
    for (int i = 0; i < 300 && target.running() && !outcome.targetStarted; ++i) {
        HWND window = FindWindowW(L"KorvaneDropTargetWindow", title.c_str());
        outcome.targetStarted = window && IsWindowVisible(window);
        if (!outcome.targetStarted)
            Sleep(50);
    }
    if (!outcome.targetStarted)
        return outcome;

    std::wstring command = quoted(bin + L"\\outlook_standin.exe") + L" --target " + quoted(title) +
                           L" --target-report " + quoted(report) + L" --result " + quoted(result) +
                           L" reset-settings " + quoted(L"set:LogFile=" + logPath()) + L" set:LogLevel=DEBUG" +
                           L" " + quoted(L"set:Ribbon.Microsoft.Outlook.Explorer=2;Korvane");
    for (const std::wstring& setting : settings)
        command += L" " + quoted(L"set:" + setting);
    command += L" connect";
    for (const std::wstring& step : steps)
        command += L" " + quoted(step);
    command += L" shutdown reset-settings";

    const std::wstring environment = environmentBlock(standInEnvironment);
    {
        ChildProcess standIn(command, standInEnvironment.empty() ? nullptr : &environment);
        outcome.standInExitCode = standIn.wait(standInTimeoutMs);
    }
    if (HWND window = FindWindowW(L"KorvaneDropTargetWindow", title.c_str()))
        PostMessageW(window, WM_CLOSE, 0, 0);
    target.wait(5000);

    outcome.steps = readStandInResult(result);
    outcome.received = readDropReport(report);
    outcome.log = fileExists(logPath()) ? readBytes(logPath()) : std::string();
    return outcome;
}
