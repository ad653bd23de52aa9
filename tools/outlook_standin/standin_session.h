#pragma once
// One run of the Outlook stand-in: the object model, the loaded add-ins, the
// ribbon, the data objects Outlook handed out, and the steps of the command
// line carried out in order (see standin_main.cpp for the list).
#include "addin_loader.h"
#include "drag_driver.h"
#include "ribbon_driver.h"

#include "e2e_shared/drop_report.h"
#include "e2e_shared/standin_result.h"
#include "e2e_shared/outlook_data_object.h"
#include "e2e_shared/outlook_standin.h"

#include <memory>
#include <string>
#include <vector>

struct StandInOptions {
    std::wstring targetTitle;
    std::wstring targetReport;  // the drop target's report file
    std::wstring resultPath;    // this program's result file
    std::wstring logPath;       // the add-in's log, for the readable report
    bool print = false;         // print the readable report at the end
};

// A drag or paste as the readable report shows it.
struct ReportedTransfer {
    std::string kind;         // "drag" or "paste"
    std::wstring selection;
    HRESULT result = S_OK;
    DWORD effect = 0;
    int targetEvent = -1;     // index into the target's report, -1 when nothing arrived
    double totalMs = 0;       // DoDragDrop call to the target's files complete
};

class StandInSession {
public:
    explicit StandInSession(StandInOptions options);
    ~StandInSession();

    // Carries out one step; false only when the step could not run at all.
    bool run(const std::wstring& step);

    const StandInOptions& options() const { return options_; }
    const std::vector<ReportedTransfer>& transfers() const { return transfers_; }
    const ConnectionTimes& times() const { return times_; }
    const std::vector<LoadedAddin>& addins() const { return addins_; }
    RibbonDriver* ribbon() const { return ribbon_.get(); }
    bool benchmarked() const { return benchmarked_; }

    // The target's window, waiting for it to appear; null after the timeout.
    HWND target(DWORD timeoutMs = 15000) const;
    size_t targetEvents() const;
    // Drags `entries` into the target and waits for its report; the outcome
    // and the target's event (kind empty when none arrived).
    DragOutcome drag(const std::vector<OutlookEntry>& entries, const OutlookDataObjectOptions& dataOptions,
                     bool holdShift, DropEvent& received, unsigned* sourceSetData = nullptr);
    StandInResultWriter& result() { return result_; }
    OutlookStandIn& outlook() { return outlook_; }

private:
    bool connect();
    bool shutdown();
    bool loadRibbon();
    bool press(const std::wstring& argument);
    bool dragStep(const std::wstring& selection, bool holdShift);
    bool copyStep(const std::wstring& selection);
    bool pasteStep();
    bool setSetting(const std::wstring& argument);
    bool resetSettings();
    bool writeMailbox(const std::wstring& folder);
    bool dataObjectFor(const std::wstring& selection, std::vector<OutlookEntry>& entries,
                       OutlookDataObjectOptions& dataOptions) const;

    StandInOptions options_;
    OutlookStandIn outlook_;
    std::vector<LoadedAddin> addins_;
    std::unique_ptr<RibbonDriver> ribbon_;
    ConnectionTimes times_;
    StandInResultWriter result_;
    std::vector<ReportedTransfer> transfers_;
    // What Outlook put on the clipboard stays alive, as Outlook keeps it.
    Microsoft::WRL::ComPtr<IDataObject> clipboardSource_;
    bool benchmarked_ = false;
    // This program's DoDragDrop slot before any add-in touched it.
    void* systemDoDragDrop_ = nullptr;
};

// Runs the benchmark steps of `bench` on a connected session and prints the table.
bool runBenchmark(StandInSession& session, const std::wstring& sizes);

// The readable report: what the target received, where the files lie, the
// text, the timings and the last lines of the add-in's log.
void printReadableReport(const StandInSession& session);

// The add-in's settings key under HKCU (Korvane's company and product).
std::wstring addinSettingsKey();
