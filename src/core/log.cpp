#include "core/log.h"

#include <ctime>
#include <iomanip>

LogFile& LogFile::instance()
{
    static LogFile file;
    return file;
}

void LogFile::open(const std::wstring& path, int level, bool append)
{
    // The file is opened without write sharing: a handle still open on the
    // same path must go first, or the new open fails and logging falls silent.
    close();
    HANDLE handle = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                append ? OPEN_ALWAYS : CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle != INVALID_HANDLE_VALUE && append)
        SetFilePointer(handle, 0, nullptr, FILE_END);
    std::lock_guard<std::mutex> guard(lock_);
    handle_ = handle;
    level_ = level;
}

void LogFile::close()
{
    std::lock_guard<std::mutex> guard(lock_);
    if (handle_ != INVALID_HANDLE_VALUE)
        CloseHandle(handle_);
    handle_ = INVALID_HANDLE_VALUE;
}

bool LogFile::isOpen() const
{
    std::lock_guard<std::mutex> guard(lock_);
    return handle_ != INVALID_HANDLE_VALUE;
}

void LogFile::write(int level, const std::wstring& text)
{
    if (level_ > level)
        return;

    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_s(&local, &now);
    SYSTEMTIME localTime{};
    localTime.wYear = static_cast<WORD>(local.tm_year + 1900);
    localTime.wMonth = static_cast<WORD>(local.tm_mon + 1);
    localTime.wDay = static_cast<WORD>(local.tm_mday);
    localTime.wHour = static_cast<WORD>(local.tm_hour);
    localTime.wMinute = static_cast<WORD>(local.tm_min);
    localTime.wSecond = static_cast<WORD>(local.tm_sec);
    const std::wstring line = formatLogLine(localTime, GetCurrentThreadId(), level, text);

    std::lock_guard<std::mutex> guard(lock_);
    if (handle_ == INVALID_HANDLE_VALUE)
        return;
    const std::string bytes = encodeLogText(line);
    DWORD written = 0;
    WriteFile(handle_, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}

std::string encodeLogText(std::wstring_view text)
{
    std::string bytes;
    bytes.reserve(text.size() + text.size() / 4);
    for (wchar_t unit : text) {
        const unsigned c = static_cast<unsigned>(unit) & 0xFFFF;
        if (c < 0x80) {
            bytes.push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            bytes.push_back(static_cast<char>(0xC0 | (c >> 6)));
            bytes.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            bytes.push_back(static_cast<char>(0xE0 | (c >> 12)));
            bytes.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            bytes.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return bytes;
}

namespace {

const wchar_t* levelName(int level)
{
    switch (level) {
    case LOG_DEBUG: return L"DEBUG";
    case LOG_INFO: return L"INFO";
    case LOG_WARN: return L"WARN";
    default: return L"ERROR";
    }
}

void writeDateTime(std::wostream& out, const SYSTEMTIME& time)
{
    const wchar_t oldFill = out.fill(L'0');
    out << std::setw(4) << time.wYear << L'-' << std::setw(2) << time.wMonth << L'-' << std::setw(2) << time.wDay
        << L' ' << std::setw(2) << time.wHour << L':' << std::setw(2) << time.wMinute << L':' << std::setw(2)
        << time.wSecond;
    out.fill(oldFill);
}

} // namespace

std::wstring formatLogLine(const SYSTEMTIME& localTime, DWORD threadId, int level, std::wstring_view text)
{
    std::wostringstream out;
    writeDateTime(out, localTime);
    out << L' ' << std::hex << threadId << std::dec << L' ' << levelName(level) << L' ' << text << L"\r\n";
    return out.str();
}

void writeFileTime(std::wostream& stream, const FILETIME& fileTime)
{
    SYSTEMTIME time{};
    FileTimeToSystemTime(&fileTime, &time);
    writeDateTime(stream, time);
}

int activeLogLevel()
{
    return LogFile::instance().level();
}

LogLine::~LogLine()
{
    // A destructor that throws ends the process: a line that can't be
    // written (no memory left, a broken mutex) is dropped instead.
    try {
        if (active_)
            LogFile::instance().write(level_, text_.str());
    } catch (...) {
    }
}
