#include "core/log.h"

#include "common/strings.h"
#include "core/reg_util.h"

#include <cwctype>

namespace {

Logger logger("korvane");

std::wstring defaultLogPath()
{
    wchar_t tempDir[999] = {};
    const DWORD length = GetTempPathW(999, tempDir);
    std::wstring path(tempDir, length < 999 ? length : 0);
    KV_DEBUG(logger) << "tempDir=" << path;
    if (path.empty() || path.back() != L'\\')
        path += L'\\';
    return path + L"korvane.log";
}

} // namespace

int logLevelFromSetting(std::wstring_view value)
{
    if (value.empty())
        return LOG_INFO;
    switch (std::towupper(value.front())) {
    case L'D': return LOG_DEBUG;
    case L'I': return LOG_INFO;
    case L'W': return LOG_WARN;
    default: return LOG_ERROR;
    }
}

void configureLogFromRegistry(const std::wstring& settingsKey)
{
    std::wstring path = RegUtil::readString(settingsKey + L"\\LogFile");
    if (path.empty())
        path = defaultLogPath();
    const int level = logLevelFromSetting(RegUtil::readString(settingsKey + L"\\LogLevel"));
    const std::wstring appendSetting = RegUtil::readString(settingsKey + L"\\LogAppend");
    const bool append = appendSetting.empty() || equalsIgnoreCase(appendSetting, L"true");
    LogFile::instance().open(path, level, append);
}
