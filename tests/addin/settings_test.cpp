// Settings in the registry: per-user place, machine place, defaults, migration.
#include "core/globals.h"

#include "core/reg_util.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

namespace {

class Settings : public testing::Test {
protected:
    void user(const std::wstring& name, const std::wstring& value)
    {
        ASSERT_TRUE(RegUtil::setRegValue(keys.userPath(name), L"", value));
    }
    void machine(const std::wstring& name, const std::wstring& value)
    {
        ASSERT_TRUE(RegUtil::setRegValue(keys.machinePath(name), L"", value));
    }
    std::wstring read(const std::wstring& path) { return RegUtil::readString(path); }

    TestSettingsKeys keys;
};

} // namespace

TEST_F(Settings, FreshMachineGivesTheDefaults)
{
    Globals settings(keys.company, keys.product());
    EXPECT_FALSE(settings.getLocked());
    EXPECT_EQ(settings.getFormat(), L"msg");
    EXPECT_TRUE(settings.getIgnoreTargetEffectIfDroppedIntoOtherApplication());
    EXPECT_EQ(settings.getTextFormat(), L"none");
    EXPECT_FALSE(settings.getSaveOnBeginDrag());
    EXPECT_FALSE(settings.getExtractMailAddress());
    EXPECT_TRUE(settings.getDecryptEnabled());
    EXPECT_FALSE(settings.getDecryptWithRedemption());
    EXPECT_EQ(settings.getSaveWithRedemptionFormat(), -1);
    EXPECT_FALSE(settings.getTempFileReadOnly());
    EXPECT_FALSE(settings.getCaptureClipboard());
    EXPECT_EQ(settings.maxFiles(), -1);
    EXPECT_EQ(settings.keepTempFilesMinutes(), 1440);
    EXPECT_EQ(settings.getRibbonInfo(), L"");
    EXPECT_FALSE(settings.installForUser());
    EXPECT_EQ(settings.productName(), keys.product());
    EXPECT_EQ(settings.addinFriendlyName(), keys.product());
    EXPECT_EQ(settings.addinDescription(), keys.product());
    // Making the object writes nothing: installers make it too.
    EXPECT_EQ(read(keys.userPath(L"TextFormat")), L"");
}

TEST_F(Settings, ProcessWideObjectUsesTheProductIdentity)
{
    EXPECT_EQ(Globals::instance().productName(), L"Korvane Addin for Microsoft Outlook");
    EXPECT_EQ(Globals::instance().companyName(), L"QUEMBROOK");
    EXPECT_EQ(Globals::instance().userKey(), L"HKCU\\Software\\QUEMBROOK\\Korvane Addin for Microsoft Outlook");
    RegUtil::deleteKeyIfExists(L"HKCU\\Software\\QUEMBROOK");
}

// The first start moves the obsolete TextAsJson switch, as key or as named
// value, into TextFormat, unless TextFormat is there already.
TEST_F(Settings, FirstStartMigratesTextAsJson)
{
    struct Row {
        const wchar_t* textFormat;
        const wchar_t* textAsJsonKey;
        const wchar_t* textAsJsonValue;
        const wchar_t* expected;
    } rows[] = {
        {nullptr, nullptr, nullptr, L"none"},
        {nullptr, L"true", nullptr, L"json"},
        {nullptr, nullptr, L"true", L"json"},
        {nullptr, L"false", nullptr, L"none"},
        {L"table", L"true", nullptr, L"table"},
    };
    for (const Row& row : rows) {
        RegUtil::deleteKeyIfExists(keys.userPath(L""));
        if (row.textFormat)
            user(L"TextFormat", row.textFormat);
        if (row.textAsJsonKey)
            user(L"TextAsJson", row.textAsJsonKey);
        if (row.textAsJsonValue) {
            ASSERT_TRUE(RegUtil::setRegValue(keys.userPath(L""), L"TextAsJson", row.textAsJsonValue));
        }
        Globals settings(keys.company, keys.product());
        settings.migrateTextFormat();
        EXPECT_EQ(read(keys.userPath(L"TextFormat")), row.expected);
        EXPECT_TRUE(row.textFormat || read(keys.userPath(L"TextAsJson")).empty());
    }
}

TEST_F(Settings, OnlyTheExactTrueIsTrue)
{
    Globals settings(keys.company, keys.product());
    for (const wchar_t* notTrue : {L"TRUE", L"1", L"yes", L"True", L" true"}) {
        user(L"DecryptEnabled", notTrue); // default true, so false proves the rule
        EXPECT_FALSE(settings.getDecryptEnabled()) << testing::PrintToString(std::wstring(notTrue));
    }
    user(L"SaveOnBeginDrag", L"true");
    EXPECT_TRUE(settings.getSaveOnBeginDrag());
}

TEST_F(Settings, PerUserBeatsMachineBeatsDefault)
{
    Globals settings(keys.company, keys.product());
    machine(L"Format", L"msg");
    user(L"Format", L"eml");
    EXPECT_EQ(settings.getFormat(), L"eml");
    ASSERT_TRUE(RegUtil::deleteKey(keys.userPath(L"Format")));
    EXPECT_EQ(settings.getFormat(), L"msg");
    machine(L"Format", L"eml");
    EXPECT_EQ(settings.getFormat(), L"eml");
}

TEST_F(Settings, EmptyPerUserValueFallsBackToTheMachine)
{
    Globals settings(keys.company, keys.product());
    user(L"CaptureClipboard", L"");
    machine(L"CaptureClipboard", L"true");
    EXPECT_TRUE(settings.getCaptureClipboard());
}

TEST_F(Settings, SettersWriteThePerUserPlaceAtOnce)
{
    Globals settings(keys.company, keys.product());
    settings.setLocked(true);
    settings.setFormat(L"eml");
    settings.setTextFormat(L"json");
    settings.setIgnoreTargetEffectIfDroppedIntoOtherApplication(false);
    settings.setSaveWithRedemptionFormat(3);
    EXPECT_EQ(read(keys.userPath(L"Locked")), L"true");
    EXPECT_EQ(read(keys.userPath(L"Format")), L"eml");
    EXPECT_EQ(read(keys.userPath(L"TextFormat")), L"json");
    EXPECT_EQ(read(keys.userPath(L"IgnoreTargetEffectIfDroppedIntoOtherApplication")), L"false");
    EXPECT_EQ(read(keys.userPath(L"SaveWithRedemptionFormat")), L"3");
    EXPECT_EQ(read(keys.machinePath(L"Locked")), L"");

    // A second settings object (another Outlook window) sees the change.
    Globals other(keys.company, keys.product());
    EXPECT_TRUE(other.getLocked());
    EXPECT_EQ(other.getSaveWithRedemptionFormat(), 3);
}

TEST_F(Settings, AdministratorsChangeTakesEffectWithoutRestart)
{
    Globals settings(keys.company, keys.product());
    EXPECT_FALSE(settings.getTempFileReadOnly());
    machine(L"TempFileReadOnly", L"true");
    EXPECT_TRUE(settings.getTempFileReadOnly());
}

TEST_F(Settings, NumbersAreReadOnceAtConstruction)
{
    user(L"MaxFiles", L"25");
    machine(L"KeepTempFilesMinutes", L"1");
    Globals settings(keys.company, keys.product());
    EXPECT_EQ(settings.maxFiles(), 25);
    EXPECT_EQ(settings.keepTempFilesMinutes(), 1); // no lower bound from the registry
    user(L"MaxFiles", L"3");
    EXPECT_EQ(settings.maxFiles(), 25);
}

TEST_F(Settings, NonNumericNumbersBecomeZero)
{
    user(L"MaxFiles", L"many");
    user(L"KeepTempFilesMinutes", L"a day");
    user(L"SaveWithRedemptionFormat", L"x");
    Globals settings(keys.company, keys.product());
    EXPECT_EQ(settings.maxFiles(), 0);
    EXPECT_EQ(settings.keepTempFilesMinutes(), 0);
    EXPECT_EQ(settings.getSaveWithRedemptionFormat(), 0);
}

TEST_F(Settings, ValuesOfOtherTypesAreReadWithoutHarm)
{
    HKEY key = nullptr;
    const std::wstring subKey = L"Software\\" + std::wstring(keys.company) + L"\\" + keys.product();
    ASSERT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, subKey.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                              nullptr),
              ERROR_SUCCESS);
    const DWORD minutes = 90;
    RegSetValueExW(key, L"KeepTempFilesMinutes", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&minutes), 4);
    const BYTE junk[] = {0xFF, 0x00, 0x13};
    RegSetValueExW(key, L"Format", 0, REG_BINARY, junk, sizeof junk);
    RegCloseKey(key);

    Globals settings(keys.company, keys.product());
    EXPECT_EQ(settings.keepTempFilesMinutes(), 90);
    EXPECT_EQ(settings.getFormat(), L"msg");
}

TEST_F(Settings, InstalledForTheUserMakesTheMachinePlacePerUser)
{
    machine(L"Format", L"eml");
    Globals settings(keys.company, keys.product());
    EXPECT_EQ(settings.getFormat(), L"eml");

    settings.recordInstallForUser(true);
    Globals userInstall(keys.company, keys.product());
    EXPECT_TRUE(userInstall.installForUser());
    EXPECT_EQ(userInstall.machineKey(), userInstall.userKey());
    EXPECT_EQ(userInstall.getFormat(), L"msg");

    settings.recordInstallForUser(false);
    Globals machineInstall(keys.company, keys.product());
    EXPECT_FALSE(machineInstall.installForUser());
}

TEST_F(Settings, RibbonInfoIsWrittenToTheMachinePlaceUnlessInstalledForTheUser)
{
    Globals settings(keys.company, keys.product());
    settings.setRibbonInfo(L"2;Mail tools");
    EXPECT_EQ(settings.getRibbonInfo(), L"2;Mail tools");
    EXPECT_EQ(read(keys.machinePath(L"Ribbon.Microsoft.Outlook.Explorer")), L"2;Mail tools");
    EXPECT_EQ(read(keys.userPath(L"Ribbon.Microsoft.Outlook.Explorer")), L"");

    Globals reloaded(keys.company, keys.product());
    EXPECT_EQ(reloaded.getRibbonInfo(), L"2;Mail tools");
}

TEST(RibbonTitle, FollowsTheRibbonInfo)
{
    EXPECT_EQ(ribbonTitleFor(L"", L"Korvane"), L"");
    EXPECT_EQ(ribbonTitleFor(L"1;", L"Korvane"), L"Korvane");
    EXPECT_EQ(ribbonTitleFor(L"1;ignored", L"Korvane"), L"Korvane");
    EXPECT_EQ(ribbonTitleFor(L"2;Mail tools", L"Korvane"), L"Mail tools");
    EXPECT_EQ(ribbonTitleFor(L"2;true", L"Korvane"), L"Korvane");
    EXPECT_EQ(ribbonTitleFor(L"2;TRUE", L"Korvane"), L"Korvane");
    EXPECT_EQ(ribbonTitleFor(L"2;1", L"Korvane"), L"Korvane");
    EXPECT_EQ(ribbonTitleFor(L"2;True", L"Korvane"), L"True");
    EXPECT_EQ(ribbonTitleFor(L"3;X", L"Korvane"), L"");
    EXPECT_EQ(ribbonTitleFor(L"2", L"Korvane"), L"");
}

TEST_F(Settings, RibbonTitleUsesTheLocalizedText)
{
    user(L"Ribbon.Microsoft.Outlook.Explorer", L"2;true");
    Globals settings(keys.company, keys.product());
    // The shipped texts are beside the test program.
    EXPECT_EQ(settings.getRibbonTitle(), L"Korvane");
    settings.setRibbonInfo(L"3;X");
    EXPECT_EQ(settings.getRibbonTitle(), L"");
}
