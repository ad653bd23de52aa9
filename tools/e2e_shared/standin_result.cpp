#include "standin_result.h"

#include "drop_report.h"

#include "common/strings.h"
#include "common/text_file.h"
#include "common/unique_resource.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>

const std::string& StandInStep::name() const
{
    static const std::string none;
    const auto found = values.find("step");
    return found == values.end() ? none : found->second;
}

std::string StandInStep::value(const std::string& key) const
{
    const auto found = values.find(key);
    return found == values.end() ? std::string() : found->second;
}

long long StandInStep::number(const std::string& key, long long fallback) const
{
    const std::string text = value(key);
    if (text.empty())
        return fallback;
    return std::strtoll(text.c_str(), nullptr, 0);
}

double StandInStep::real(const std::string& key, double fallback) const
{
    const std::string text = value(key);
    return text.empty() ? fallback : std::strtod(text.c_str(), nullptr);
}

void StandInResultWriter::write(const std::string& step,
                                const std::vector<std::pair<std::string, std::string>>& values) const
{
    if (path_.empty())
        return;
    std::string line = "step=" + step;
    for (const auto& [key, value] : values)
        line += "\t" + key + "=" + escapeReportText(utf8ToWide(value));
    line += "\n";
    UniqueFile file(CreateFileW(path_.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    if (file)
        WriteFile(file.get(), line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
}

std::vector<StandInStep> readStandInResult(const std::wstring& path)
{
    std::vector<StandInStep> steps;
    const std::optional<std::string> bytes = readFileBytes(path);
    if (!bytes)
        return steps;
    std::istringstream lines(*bytes);
    std::string line;
    while (std::getline(lines, line)) {
        StandInStep step;
        std::istringstream fields(line);
        std::string field;
        while (std::getline(fields, field, '\t')) {
            const size_t equals = field.find('=');
            if (equals != std::string::npos)
                step.values[field.substr(0, equals)] = wideToUtf8(unescapeReportText(field.substr(equals + 1)));
        }
        if (!step.name().empty())
            steps.push_back(step);
    }
    return steps;
}

std::vector<StandInStep> stepsNamed(const std::vector<StandInStep>& steps, const std::string& name)
{
    std::vector<StandInStep> found;
    for (const StandInStep& step : steps) {
        if (step.name() == name)
            found.push_back(step);
    }
    return found;
}

std::string hexResult(long value)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08lX", static_cast<unsigned long>(value));
    return text;
}
