// The report a person reads after `make demo`.
#include "standin_session.h"

#include "common/strings.h"
#include "common/text_file.h"
#include "common/unique_resource.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace {

void line(const std::string& text)
{
    std::fputs(text.c_str(), stdout);
    std::fputc('\n', stdout);
}

std::string utf8(const std::wstring& text)
{
    return wideToUtf8(text);
}

std::string fileName(const std::wstring& path)
{
    const size_t slash = path.find_last_of(L'\\');
    return utf8(slash == std::wstring::npos ? path : path.substr(slash + 1));
}

std::wstring folderOf(const std::wstring& path)
{
    const size_t slash = path.find_last_of(L'\\');
    return slash == std::wstring::npos ? std::wstring() : path.substr(0, slash);
}

std::string timeText(uint64_t fileTime)
{
    if (!fileTime)
        return "-";
    FILETIME time{static_cast<DWORD>(fileTime), static_cast<DWORD>(fileTime >> 32)};
    SYSTEMTIME utc{};
    FileTimeToSystemTime(&time, &utc);
    char text[32];
    std::snprintf(text, sizeof(text), "%04u-%02u-%02u %02u:%02u:%02u", utc.wYear, utc.wMonth, utc.wDay, utc.wHour,
                  utc.wMinute, utc.wSecond);
    return text;
}

std::string sizeText(uint64_t size)
{
    std::string digits = std::to_string(size);
    for (int at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3)
        digits.insert(static_cast<size_t>(at), ",");
    return digits;
}

// Columns a code point takes in a terminal: East Asian wide and full-width
// characters take two.
size_t columnsOf(uint32_t codePoint)
{
    const bool wide = (codePoint >= 0x1100 && codePoint <= 0x115F) || (codePoint >= 0x2E80 && codePoint <= 0xA4CF) ||
                      (codePoint >= 0xAC00 && codePoint <= 0xD7A3) || (codePoint >= 0xF900 && codePoint <= 0xFAFF) ||
                      (codePoint >= 0xFE30 && codePoint <= 0xFE4F) || (codePoint >= 0xFF00 && codePoint <= 0xFF60) ||
                      (codePoint >= 0xFFE0 && codePoint <= 0xFFE6) || codePoint >= 0x20000;
    return wide ? 2 : 1;
}

// Pads by terminal columns, not bytes, so Unicode names line up.
std::string pad(const std::string& text, size_t width)
{
    size_t columns = 0;
    for (size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        const size_t length = lead < 0x80 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
        uint32_t codePoint = length == 1 ? lead : lead & (0xFF >> (length + 1));
        for (size_t k = 1; k < length && i + k < text.size(); ++k)
            codePoint = (codePoint << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
        columns += columnsOf(codePoint);
        i += length;
    }
    return columns >= width ? text : text + std::string(width - columns, ' ');
}

std::string effectName(DWORD effect)
{
    switch (effect) {
    case DROPEFFECT_NONE: return "NONE";
    case DROPEFFECT_COPY: return "COPY";
    case DROPEFFECT_MOVE: return "MOVE";
    case DROPEFFECT_LINK: return "LINK";
    default: return std::to_string(effect);
    }
}

std::wstring defaultLogPath()
{
    // LogFile in the add-in's key, else %TEMP%\korvane.log.
    wchar_t value[1024] = {};
    DWORD size = sizeof(value) - sizeof(wchar_t);
    if (RegGetValueW(HKEY_CURRENT_USER, (addinSettingsKey() + L"\\LogFile").c_str(), nullptr, RRF_RT_REG_SZ, nullptr,
                     value, &size) == ERROR_SUCCESS &&
        value[0])
        return value;
    wchar_t temp[MAX_PATH + 1] = {};
    GetTempPathW(MAX_PATH + 1, temp);
    return std::wstring(temp) + L"korvane.log";
}

std::vector<std::string> lastLines(const std::wstring& path, size_t count)
{
    std::vector<std::string> lines;
    const std::optional<std::string> log = readFileBytes(path);
    if (!log)
        return lines;
    const std::string& bytes = *log;
    size_t start = 0;
    while (start < bytes.size()) {
        size_t end = bytes.find('\n', start);
        if (end == std::string::npos)
            end = bytes.size();
        std::string text = bytes.substr(start, end - start);
        if (!text.empty() && text.back() == '\r')
            text.pop_back();
        lines.push_back(text);
        start = end + 1;
    }
    if (lines.size() > count)
        lines.erase(lines.begin(), lines.end() - static_cast<long>(count));
    return lines;
}

void printEvent(const ReportedTransfer& transfer, const DropEvent& event, size_t number)
{
    line("");
    std::string title = std::to_string(number) + ". " + (transfer.kind == "drag" ? "Drag of \"" : "Paste of \"") +
                        utf8(transfer.selection) + "\"";
    if (transfer.kind == "drag")
        title += ": DoDragDrop returned " + hexResult(transfer.result) + ", effect " + effectName(transfer.effect);
    line(title);
    line(std::string(std::min<size_t>(title.size(), 78), '-'));
    if (transfer.targetEvent < 0) {
        line("   the target received nothing");
        return;
    }
    line("   the target received " + std::to_string(event.files.size()) + " file(s) in " +
         std::to_string(static_cast<long>(transfer.totalMs)) + " ms (from the call to the last byte read)");
    if (!event.files.empty()) {
        line("   " + pad("File", 46) + pad("Size", 14) + pad("Modified (UTC)", 21) + "FNV-1a 64");
        for (const ReceivedFile& file : event.files)
            line("   " + pad(fileName(file.path), 46) + pad(sizeText(file.size), 14) + pad(timeText(file.lastWrite), 21) +
                 file.hash);
        line("   Files lie in: " + utf8(folderOf(event.files.front().path)));
    } else {
        std::string names;
        for (const std::wstring& name : event.descriptorNames)
            names += (names.empty() ? "" : ", ") + utf8(name);
        line("   no files (Outlook's own object); virtual files: " + (names.empty() ? "-" : names));
    }
    std::string formats;
    for (const std::wstring& format : event.formats)
        formats += (formats.empty() ? "" : ", ") + utf8(format);
    line("   Formats: " + formats);
    if (event.hasText) {
        line("   Text:");
        std::string text = utf8(event.text);
        size_t start = 0;
        while (start < text.size()) {
            size_t end = text.find('\n', start);
            if (end == std::string::npos)
                end = text.size();
            std::string part = text.substr(start, end - start);
            if (!part.empty() && part.back() == '\r')
                part.pop_back();
            line("     " + part);
            start = end + 1;
        }
    }
    if (!event.error.empty())
        line("   Problem: " + event.error);
}

} // namespace

void printReadableReport(const StandInSession& session)
{
    line("");
    line("Korvane end to end: Outlook stand-in -> add-in -> drop target");
    line("===============================================================");
    for (const LoadedAddin& addin : session.addins())
        line("Add-in " + utf8(addin.progId) + " from " + utf8(addin.keyPath));
    char timing[200];
    std::snprintf(timing, sizeof(timing), "OnConnection %.1f ms (Outlook allows 1000), OnDisconnection %.1f ms (allows 500)",
                  session.times().onConnection, session.times().onDisconnection);
    line(timing);
    if (RibbonDriver* ribbon = session.ribbon()) {
        std::string ids;
        for (const std::wstring& id : ribbon->controlIds())
            ids += (ids.empty() ? "" : ", ") + utf8(id);
        line("Ribbon controls: " + ids);
    }

    const std::vector<DropEvent> events = session.options().targetReport.empty()
                                              ? std::vector<DropEvent>()
                                              : readDropReport(session.options().targetReport);
    size_t number = 0;
    for (const ReportedTransfer& transfer : session.transfers()) {
        const DropEvent none;
        const bool known = transfer.targetEvent >= 0 && static_cast<size_t>(transfer.targetEvent) < events.size();
        printEvent(transfer, known ? events[static_cast<size_t>(transfer.targetEvent)] : none, ++number);
    }

    const std::wstring log = session.options().logPath.empty() ? defaultLogPath() : session.options().logPath;
    line("");
    line("Last lines of the add-in's log " + utf8(log) + ":");
    const std::vector<std::string> lines = lastLines(log, 15);
    if (lines.empty())
        line("   (no log found)");
    for (const std::string& text : lines)
        line("   " + text);
    std::fflush(stdout);
}
