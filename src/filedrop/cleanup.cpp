#include "filedrop/cleanup.h"

#include "core/globals.h"
#include "core/exception_barrier.h"
#include "core/log.h"
#include "common/unique_resource.h"

#include <chrono>
#include <exception>
#include <sstream>

namespace FileDrop {

namespace {

Logger logger("FileDrop");

ULONGLONG toUnits(const FILETIME& time)
{
    return (static_cast<ULONGLONG>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

FILETIME toFileTime(ULONGLONG units)
{
    FILETIME time;
    time.dwLowDateTime = static_cast<DWORD>(units & 0xFFFFFFFFULL);
    time.dwHighDateTime = static_cast<DWORD>(units >> 32);
    return time;
}

std::wstring timeText(const FILETIME& time)
{
    std::wostringstream text;
    writeFileTime(text, time);
    return text.str();
}

int keepMinutesOf(const FileDropState& state)
{
    const Globals& settings = state.settings ? *state.settings : Globals::instance();
    return settings.keepTempFilesMinutes();
}

// Now minus the configured age. A negative age counts as 0 (everything older
// than this moment goes); an age reaching before 1601 means nothing is old.
ULONGLONG dateLimitFor(int keepMinutes)
{
    FILETIME now{};
    GetSystemTimeAsFileTime(&now);
    const ULONGLONG nowUnits = toUnits(now);
    const ULONGLONG keep = keepMinutes > 0 ? static_cast<ULONGLONG>(keepMinutes) * fileTimeUnitsPerMinute : 0;
    return keep >= nowUnits ? 0 : nowUnits - keep;
}

void deleteOldFile(const std::wstring& path, const WIN32_FIND_DATAW& found)
{
    // Saved files may be read-only (TempFileReadOnly); DeleteFileW refuses those.
    const DWORD writable = found.dwFileAttributes & ~static_cast<DWORD>(FILE_ATTRIBUTE_READONLY);
    BOOL succ = SetFileAttributesW(path.c_str(), writable);
    DWORD err = succ ? 0 : GetLastError();
    KV_DEBUG(logger) << "SetFileAttributes fname=" << path << ", succ=" << succ << ", err=" << err;
    succ = DeleteFileW(path.c_str());
    err = succ ? 0 : GetLastError();
    KV_DEBUG(logger) << "DeleteFile fname=" << path << ", lastWrite=" << timeText(found.ftLastWriteTime)
                     << ", succ=" << succ << ", err=" << err;
}

void removeOldDirectory(FileDropState& state, const std::wstring& path, const WIN32_FIND_DATAW& found)
{
    KV_INFO(logger) << "Cleanup directory=" << path << ", createTime=" << timeText(found.ftCreationTime);
    // A junction or link points somewhere else: only the link itself goes,
    // never what lies behind it.
    if (!(found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT))
        cleanupTempDir(state, path);
    const BOOL succ = RemoveDirectoryW(path.c_str());
    const DWORD err = succ ? 0 : GetLastError();
    KV_DEBUG(logger) << "RemoveDirectory dname=" << path << ", succ=" << succ << ", err=" << err;
}

} // namespace

void CleanupTask::operator()() const
{
    // Nothing may leave a thread function: an exception there ends Outlook.
    barrier("cleanupLoop", [this] {
        cleanupLoop(state_);
        return S_OK;
    });
}

void cleanupLoop(FileDropState& state)
{
    KV_DEBUG(logger) << "cleanupLoop(";
    do {
        cleanupTempDir(state, state.tempDir);
    } while (!waitForStop(state, cleanupPeriodMs));
    KV_DEBUG(logger) << ")cleanupLoop";
}

bool waitForStop(FileDropState& state, DWORD timeoutMs)
{
    KV_DEBUG(logger) << "waitForStop(timeout=" << timeoutMs;
    bool result = false;
    {
        std::unique_lock<std::mutex> lock(state.cleanupLock);
        result = state.cleanupWake.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return state.stopped; });
    }
    KV_DEBUG(logger) << ")waitForStop=" << result;
    return result;
}

void stopCleanupLoop(FileDropState& state)
{
    KV_DEBUG(logger) << "stopCleanupLoop(";
    {
        std::lock_guard<std::mutex> lock(state.cleanupLock);
        state.stopped = true;
    }
    state.cleanupWake.notify_all();
    KV_DEBUG(logger) << ")stopCleanupLoop";
}

void cleanupTempDir(FileDropState& state, const std::wstring& folder)
{
    KV_DEBUG(logger) << "cleanupTempDir(folder=" << folder;
    const ULONGLONG dateLimit = dateLimitFor(keepMinutesOf(state));
    KV_DEBUG(logger) << "dateLimit=" << timeText(toFileTime(dateLimit));

    const std::wstring pattern = folder + L"\\*.*";
    KV_DEBUG(logger) << "search=" << pattern;
    WIN32_FIND_DATAW found{};
    UniqueFindHandle search(FindFirstFileW(pattern.c_str(), &found));
    if (!search) {
        KV_DEBUG(logger) << ")cleanupTempDir, err=" << GetLastError();
        return;
    }
    do {
        const std::wstring name = found.cFileName;
        KV_DEBUG(logger) << "found fname=" << name << ", lastWrite=" << timeText(found.ftLastWriteTime)
                         << ", createTime=" << timeText(found.ftCreationTime);
        const std::wstring path = folder + L"\\" + name;
        if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
            if (name == L"." || name == L"..")
                continue;
            KV_DEBUG(logger) << "is directory " << path;
            // A drag folder's age is its creation time: files added to it
            // later must not make it look young.
            if (toUnits(found.ftCreationTime) < dateLimit)
                removeOldDirectory(state, path, found);
        } else if (toUnits(found.ftLastWriteTime) < dateLimit) {
            deleteOldFile(path, found);
        }
    } while (FindNextFileW(search.get(), &found));
    search.reset();
    KV_DEBUG(logger) << ")cleanupTempDir";
}

void startCleanupWorker(FileDropState& state)
{
    // The worker of an earlier switch-on was told to stop by done(); it ends
    // after its pass at the latest. Waiting for it here keeps one worker.
    if (state.cleanupWorker.joinable())
        state.cleanupWorker.join();
    {
        std::lock_guard<std::mutex> lock(state.cleanupLock);
        state.stopped = false;
    }

    // done() must return at once, so it never waits for a pass under way;
    // such a pass may still run when Outlook lets go of the add-in. Pinning
    // the module keeps its code mapped until the process ends, so a worker
    // never runs in an unloaded DLL. The price is that a switched-off add-in
    // stays in memory until Outlook exits, which Outlook does anyway.
    HMODULE module = nullptr;
    const BOOL pinned =
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                           reinterpret_cast<LPCWSTR>(&cleanupLoop), &module);
    KV_DEBUG(logger) << "pin module=" << module << ", succ=" << pinned;

    try {
        state.cleanupWorker = std::thread(CleanupTask(state));
    } catch (const std::exception& e) {
        KV_ERROR(logger) << "cannot start the cleanup worker: " << e.what();
    }
}

void stopAndJoinCleanupWorker(FileDropState& state)
{
    stopCleanupLoop(state);
    if (state.cleanupWorker.joinable())
        state.cleanupWorker.join();
}

FileDropState::~FileDropState()
{
    stopAndJoinCleanupWorker(*this);
}

} // namespace FileDrop
