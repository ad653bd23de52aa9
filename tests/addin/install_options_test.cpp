// install.cfg beside the add-in and the installer's parameter string.
#include "core/globals.h"

#include "core/log.h"
#include "core/reg_util.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

namespace {

class InstallOptions : public testing::Test {
protected:
    void SetUp() override { settings.setModule(addin.module()); }
    void TearDown() override { RegUtil::setRegistryView(0); }

    void config(const std::string& text) { writeBytes(folder.file(L"install.cfg"), text); }

    TestSettingsKeys keys;
    ScratchFolder folder;
    AddinCopy addin{folder};
    Globals settings{keys.company, keys.product()};
};

} // namespace

TEST_F(InstallOptions, ConfigFileSetsEveryOption)
{
    config("\xEF\xBB\xBF"
           "addinFriendlyName = Korvane for Mail\r\n"
           "ADDINDESCRIPTION=Real files out of Outlook\r\n"
           "keeptempfilesminutes = 30\r\n"
           "MaxFiles=12\r\n"
           "installForUser = TRUE\r\n"
           "ribbonInfo = 2;Mail tools\r\n");
    settings.readInstallOptionsFromConfigFile();
    EXPECT_EQ(settings.addinFriendlyName(), L"Korvane for Mail");
    EXPECT_EQ(settings.addinDescription(), L"Real files out of Outlook");
    EXPECT_EQ(settings.keepTempFilesMinutes(), 30);
    EXPECT_EQ(settings.maxFiles(), 12);
    EXPECT_TRUE(settings.installForUser());
    EXPECT_EQ(settings.getRibbonInfo(), L"2;Mail tools");
    // The file alone doesn't write the ribbon info to the registry.
    EXPECT_EQ(RegUtil::readString(keys.machinePath(L"Ribbon.Microsoft.Outlook.Explorer")), L"");
}

TEST_F(InstallOptions, TooShortOrBrokenKeepTimeBecomesADay)
{
    config("KeepTempFilesMinutes=1\n");
    settings.readInstallOptionsFromConfigFile();
    EXPECT_EQ(settings.keepTempFilesMinutes(), 1440);
    config("KeepTempFilesMinutes=soon\n");
    settings.readInstallOptionsFromConfigFile();
    EXPECT_EQ(settings.keepTempFilesMinutes(), 1440);
    config("KeepTempFilesMinutes=2\n");
    settings.readInstallOptionsFromConfigFile();
    EXPECT_EQ(settings.keepTempFilesMinutes(), 2);
}

TEST_F(InstallOptions, JunkLinesAreIgnored)
{
    config("just words\n"
           "\n"
           "unknownKey = 5\n" +
           std::string(4000, 'M') + "axFiles=7\n" // overlong: cut, so it is no MaxFiles line
           "installForUser = yes\n"
           "MaxFiles = 9 = 10\n"
           "invalid = \xC3\x28\n");
    settings.readInstallOptionsFromConfigFile();
    EXPECT_EQ(settings.maxFiles(), 9);
    EXPECT_FALSE(settings.installForUser());
    EXPECT_EQ(settings.keepTempFilesMinutes(), 1440);
}

TEST_F(InstallOptions, MissingFileChangesNothing)
{
    settings.readInstallOptionsFromConfigFile();
    EXPECT_EQ(settings.maxFiles(), -1);
    EXPECT_EQ(settings.addinFriendlyName(), keys.product());
}

TEST_F(InstallOptions, ParameterStringOverridesTheFile)
{
    config("addinFriendlyName=From file\naddinDescription=Described in the file\nMaxFiles=4\n");
    settings.applyInstallationOptions(L"\"x\\My Name\\\\user\\2;Mail tools\"");
    EXPECT_EQ(settings.addinFriendlyName(), L"My Name");
    EXPECT_EQ(settings.addinDescription(), L"Described in the file"); // empty field: unchanged
    EXPECT_TRUE(settings.installForUser());
    EXPECT_EQ(settings.getRibbonInfo(), L"2;Mail tools");
    EXPECT_EQ(settings.getRibbonTitle(), L"Mail tools");
    EXPECT_EQ(settings.maxFiles(), 4);
    // Installed for the user, so the ribbon info lands in the per-user place.
    EXPECT_EQ(RegUtil::readString(keys.userPath(L"Ribbon.Microsoft.Outlook.Explorer")), L"2;Mail tools");
}

TEST_F(InstallOptions, UserMarkerIsCaseSensitiveAndExtraFieldsIgnored)
{
    settings.applyInstallationOptions(L"x\\\\\\User\\\\extra\\more");
    EXPECT_FALSE(settings.installForUser());
    EXPECT_EQ(settings.addinFriendlyName(), keys.product());
    EXPECT_EQ(settings.getRibbonInfo(), L"");
}

TEST_F(InstallOptions, ResultsAreLoggedForTheAdministrator)
{
    LogCapture log(LOG_INFO);
    settings.applyInstallationOptions(L"x\\Friendly");
    const std::string text = log.contents();
    const size_t friendly = text.find("addinFriendlyName=Friendly");
    const size_t keep = text.find("keepTempFilesMinutes=1440");
    ASSERT_NE(friendly, std::string::npos) << text;
    ASSERT_NE(keep, std::string::npos) << text;
    EXPECT_LT(friendly, keep);
    EXPECT_NE(text.find("Outlook is 64bit"), std::string::npos) << text;
}
