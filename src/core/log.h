#pragma once
// The trace log's file: one per process, which every LogLine (log_line.h)
// is written to.
#include "core/log_line.h"

#include <windows.h>

#include <atomic>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>

class LogFile {
public:
    static LogFile& instance();

    // Opens (or creates) the file; the level is set even when that fails, so
    // the filter holds while nothing is written. A file still open from an
    // earlier call is closed first, so the same path can be opened again.
    void open(const std::wstring& path, int level, bool append);
    void close();
    void write(int level, const std::wstring& text);

    int level() const { return level_; }
    bool isOpen() const;

private:
    std::atomic<int> level_{0};
    HANDLE handle_ = INVALID_HANDLE_VALUE;
    mutable std::mutex lock_;
};

// Each 16-bit unit on its own as one to three bytes, the way the log file has
// always been written: a surrogate pair becomes two three-byte groups.
std::string encodeLogText(std::wstring_view text);

// "2024-03-05 09:07:02 1a2c INFO " + text + CR LF.
std::wstring formatLogLine(const SYSTEMTIME& localTime, DWORD threadId, int level, std::wstring_view text);

// Appends a FILETIME (UTC, as it stands) as year-month-day hours:minutes:seconds.
void writeFileTime(std::wostream& stream, const FILETIME& fileTime);

// Reads LogFile, LogLevel and LogAppend under the per-user settings key and
// opens the log: "%TEMP%\korvane.log" at INFO, appended, when nothing is set.
void configureLogFromRegistry(const std::wstring& settingsKey);

// The level a LogLevel value names: its first letter, in either case.
int logLevelFromSetting(std::wstring_view value);
