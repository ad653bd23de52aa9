// The log file as a file: levels, opening modes, threads, unusable paths.
#include "core/log.h"

#include "common/unique_resource.h"
#include "support/scratch.h"

#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

const Logger testLogger("FileDrop");

size_t countOf(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

} // namespace

TEST(LogLevels, FilterLinesBelowTheLevel)
{
    LogCapture log(LOG_WARN);
    EXPECT_FALSE(testLogger.isDebugEnabled());
    EXPECT_FALSE(testLogger.isInfoEnabled());
    EXPECT_TRUE(testLogger.isWarnEnabled());
    EXPECT_TRUE(testLogger.isErrorEnabled());
    KV_DEBUG(testLogger) << "debug line";
    KV_INFO(testLogger) << "info line";
    KV_WARN(testLogger) << "warn line";
    KV_ERROR(testLogger) << "error line";
    testLogger.info(5) << "built without the test, filtered by the file";
    const std::string text = log.contents();
    EXPECT_EQ(text.find("debug line"), std::string::npos);
    EXPECT_EQ(text.find("info line"), std::string::npos);
    EXPECT_EQ(text.find("built without"), std::string::npos);
    EXPECT_NE(text.find("WARN FileDrop:"), std::string::npos);
    EXPECT_NE(text.find("ERROR FileDrop:"), std::string::npos);
}

TEST(LogLevels, DisabledLineIsNeverBuilt)
{
    LogCapture log(LOG_ERROR);
    int evaluated = 0;
    auto expensive = [&] { return ++evaluated; };
    KV_INFO(testLogger) << expensive();
    EXPECT_EQ(evaluated, 0);
    KV_ERROR(testLogger) << expensive();
    EXPECT_EQ(evaluated, 1);
}

TEST(LogOpening, AppendKeepsAndCreateTruncates)
{
    ScratchFolder folder;
    const std::wstring path = folder.file(L"k.log");
    writeBytes(path, "old line\r\n");

    LogFile::instance().open(path, LOG_INFO, true);
    KV_INFO(testLogger) << "appended";
    LogFile::instance().close();
    std::string text = readBytes(path);
    EXPECT_EQ(text.rfind("old line\r\n", 0), 0u);
    EXPECT_NE(text.find("appended"), std::string::npos);

    LogFile::instance().open(path, LOG_INFO, false);
    KV_INFO(testLogger) << "fresh";
    LogFile::instance().close();
    text = readBytes(path);
    EXPECT_EQ(text.find("old line"), std::string::npos);
    EXPECT_NE(text.find("fresh"), std::string::npos);
}

TEST(LogOpening, OthersMayReadButNotWriteWhileOpen)
{
    LogCapture log(LOG_INFO);
    UniqueFile reader(CreateFileW(log.path().c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                  OPEN_EXISTING, 0, nullptr));
    EXPECT_TRUE(reader.valid());
    UniqueFile writer(CreateFileW(log.path().c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                  OPEN_EXISTING, 0, nullptr));
    EXPECT_FALSE(writer.valid());
}

TEST(LogOpening, UnusablePathLeavesLoggingSilentButWorking)
{
    ScratchFolder folder;
    LogFile::instance().open(folder.file(L"no\\such\\folder\\k.log"), LOG_DEBUG, true);
    EXPECT_FALSE(LogFile::instance().isOpen());
    EXPECT_EQ(LogFile::instance().level(), LOG_DEBUG); // the filter still holds
    KV_ERROR(testLogger) << "goes nowhere";
    LogFile::instance().close();
    EXPECT_FALSE(fileExists(folder.file(L"no")));
}

TEST(LogThreads, WholeLinesNeverInterleave)
{
    LogCapture log(LOG_DEBUG);
    constexpr int threadCount = 8;
    constexpr int linesPerThread = 10000;
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < linesPerThread; ++i)
                KV_INFO(testLogger) << "thread " << t << " line " << i << L" \u20AC end";
        });
    }
    for (auto& thread : threads)
        thread.join();
    LogFile::instance().close();

    const std::string text = log.contents();
    size_t lines = 0;
    size_t start = 0;
    std::vector<int> seen(threadCount, 0);
    while (start < text.size()) {
        const size_t end = text.find("\r\n", start);
        ASSERT_NE(end, std::string::npos) << "unterminated last line";
        const std::string line = text.substr(start, end - start);
        // Every line is one whole line: one frame, one message, one ending.
        ASSERT_EQ(countOf(line, " INFO FileDrop:"), 1u) << line;
        ASSERT_EQ(line.substr(line.size() - 8), " \xE2\x82\xAC end") << line;
        const size_t at = line.find("thread ");
        ASSERT_NE(at, std::string::npos);
        const int t = std::stoi(line.substr(at + 7));
        ASSERT_TRUE(t >= 0 && t < threadCount);
        ASSERT_NE(line.find(" line " + std::to_string(seen[t]) + " "), std::string::npos) << line;
        ++seen[t];
        ++lines;
        start = end + 2;
    }
    EXPECT_EQ(lines, static_cast<size_t>(threadCount * linesPerThread));
}

TEST(LogOpening, ReopeningTheSamePathKeepsLogging)
{
    ScratchFolder folder;
    const std::wstring path = folder.file(L"again.log");
    LogFile::instance().open(path, LOG_INFO, true);
    KV_INFO(testLogger) << "first connection";
    // A second connection in the same process configures the log again.
    LogFile::instance().open(path, LOG_INFO, true);
    EXPECT_TRUE(LogFile::instance().isOpen());
    KV_INFO(testLogger) << "second connection";
    LogFile::instance().close();
    const std::string text = readBytes(path);
    EXPECT_NE(text.find("first connection"), std::string::npos);
    EXPECT_NE(text.find("second connection"), std::string::npos);
}
