// Installation options: install.cfg beside the add-in file, then the
// installer's parameter string.
#include "core/globals.h"

#include "core/log.h"
#include "common/module_path.h"
#include "common/strings.h"
#include "common/text_file.h"
#include "core/reg_util.h"

#include <vector>

namespace {

Logger logger("Globals");

constexpr size_t maxConfigLineChars = 1000;

} // namespace

std::vector<std::wstring> installParameterFields(const std::wstring& params)
{
    std::wstring text = params;
    if (!text.empty() && text.front() == L'"')
        text.erase(0, 1);
    if (!text.empty() && text.back() == L'"')
        text.pop_back();

    std::vector<std::wstring> fields;
    size_t start = 0;
    for (;;) {
        const size_t end = text.find(L'\\', start);
        fields.push_back(text.substr(start, end == std::wstring::npos ? std::wstring::npos : end - start));
        if (end == std::wstring::npos)
            return fields;
        start = end + 1;
    }
}

void Globals::readInstallOptionsFromConfigFile()
{
    KV_DEBUG(logger) << "readInstallOptionsFromConfigFile(";
    const std::wstring path = replaceFileName(modulePath(module_, 260), L"install.cfg");
    const auto lines = path == L"install.cfg" ? std::nullopt : readUtf8Lines(path, maxConfigLineChars);
    if (!lines && GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES)
        KV_WARN(logger) << "install.cfg could not be read, its options are not applied: " << path;
    for (const std::wstring& line : lines.value_or(std::vector<std::wstring>())) {
        const auto entry = splitKeyValue(line);
        if (!entry)
            continue;
        const auto& [key, value] = *entry;
        if (equalsIgnoreCase(key, L"addinFriendlyName")) {
            addinFriendlyName_ = value;
            KV_DEBUG(logger) << "addinFriendlyName=" << addinFriendlyName_;
        } else if (equalsIgnoreCase(key, L"addinDescription")) {
            addinDescription_ = value;
            KV_DEBUG(logger) << "addinDescription=" << addinDescription_;
        } else if (equalsIgnoreCase(key, L"KeepTempFilesMinutes")) {
            // Anything shorter than two minutes would delete files while a drop still reads them.
            keepTempFilesMinutes_ = parseLeadingInt(value);
            if (keepTempFilesMinutes_ < 2)
                keepTempFilesMinutes_ = 1440;
            KV_DEBUG(logger) << "keepTempFilesMinutes=" << keepTempFilesMinutes_;
        } else if (equalsIgnoreCase(key, L"MaxFiles")) {
            maxFiles_ = parseLeadingInt(value);
            KV_DEBUG(logger) << "maxFiles=" << maxFiles_;
        } else if (equalsIgnoreCase(key, L"installForUser")) {
            installForUser_ = equalsIgnoreCase(value, L"true");
            KV_DEBUG(logger) << "installForUser=" << installForUser_;
        } else if (equalsIgnoreCase(key, L"ribbonInfo")) {
            ribbonInfo_ = value;
            KV_DEBUG(logger) << "ribbonInfo=" << ribbonInfo_;
        }
    }
    KV_DEBUG(logger) << ")readInstallOptionsFromConfigFile";
}

void Globals::applyInstallationOptions(const std::wstring& params)
{
    KV_DEBUG(logger) << "applyInstallationOptions(" << params;
    RegUtil::getRegistryViewForOutlooksBitness();
    readInstallOptionsFromConfigFile();
    if (params.empty())
        return;

    {
        const std::vector<std::wstring> fields = installParameterFields(params);
        for (size_t index = 1; index < fields.size() && index <= 4; ++index) {
            const std::wstring& field = fields[index];
            KV_DEBUG(logger) << "param=" << field;
            if (field.empty())
                continue;
            switch (index) {
            case 1:
                addinFriendlyName_ = field;
                KV_DEBUG(logger) << "addinFriendlyName=" << addinFriendlyName_;
                break;
            case 2:
                addinDescription_ = field;
                KV_DEBUG(logger) << "addinDescription=" << addinDescription_;
                break;
            case 3:
                installForUser_ = field == L"user";
                KV_DEBUG(logger) << "installForUser=" << installForUser_;
                break;
            case 4:
                setRibbonInfo(field);
                KV_DEBUG(logger) << "ribbonInfo=" << ribbonInfo_;
                break;
            }
        }
    }

    KV_INFO(logger) << "addinFriendlyName=" << addinFriendlyName_;
    KV_INFO(logger) << "addinDescription=" << addinDescription_;
    KV_INFO(logger) << "installForUser=" << installForUser_;
    KV_INFO(logger) << "ribbonInfo=" << ribbonInfo_;
    KV_INFO(logger) << "maxFiles=" << maxFiles_;
    KV_INFO(logger) << "keepTempFilesMinutes=" << keepTempFilesMinutes_;
    KV_DEBUG(logger) << ")applyInstallationOptions";
}
