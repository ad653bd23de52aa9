#pragma once
// One end-to-end run: the drop target and the Outlook stand-in (settings and
// steps) started in real processes, then what they and the add-in's log say.
#include "e2e_shared/drop_report.h"
#include "e2e_shared/standin_result.h"
#include "support/scratch.h"

#include <windows.h>

#include <string>
#include <utility>
#include <vector>

struct E2eOutcome {
    bool targetStarted = false;         // its window showed up (needs a display)
    DWORD standInExitCode = 0xFFFFFFFF; // STILL_ACTIVE never: a hung stand-in is ended and gets 0xFFFFFFFF
    std::vector<StandInStep> steps;
    std::vector<DropEvent> received;    // the target's report
    std::string log;                    // the add-in's log file

    // The first step of a name; an empty step when there is none.
    StandInStep step(const std::string& name) const;
    bool logHas(const std::string& text) const { return log.find(text) != std::string::npos; }
};

class E2eRun {
public:
    E2eRun();

    // Options of the drop target program, e.g. {"--effect", "move"}.
    std::vector<std::wstring> targetOptions;
    // Environment variables that the stand-in gets instead of the inherited ones.
    std::vector<std::pair<std::wstring, std::wstring>> standInEnvironment;

    // Settings ("Name=value") are written before the add-in loads; `steps`
    // run between "connect" and "shutdown".
    E2eOutcome run(const std::vector<std::wstring>& settings, const std::vector<std::wstring>& steps);

    const ScratchFolder& folder() const { return folder_; }
    std::wstring logPath() const { return folder_.file(L"korvane.log"); }

private:
    ScratchFolder folder_;
};

// The add-in's DLL registered as DllRegisterServer registers it, for the
// whole test program (a global test environment does it once).
bool addinRegistered();
