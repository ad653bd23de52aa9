// The 32/64-bit registry views and Outlook's bitness from the Office keys.
#include "core/reg_util.h"

#include "core/log.h"
#include "common/strings.h"
#include "support/registry_snapshot.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

namespace {

const std::wstring officeKey = L"Software\\Microsoft\\Office";

class RegistryView : public testing::Test {
protected:
    void SetUp() override { removeOfficeKeys(); }
    void TearDown() override
    {
        removeOfficeKeys();
        RegUtil::setRegistryView(0);
    }

    // The test prefix has no Office: whatever the tests add goes again.
    void removeOfficeKeys()
    {
        for (REGSAM view : {REGSAM(KEY_WOW64_32KEY), REGSAM(KEY_WOW64_64KEY)}) {
            RegUtil::setRegistryView(view);
            for (int version = 14; version <= 20; ++version)
                RegUtil::deleteKeyIfExists(L"HKLM\\" + officeKey + L"\\" + std::to_wstring(version) + L".0");
        }
        RegUtil::setRegistryView(0);
    }

    void setBitness(REGSAM view, int version, const std::wstring& bitness)
    {
        RegUtil::setRegistryView(view);
        ASSERT_TRUE(RegUtil::setRegValue(L"HKLM\\" + officeKey + L"\\" + std::to_wstring(version) + L".0\\Outlook",
                                         L"Bitness", bitness));
        RegUtil::setRegistryView(0);
    }

    TestSettingsKeys keys;
};

} // namespace

TEST_F(RegistryView, ThirtyTwoBitViewLandsInWow6432Node)
{
    const std::wstring relative = L"Software\\KorvaneTest\\" + keys.product() + L"\\Format";
    RegUtil::setRegistryView(KEY_WOW64_32KEY);
    ASSERT_TRUE(RegUtil::setRegValue(L"HKLM\\" + relative, L"", L"eml"));
    EXPECT_EQ(RegUtil::readString(L"HKLM\\" + relative), L"eml");

    EXPECT_TRUE(rawKeyExists(HKEY_LOCAL_MACHINE, L"Software\\Wow6432Node\\KorvaneTest\\" + keys.product() + L"\\Format"));
    EXPECT_FALSE(rawKeyExists(HKEY_LOCAL_MACHINE, relative));
    RegUtil::setRegistryView(KEY_WOW64_64KEY);
    EXPECT_EQ(RegUtil::readString(L"HKLM\\" + relative), L"");

    RegUtil::setRegistryView(KEY_WOW64_32KEY);
    EXPECT_TRUE(RegUtil::deleteKey(L"HKLM\\Software\\KorvaneTest\\" + keys.product()));
    EXPECT_FALSE(rawKeyExists(HKEY_LOCAL_MACHINE, L"Software\\Wow6432Node\\KorvaneTest\\" + keys.product()));
}

TEST_F(RegistryView, ThirtyTwoBitOutlookIsFoundInItsView)
{
    setBitness(KEY_WOW64_32KEY, 16, L"x86");
    EXPECT_FALSE(RegUtil::isOutlook64());
    RegUtil::getRegistryViewForOutlooksBitness();
    EXPECT_EQ(RegUtil::registryView(), static_cast<REGSAM>(KEY_WOW64_32KEY));
}

TEST_F(RegistryView, SixtyFourBitOutlook)
{
    setBitness(KEY_WOW64_64KEY, 16, L"x64");
    EXPECT_TRUE(RegUtil::isOutlook64());
    RegUtil::getRegistryViewForOutlooksBitness();
    EXPECT_EQ(RegUtil::registryView(), static_cast<REGSAM>(KEY_WOW64_64KEY));
}

TEST_F(RegistryView, NewestVersionInTheFirstViewWins)
{
    setBitness(KEY_WOW64_32KEY, 14, L"x64");
    setBitness(KEY_WOW64_32KEY, 15, L"x86");
    setBitness(KEY_WOW64_64KEY, 16, L"x64");
    EXPECT_FALSE(RegUtil::isOutlook64());
}

TEST_F(RegistryView, NoOutlookAssumesTheAddinsBitness)
{
    LogCapture log(LOG_INFO);
    RegUtil::setRegistryView(KEY_WOW64_32KEY);
    EXPECT_EQ(RegUtil::isOutlook64(), sizeof(void*) == 8);
    EXPECT_EQ(RegUtil::registryView(), static_cast<REGSAM>(KEY_WOW64_32KEY)); // probing leaves the view
    const std::string text = log.contents();
    EXPECT_NE(text.find("WARN RegUtil:"), std::string::npos);
    EXPECT_NE(text.find("Could not detect Outlook bitness, assume Windows bitness="), std::string::npos) << text;
    EXPECT_NE(text.find("Outlook is 64bit"), std::string::npos) << text;
}

// "(Wow6432Node)" in a key path names the 32-bit place on 64-bit Windows when
// the 32-bit view is chosen, whatever the view flag would do; in the 64-bit
// view it drops out.
TEST_F(RegistryView, Wow6432NodeTokenNamesThe32BitPlace)
{
    const struct {
        REGSAM view;
        const wchar_t* path;  // below HKLM, with the token
        std::wstring rawPlace;
    } rows[] = {
        {KEY_WOW64_32KEY, L"Software\\(Wow6432Node)\\KorvaneTest\\", L"Software\\Wow6432Node\\KorvaneTest\\"},
        {KEY_WOW64_64KEY, L"Software\\(Wow6432Node)\\KorvaneTest\\", L"Software\\KorvaneTest\\"},
        {KEY_WOW64_64KEY, L"(Wow6432Node)\\Software\\KorvaneTest\\", L"Software\\KorvaneTest\\"},
    };
    for (const auto& row : rows) {
        RegUtil::setRegistryView(row.view);
        const std::wstring path = L"HKLM\\" + std::wstring(row.path) + keys.product() + L"\\Format";
        ASSERT_TRUE(RegUtil::setRegValue(path, L"", L"eml"));
        EXPECT_TRUE(rawKeyExists(HKEY_LOCAL_MACHINE, row.rawPlace + keys.product() + L"\\Format")) << wideToUtf8(row.path);
        EXPECT_EQ(RegUtil::readString(path), L"eml");
        EXPECT_TRUE(RegUtil::deleteKey(L"HKLM\\" + std::wstring(row.path) + keys.product()));
        EXPECT_FALSE(rawKeyExists(HKEY_LOCAL_MACHINE, row.rawPlace + keys.product()));
    }
}
