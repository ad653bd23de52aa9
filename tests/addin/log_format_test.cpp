// How a line looks in the file: its frame, its logger prefix and its bytes.
#include "core/log.h"

#include "support/scratch.h"

#include <regex>
#include <sstream>

#include <gtest/gtest.h>

namespace {

const Logger globalsLogger("Globals");

} // namespace

TEST(LogLineFormat, FramesTheTextWithTimeThreadAndLevel)
{
    SYSTEMTIME time{};
    time.wYear = 2024;
    time.wMonth = 3;
    time.wDay = 5;
    time.wHour = 9;
    time.wMinute = 7;
    time.wSecond = 2;
    EXPECT_EQ(formatLogLine(time, 0x1a2c, LOG_INFO, L"Globals:493 Version 1.2.3.4"),
              L"2024-03-05 09:07:02 1a2c INFO Globals:493 Version 1.2.3.4\r\n");
    EXPECT_EQ(formatLogLine(time, 7, LOG_DEBUG, L"x"), L"2024-03-05 09:07:02 7 DEBUG x\r\n");
    EXPECT_EQ(formatLogLine(time, 7, LOG_WARN, L"x"), L"2024-03-05 09:07:02 7 WARN x\r\n");
    EXPECT_EQ(formatLogLine(time, 7, LOG_ERROR, L"x"), L"2024-03-05 09:07:02 7 ERROR x\r\n");
}

TEST(LogLineFormat, EncodesEachUnitOnItsOwn)
{
    EXPECT_EQ(encodeLogText(L"A\u00E9\u20AC"), "A\xC3\xA9\xE2\x82\xAC");
    // A surrogate pair is two three-byte groups, not one four-byte sequence.
    EXPECT_EQ(encodeLogText(L"\U0001F600"), "\xED\xA0\xBD\xED\xB8\x80");
}

TEST(LogLineFormat, WritesLoggerNameLineNumberAndTheRealThread)
{
    LogCapture log(LOG_DEBUG);
    globalsLogger.info(493) << "Version " << 1 << "." << 2;
    globalsLogger.info(0) << "no number";
    const std::string text = log.contents();

    std::ostringstream thread;
    thread << std::hex << GetCurrentThreadId();
    const std::regex first("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d " + thread.str() +
                           " INFO Globals:493 Version 1\\.2\r\n");
    EXPECT_TRUE(std::regex_search(text, first)) << text;
    EXPECT_NE(text.find(" INFO Globals no number\r\n"), std::string::npos) << text;
}

TEST(LogLineFormat, StreamsWideNarrowAndNumbers)
{
    LogCapture log(LOG_DEBUG);
    globalsLogger.debug(1) << L"euro=\u20AC " << std::string("narrow ") << -42 << " " << 7u;
    EXPECT_NE(log.contents().find("DEBUG Globals:1 euro=\xE2\x82\xAC narrow -42 7\r\n"), std::string::npos);
}

TEST(LogFileTimes, WritesUtcAsItStands)
{
    SYSTEMTIME time{};
    time.wYear = 2023;
    time.wMonth = 12;
    time.wDay = 31;
    time.wHour = 23;
    time.wMinute = 59;
    time.wSecond = 58;
    time.wMilliseconds = 999;
    FILETIME fileTime{};
    ASSERT_TRUE(SystemTimeToFileTime(&time, &fileTime));
    std::wostringstream out;
    writeFileTime(out, fileTime);
    EXPECT_EQ(out.str(), L"2023-12-31 23:59:58");
}
