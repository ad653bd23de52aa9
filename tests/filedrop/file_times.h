#pragma once
// Ageing real files and folders for the cleanup tests.
//
// A drag folder's age is its creation time. On Linux, Wine keeps no creation
// time of its own: it reports a folder's last-write time as its creation
// time, and that changes whenever an entry is added to or removed from the
// folder. So a folder is aged only after its contents are in place (and again
// after a pass removed some of them), and both times are set, so that a test
// means the same on Windows, where the creation time is the one that counts.
#include <windows.h>

#include <string>

// Now minus the given minutes, as a file time.
FILETIME minutesAgo(double minutes);

// Sets creation and last-write time of a file or folder; false on failure.
bool setFileTimes(const std::wstring& path, const FILETIME& time);

// The last-write time as the file system reports it now.
FILETIME lastWriteTime(const std::wstring& path);

bool folderExists(const std::wstring& path);
