// Measures what switching interception on and off costs: the import slots of
// this program (standing for OUTLOOK.EXE, which imports DoDragDrop and
// OleSetClipboard by name as this one does) and the five Office modules, with
// clipboard capture on (two requests per module), and the same switch with
// the file-drop unit's start and stop included:
//   bench_hooks
// Under Wine none of the Office modules exists, so their LoadLibraryA fails
// at once; on a machine with Office they are loaded (or found loaded) and
// walked like the executable.
#include "bench_timing.h"

#include "core/globals.h"
#include "core/log.h"
#include "hook/drag_entry.h"
#include "hook/import_hook.h"

#include <ole2.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace {


constexpr int rounds = 21;

// Calls whose names the bench imports, so its table looks like Outlook's.
[[maybe_unused]] void* const importedLikeOutlook[] = {reinterpret_cast<void*>(&DoDragDrop),
                                                      reinterpret_cast<void*>(&OleSetClipboard)};

struct Figures {
    double first, median, max;
};

Figures figuresOf(std::vector<double> times)
{
    const double first = times.front();
    std::sort(times.begin(), times.end());
    return {first, times[times.size() / 2], times.back()};
}

void print(const char* what, const Figures& figures)
{
    std::printf("%-52s first %8.3f ms   median %8.3f ms   max %8.3f ms\n", what, figures.first, figures.median,
                figures.max);
}

void hookAll(bool enable)
{
    hookModule(nullptr, GetModuleHandleW(nullptr), enable);
    for (const char* name : hookedOfficeModules)
        hookModule(name, nullptr, true);
}

} // namespace

int main()
{
    OleInitialize(nullptr);
    wchar_t temp[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, temp);
    // The add-in logs at INFO unless told otherwise; so does the bench.
    LogFile::instance().open(std::wstring(temp) + L"korvane_bench_hooks.log", LOG_INFO, false);

    Globals settings(L"KorvaneBench", L"HookBench");
    settings.setCaptureClipboard(true);
    setHookSettings(&settings);

    std::vector<double> hookOn, hookOff, switchOn, switchOff;
    for (int round = 0; round < rounds; ++round) {
        hookOn.push_back(millisecondsOf([] { hookAll(true); }));
        hookOff.push_back(millisecondsOf([] { hookAll(false); }));
    }
    for (int round = 0; round < rounds; ++round) {
        switchOn.push_back(millisecondsOf([] { EnableDragDrop(true); }));
        switchOff.push_back(millisecondsOf([] { EnableDragDrop(false); }));
    }
    // &DoDragDrop reads this program's import slot afresh.
    const bool restored = reinterpret_cast<void*>(&DoDragDrop) ==
                          reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ole32.dll"), "DoDragDrop"));

    std::printf("Switching interception, %d rounds, clipboard capture on\n", rounds);
    print("hooks on: executable + 5 Office modules", figuresOf(hookOn));
    print("hooks off: executable restored, modules kept", figuresOf(hookOff));
    print("EnableDragDrop(true) incl. file-drop init", figuresOf(switchOn));
    print("EnableDragDrop(false) incl. file-drop done", figuresOf(switchOff));
    std::printf("true DoDragDrop back in the executable's slot: %s\n", restored ? "yes" : "no");

    setHookSettings(nullptr);
    RegDeleteTreeW(HKEY_CURRENT_USER, L"Software\\KorvaneBench");
    LogFile::instance().close();
    OleUninitialize();
    return 0;
}
