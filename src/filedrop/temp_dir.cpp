// The add-in's temporary folder and the names of the per-drag folders in it.
#include "filedrop/file_drop.h"
#include "filedrop/file_drop_state.h"

#include "core/log.h"

namespace FileDrop {

namespace {

Logger logger("FileDrop");

// 1970-01-01 00:00 UTC as a file time.
constexpr ULONGLONG unixEpochUnits = 116444736000000000ULL;
constexpr ULONGLONG unitsPerSecond = 10000000ULL;

} // namespace

FileDropState& fileDropState()
{
    // Made once and never destroyed: see the header.
    static FileDropState* const state = new FileDropState();
    return *state;
}

const std::wstring& tempDir()
{
    return fileDropState().tempDir;
}

void initTempDir(std::wstring& tempDir)
{
    KV_DEBUG(logger) << "initTempDir(";
    wchar_t buffer[MAX_PATH] = {};
    const DWORD length = GetTempPathW(MAX_PATH, buffer);
    std::wstring path(buffer, length < MAX_PATH ? length : 0);
    // GetTempPathW ends in a backslash; without this cut the folder would
    // be "...\Temp\\Korvane".
    const size_t lastBackslash = path.rfind(L'\\');
    if (lastBackslash != std::wstring::npos && lastBackslash + 1 == path.size())
        path.pop_back();
    path += L"\\Korvane";

    // An existing folder makes this fail, which is the normal case.
    const BOOL succ = CreateDirectoryW(path.c_str(), nullptr);
    const DWORD err = GetLastError();
    KV_DEBUG(logger) << "CreateDirectory succ=" << (succ ? 1 : 0) << ", err=" << err;

    tempDir = path;
    KV_DEBUG(logger) << "tempDir=" << tempDir;
    KV_DEBUG(logger) << ")initTempDir";
}

ULONGLONG secondsSinceEpoch()
{
    FILETIME now{};
    GetSystemTimeAsFileTime(&now);
    const ULONGLONG units = (static_cast<ULONGLONG>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
    return units > unixEpochUnits ? (units - unixEpochUnits) / unitsPerSecond : 0;
}

std::wstring dragFolderName(const std::wstring& tempDir, ULONGLONG seconds)
{
    return tempDir + L"\\" + std::to_wstring(seconds);
}

} // namespace FileDrop
