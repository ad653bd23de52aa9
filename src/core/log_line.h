#pragma once
// The lines of the trace log: named loggers and a line object that hands its
// text to the log when it goes out of scope.
//
//   static Logger logger("Globals");
//   KV_INFO(logger) << "Version " << a << "." << b;
//
// The KV_* macros test the level first, so a disabled line costs one compare.
// Nothing here needs the system: the log file behind it is in log.h, so units
// that only parse bytes and text can log without depending on Windows.
#include <sstream>
#include <string>
#include <string_view>

enum LogLevel : int { LOG_DEBUG = 1, LOG_INFO = 2, LOG_WARN = 3, LOG_ERROR = 4 };

// The level below which lines are dropped (0 while no log is open).
int activeLogLevel();

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

    bool isDebugEnabled() const { return activeLogLevel() < 2; }
    bool isInfoEnabled() const { return activeLogLevel() < 3; }
    bool isWarnEnabled() const { return activeLogLevel() < 4; }
    bool isErrorEnabled() const { return activeLogLevel() < 5; }

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
