#include "file_times.h"

#include "common/unique_resource.h"

FILETIME minutesAgo(double minutes)
{
    FILETIME now{};
    GetSystemTimeAsFileTime(&now);
    ULARGE_INTEGER units{};
    units.LowPart = now.dwLowDateTime;
    units.HighPart = now.dwHighDateTime;
    units.QuadPart -= static_cast<ULONGLONG>(minutes * 600000000.0);
    FILETIME result{};
    result.dwLowDateTime = units.LowPart;
    result.dwHighDateTime = units.HighPart;
    return result;
}

bool setFileTimes(const std::wstring& path, const FILETIME& time)
{
    // Backup semantics open folders as well as files.
    UniqueFile handle(CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                  FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    return handle && SetFileTime(handle.get(), &time, nullptr, &time);
}

FILETIME lastWriteTime(const std::wstring& path)
{
    WIN32_FILE_ATTRIBUTE_DATA data{};
    GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data);
    return data.ftLastWriteTime;
}

bool folderExists(const std::wstring& path)
{
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}
