// The log's start-up configuration from the per-user settings key.
#include "core/log.h"

#include "core/reg_util.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

namespace {

const Logger testLogger("Globals");

class LogConfiguration : public testing::Test {
protected:
    void TearDown() override { LogFile::instance().close(); }

    void set(const std::wstring& name, const std::wstring& value)
    {
        ASSERT_TRUE(RegUtil::setRegValue(keys.userPath(name), L"", value));
    }

    TestSettingsKeys keys;
    ScratchFolder folder;
};

} // namespace

TEST(LogLevelSetting, FirstLetterDecides)
{
    EXPECT_EQ(logLevelFromSetting(L""), LOG_INFO);
    EXPECT_EQ(logLevelFromSetting(L"debug"), LOG_DEBUG);
    EXPECT_EQ(logLevelFromSetting(L"Info"), LOG_INFO);
    EXPECT_EQ(logLevelFromSetting(L"warning"), LOG_WARN);
    EXPECT_EQ(logLevelFromSetting(L"ERROR"), LOG_ERROR);
    EXPECT_EQ(logLevelFromSetting(L"verbose"), LOG_ERROR);
}

TEST_F(LogConfiguration, NothingSetMeansTempKorvaneLogAtInfoAppended)
{
    wchar_t temp[MAX_PATH + 1] = {};
    GetTempPathW(MAX_PATH, temp);
    const std::wstring defaultPath = std::wstring(temp) + L"korvane.log";
    writeBytes(defaultPath, "earlier run\r\n");

    configureLogFromRegistry(keys.userPath(L""));
    EXPECT_EQ(LogFile::instance().level(), LOG_INFO);
    KV_DEBUG(testLogger) << "hidden marker";
    KV_INFO(testLogger) << "default marker";
    LogFile::instance().close();

    const std::string text = readBytes(defaultPath);
    DeleteFileW(defaultPath.c_str());
    EXPECT_EQ(text.rfind("earlier run\r\n", 0), 0u);
    EXPECT_NE(text.find("default marker"), std::string::npos);
    EXPECT_EQ(text.find("hidden marker"), std::string::npos);
}

TEST_F(LogConfiguration, ConfiguredPathAndLevel)
{
    const std::wstring path = folder.file(L"configured.log");
    set(L"LogFile", path);
    set(L"LogLevel", L"warning");
    configureLogFromRegistry(keys.userPath(L""));
    EXPECT_EQ(LogFile::instance().level(), LOG_WARN);
    KV_INFO(testLogger) << "info marker";
    KV_WARN(testLogger) << "warn marker";
    LogFile::instance().close();
    const std::string text = readBytes(path);
    EXPECT_EQ(text.find("info marker"), std::string::npos);
    EXPECT_NE(text.find("warn marker"), std::string::npos);
}

TEST_F(LogConfiguration, AppendOnlyForTrueInAnyCase)
{
    const std::wstring path = folder.file(L"append.log");
    set(L"LogFile", path);

    writeBytes(path, "kept\r\n");
    set(L"LogAppend", L"TRUE");
    configureLogFromRegistry(keys.userPath(L""));
    LogFile::instance().close();
    EXPECT_EQ(readBytes(path), "kept\r\n");

    set(L"LogAppend", L"yes");
    configureLogFromRegistry(keys.userPath(L""));
    LogFile::instance().close();
    EXPECT_EQ(readBytes(path), "");
}

TEST_F(LogConfiguration, NamedValuesInTheProductKeyCountToo)
{
    const std::wstring path = folder.file(L"named.log");
    ASSERT_TRUE(RegUtil::setRegValue(keys.userPath(L""), L"LogFile", path));
    ASSERT_TRUE(RegUtil::setRegValue(keys.userPath(L""), L"LogLevel", L"Debug"));
    configureLogFromRegistry(keys.userPath(L""));
    EXPECT_EQ(LogFile::instance().level(), LOG_DEBUG);
    KV_DEBUG(testLogger) << "named marker";
    LogFile::instance().close();
    EXPECT_NE(readBytes(path).find("named marker"), std::string::npos);
}

TEST_F(LogConfiguration, MissingFolderLeavesLoggingSilent)
{
    set(L"LogFile", folder.file(L"absent\\k.log"));
    configureLogFromRegistry(keys.userPath(L""));
    EXPECT_FALSE(LogFile::instance().isOpen());
    KV_ERROR(testLogger) << "nowhere";
    EXPECT_FALSE(fileExists(folder.file(L"absent")));
}
