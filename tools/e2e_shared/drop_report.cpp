#include "drop_report.h"

#include "common/strings.h"
#include "common/text_file.h"
#include "common/unique_resource.h"

#include <sstream>

namespace {

constexpr uint64_t fnvOffset = 14695981039346656037ull;
constexpr uint64_t fnvPrime = 1099511628211ull;

uint64_t fnvUpdate(uint64_t hash, const unsigned char* data, size_t size)
{
    for (size_t i = 0; i < size; ++i) {
        hash ^= data[i];
        hash *= fnvPrime;
    }
    return hash;
}

std::string hex64(uint64_t value)
{
    char text[17] = {};
    for (int i = 15; i >= 0; --i) {
        text[i] = "0123456789abcdef"[value & 0xF];
        value >>= 4;
    }
    return std::string(text, 16);
}

std::vector<std::string> splitTabs(const std::string& line)
{
    std::vector<std::string> fields;
    size_t start = 0;
    for (;;) {
        const size_t tab = line.find('\t', start);
        fields.push_back(line.substr(start, tab == std::string::npos ? std::string::npos : tab - start));
        if (tab == std::string::npos)
            return fields;
        start = tab + 1;
    }
}

uint64_t toNumber(const std::string& text)
{
    return text.empty() ? 0 : std::stoull(text);
}

} // namespace

std::string escapeReportText(const std::wstring& text)
{
    std::string out;
    for (const char c : wideToUtf8(text)) {
        switch (c) {
        case '\\': out += "\\\\"; break;
        case '\t': out += "\\t"; break;
        case '\r': out += "\\r"; break;
        case '\n': out += "\\n"; break;
        default: out += c;
        }
    }
    return out;
}

std::wstring unescapeReportText(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        const char next = text[++i];
        out += next == 't' ? '\t' : next == 'r' ? '\r' : next == 'n' ? '\n' : next;
    }
    return utf8ToWide(out);
}

bool appendDropEvent(const std::wstring& reportPath, const DropEvent& event)
{
    std::ostringstream out;
    out << "event\t" << event.kind << "\n";
    out << "effect\t" << event.effect << "\n";
    for (const auto& format : event.formats)
        out << "format\t" << escapeReportText(format) << "\n";
    for (const auto& name : event.descriptorNames)
        out << "name\t" << escapeReportText(name) << "\n";
    for (const auto& file : event.files)
        out << "file\t" << file.size << "\t" << file.hash << "\t" << file.lastWrite << "\t"
            << escapeReportText(file.path) << "\n";
    if (event.hasText)
        out << "text\t" << escapeReportText(event.text) << "\n";
    out << "ticks\t" << event.dropTicks << "\t" << event.completeTicks << "\n";
    if (!event.error.empty())
        out << "error\t" << event.error << "\n";
    out << "end\n";
    const std::string bytes = out.str();

    UniqueFile file(CreateFileW(reportPath.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return false;
    DWORD written = 0;
    return WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) &&
           written == bytes.size();
}

std::vector<DropEvent> readDropReport(const std::wstring& reportPath)
{
    std::vector<DropEvent> events;
    const std::optional<std::string> report = readFileBytes(reportPath);
    if (!report)
        return events;
    const std::string& bytes = *report;

    DropEvent current;
    std::istringstream lines(bytes);
    std::string line;
    while (std::getline(lines, line)) {
        const std::vector<std::string> f = splitTabs(line);
        const std::string& key = f[0];
        try {
            if (key == "event") {
                current = DropEvent();
                current.kind = f.size() > 1 ? f[1] : "";
            } else if (key == "effect" && f.size() > 1) {
                current.effect = static_cast<DWORD>(toNumber(f[1]));
            } else if (key == "format" && f.size() > 1) {
                current.formats.push_back(unescapeReportText(f[1]));
            } else if (key == "name" && f.size() > 1) {
                current.descriptorNames.push_back(unescapeReportText(f[1]));
            } else if (key == "file" && f.size() > 4) {
                current.files.push_back({unescapeReportText(f[4]), toNumber(f[1]), f[2], toNumber(f[3])});
            } else if (key == "text" && f.size() > 1) {
                current.hasText = true;
                current.text = unescapeReportText(f[1]);
            } else if (key == "ticks" && f.size() > 2) {
                current.dropTicks = static_cast<int64_t>(toNumber(f[1]));
                current.completeTicks = static_cast<int64_t>(toNumber(f[2]));
            } else if (key == "error" && f.size() > 1) {
                current.error = f[1];
            } else if (key == "end") {
                events.push_back(current);
                current = DropEvent();
            }
        } catch (const std::exception&) {
            // A damaged line is skipped; the rest of the event still counts.
        }
    }
    return events;
}

std::string bytesHash(const void* data, size_t size)
{
    return hex64(fnvUpdate(fnvOffset, static_cast<const unsigned char*>(data), size));
}

std::string fileHash(const std::wstring& path, uint64_t* size)
{
    UniqueFile file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (!file)
        return {};
    std::vector<unsigned char> buffer(1 << 20);
    uint64_t hash = fnvOffset;
    uint64_t total = 0;
    DWORD read = 0;
    while (ReadFile(file.get(), buffer.data(), static_cast<DWORD>(buffer.size()), &read, nullptr) && read > 0) {
        hash = fnvUpdate(hash, buffer.data(), read);
        total += read;
    }
    if (size)
        *size = total;
    return hex64(hash);
}

int64_t performanceTicks()
{
    LARGE_INTEGER now{};
    QueryPerformanceCounter(&now);
    return now.QuadPart;
}

double ticksToMilliseconds(int64_t ticks)
{
    LARGE_INTEGER frequency{};
    QueryPerformanceFrequency(&frequency);
    return frequency.QuadPart ? ticks * 1000.0 / static_cast<double>(frequency.QuadPart) : 0.0;
}
