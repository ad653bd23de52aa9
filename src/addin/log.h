#pragma once
// The trace log: one process-wide file, named loggers, and a line object that
// writes itself when it goes out of scope.
//
//   static Logger logger("Globals");
//   KV_INFO(logger) << "Version " << a << "." << b;
//
// The KV_* macros test the level first, so a disabled line costs one compare.
#include <windows.h>

#include <atomic>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>

enum LogLevel : int { LOG_DEBUG = 1, LOG_INFO = 2, LOG_WARN = 3, LOG_ERROR = 4 };

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

class LogLine {
public:
    LogLine(int level, const char* loggerName, int lineNumber);
    LogLine(LogLine&& other) noexcept;
    LogLine(const LogLine&) = delete;
    LogLine& operator=(const LogLine&) = delete;
    ~LogLine();

    template <typename T>
    LogLine& operator<<(const T& value)
    {
        text_ << value;
        return *this;
    }
    LogLine& operator<<(const char* value);
    LogLine& operator<<(const std::string& value);
    LogLine& operator<<(std::string_view value);
    LogLine& operator<<(const wchar_t* value);

private:
    bool active_ = true;
    int level_;
    std::wostringstream text_;
};

class Logger {
public:
    constexpr explicit Logger(const char* name) : name_(name ? name : "") {}

    bool isDebugEnabled() const { return LogFile::instance().level() < 2; }
    bool isInfoEnabled() const { return LogFile::instance().level() < 3; }
    bool isWarnEnabled() const { return LogFile::instance().level() < 4; }
    bool isErrorEnabled() const { return LogFile::instance().level() < 5; }

    LogLine debug(int lineNumber) const { return LogLine(LOG_DEBUG, name_, lineNumber); }
    LogLine info(int lineNumber) const { return LogLine(LOG_INFO, name_, lineNumber); }
    LogLine warn(int lineNumber) const { return LogLine(LOG_WARN, name_, lineNumber); }
    LogLine error(int lineNumber) const { return LogLine(LOG_ERROR, name_, lineNumber); }

    const char* name() const { return name_; }

private:
    const char* name_;
};

// A loop that runs once when the level is on: safe inside an unbraced if/else.
#define KV_LOG_AT(logger, enabled, make)                                          \
    for (bool kvLogOnce = (logger).enabled(); kvLogOnce; kvLogOnce = false) (logger).make(__LINE__)
#define KV_DEBUG(logger) KV_LOG_AT(logger, isDebugEnabled, debug)
#define KV_INFO(logger) KV_LOG_AT(logger, isInfoEnabled, info)
#define KV_WARN(logger) KV_LOG_AT(logger, isWarnEnabled, warn)
#define KV_ERROR(logger) KV_LOG_AT(logger, isErrorEnabled, error)

// Appends a FILETIME (UTC, as it stands) as year-month-day hours:minutes:seconds.
void writeFileTime(std::wostream& stream, const FILETIME& fileTime);

// Reads LogFile, LogLevel and LogAppend under the per-user settings key and
// opens the log: "%TEMP%\korvane.log" at INFO, appended, when nothing is set.
void configureLogFromRegistry(const std::wstring& settingsKey);

// The level a LogLevel value names: its first letter, in either case.
int logLevelFromSetting(std::wstring_view value);
