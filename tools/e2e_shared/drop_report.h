#pragma once
// What the drop target received, one event per drop or paste, in a report
// file that the target appends to and the Outlook stand-in, the demo and the
// end-to-end tests read. One line per fact, tab-separated, UTF-8; an event
// counts only once its "end" line is there, so a reader never sees half of
// one (and a target that died in the middle leaves nothing behind).
#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

struct ReceivedFile {
    std::wstring path;
    uint64_t size = 0;
    std::string hash;        // FNV-1a 64 of the bytes, 16 hex digits
    uint64_t lastWrite = 0;  // FILETIME of the last write, as one number
};

struct DropEvent {
    std::string kind;                 // "drop" or "paste"
    DWORD effect = 0;                 // what the target answered
    std::vector<std::wstring> formats;          // every format offered, by name
    std::vector<std::wstring> descriptorNames;  // "FileGroupDescriptorW" names, when offered
    std::vector<ReceivedFile> files;            // CF_HDROP
    bool hasText = false;
    std::wstring text;                // CF_UNICODETEXT without its NUL
    // QueryPerformanceCounter values, comparable across processes of one machine.
    int64_t dropTicks = 0;      // Drop (or the paste) began
    int64_t completeTicks = 0;  // every file read to its end
    std::string error;          // empty, or what the target couldn't read
};

// Appends one event in a single write; false when the file can't be written.
bool appendDropEvent(const std::wstring& reportPath, const DropEvent& event);
// Every complete event of the report, in order; empty when there is no file.
std::vector<DropEvent> readDropReport(const std::wstring& reportPath);

// The report's text encoding of one value: tab, CR, LF and backslash escaped.
std::string escapeReportText(const std::wstring& text);
std::wstring unescapeReportText(const std::string& text);

// FNV-1a 64 over a file's bytes, read in large blocks; empty on failure.
std::string fileHash(const std::wstring& path, uint64_t* size = nullptr);
std::string bytesHash(const void* data, size_t size);

int64_t performanceTicks();
double ticksToMilliseconds(int64_t ticks);
