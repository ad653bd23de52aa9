#pragma once
// The background worker that deletes old files and drag folders under the
// temporary folder: one pass at start, then one every ten minutes until it is
// told to stop.
#include <windows.h>

#include <string>

#include "filedrop/file_drop_state.h"

namespace FileDrop {

constexpr DWORD cleanupPeriodMs = 600000;
// File times count 100-nanosecond units.
constexpr ULONGLONG fileTimeUnitsPerMinute = 600000000ULL;

// Runs cleanupLoop on one record; made when the worker starts, gone when the
// worker's function returns.
class CleanupTask {
public:
    explicit CleanupTask(FileDropState& state) : state_(state) {}
    void operator()() const;

private:
    FileDropState& state_;
};

// The worker's function: a pass over tempDir, then a wait, until stopped.
void cleanupLoop(FileDropState& state);

// True when a stop was requested before or during the wait, false on time-out.
bool waitForStop(FileDropState& state, DWORD timeoutMs);

// Requests the stop and returns at once; a pass under way is finished first.
void stopCleanupLoop(FileDropState& state);

// One pass over `folder` and, for folders older than the limit, their contents.
void cleanupTempDir(FileDropState& state, const std::wstring& folder);

// Clears `stopped` and starts the worker on its own thread. A worker of an
// earlier start, already told to stop, is waited for first, so two never run.
void startCleanupWorker(FileDropState& state);

// stopCleanupLoop and then waits for the worker to end (hosts and tests;
// the add-in itself never waits, see done()).
void stopAndJoinCleanupWorker(FileDropState& state);

} // namespace FileDrop
