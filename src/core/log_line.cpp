#include "core/log_line.h"

LogLine::LogLine(int level, const char* loggerName, int lineNumber) : level_(level)
{
    *this << loggerName;
    if (lineNumber != 0)
        text_ << L':' << lineNumber;
    text_ << L' ';
}

LogLine::LogLine(LogLine&& other) noexcept : active_(other.active_), level_(other.level_), text_(std::move(other.text_))
{
    other.active_ = false;
}

LogLine& LogLine::operator<<(const char* value)
{
    return *this << std::string_view(value ? value : "");
}

LogLine& LogLine::operator<<(const std::string& value)
{
    return *this << std::string_view(value);
}

LogLine& LogLine::operator<<(std::string_view value)
{
    for (char c : value)
        text_ << static_cast<wchar_t>(static_cast<unsigned char>(c));
    return *this;
}

LogLine& LogLine::operator<<(const wchar_t* value)
{
    text_ << (value ? value : L"");
    return *this;
}
