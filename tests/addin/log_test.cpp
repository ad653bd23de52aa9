// The log file as administrators read it: the bytes of a line, its
// configuration in the registry and the level filter.
#include "addin_host.h"

#include <regex>

const Logger logger("Globals");

TEST(Log, LineIsTimeThreadLevelLoggerAndLineNumberInUtf8PerUnit)
{
    const SYSTEMTIME time{2024, 3, 0, 5, 9, 7, 2, 0};
    for (const auto& [level, name] : {std::pair{LOG_DEBUG, L"DEBUG"}, std::pair{LOG_INFO, L"INFO"},
                                      std::pair{LOG_WARN, L"WARN"}, std::pair{LOG_ERROR, L"ERROR"}})
        EXPECT_EQ(formatLogLine(time, 0x1a2c, level, L"Globals:493 Version 1.2.3.4"),
                  L"2024-03-05 09:07:02 1a2c " + std::wstring(name) + L" Globals:493 Version 1.2.3.4\r\n");
    // Each 16-bit unit on its own: a surrogate pair is two three-byte groups.
    EXPECT_EQ(encodeLogText(L"A\u00E9\u20AC\U0001F600"), "A\xC3\xA9\xE2\x82\xAC\xED\xA0\xBD\xED\xB8\x80");

    const LogCapture log(LOG_DEBUG);
    logger.info(493) << "Version " << 1 << "." << 2;
    logger.debug(0) << L"euro=\u20AC " << std::string("narrow ") << -42 << " " << 7u;
    char thread[16];
    snprintf(thread, sizeof thread, "%lx", GetCurrentThreadId());
    EXPECT_TRUE(std::regex_match(log.contents(), std::regex("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d " +
                                                            std::string(thread) + " INFO Globals:493 Version 1\\.2\r\n"
                                                            ".* DEBUG Globals euro=\xE2\x82\xAC narrow -42 7\r\n")))
        << log.contents();
}

// LogFile, LogLevel (its first letter) and LogAppend (only "true" in any case
// truncates nothing) in the user's key; lines below the level are neither
// built nor written; an unusable path leaves logging silent.
TEST_F(Addin, LogIsConfiguredByLogFileLogLevelAndLogAppend)
{
    wchar_t temp[MAX_PATH + 1] = {};
    const std::wstring defaultPath = std::wstring(temp, GetTempPathW(MAX_PATH, temp)) + L"korvane.log";
    const struct {
        const wchar_t *file, *level, *append;
        int expectedLevel;
        bool appended, written = true;
    } rows[] = {
        {nullptr, nullptr, nullptr, LOG_INFO, true},      {L"a.log", L"debug", L"TRUE", LOG_DEBUG, true},
        {L"b.log", L"Info", L"yes", LOG_INFO, false},     {L"c.log", L"warning", L"", LOG_WARN, true},
        {L"d.log", L"ERROR", L"false", LOG_ERROR, false}, {L"e.log", L"verbose", L"true", LOG_ERROR, true},
        {L"no\\such\\folder\\f.log", L"Debug", nullptr, LOG_DEBUG, false, false},
    };
    for (const auto& row : rows) {
        removeSettingsKeys(Globals::defaultCompanyName, Globals::defaultProductName);
        const std::wstring path = row.file ? folder.file(row.file) : defaultPath;
        for (const auto& [name, value] : {std::pair{L"LogFile", row.file ? path.c_str() : nullptr},
                                          std::pair{L"LogLevel", row.level}, std::pair{L"LogAppend", row.append}}) {
            if (value)
                user(name, value);
        }
        if (row.written)
            writeBytes(path, "earlier run\r\n");
        configureLogFromRegistry(L"HKCU\\" + productKey);
        int built = 0;
        KV_DEBUG(logger) << ++built;
        KV_INFO(logger) << ++built;
        EXPECT_EQ(built, (row.expectedLevel <= LOG_DEBUG) + (row.expectedLevel <= LOG_INFO));
        for (int level = LOG_DEBUG; level <= LOG_ERROR; ++level)
            LogLine(level, "Globals", 0) << "at " << level;
        LogFile::instance().close();
        const std::string text = readBytes(path);
        EXPECT_EQ(text.starts_with("earlier run\r\n"), row.appended) << wideToUtf8(path);
        for (int level = LOG_DEBUG; level <= LOG_ERROR; ++level)
            EXPECT_EQ(text.find("at " + std::to_string(level)) != std::string::npos,
                      row.written && level >= row.expectedLevel);
    }
    DeleteFileW(defaultPath.c_str());
    EXPECT_FALSE(fileExists(folder.file(L"no")));
}
