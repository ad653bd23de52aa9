// Decrypting an S/MIME mail through Redemption beside the add-in, or Outlook.
#include "items/decrypt_mail.h"

#include "core/globals.h"
#include "core/log.h"
#include "core/outlook_application.h"
#include "items/mail_item.h"
#include "standins/redemption/redemption_standin.h"
#include "support/environment_switch.h"
#include "e2e_shared/msg_builder.h"
#include "e2e_shared/outlook_standin.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

namespace {

using Microsoft::WRL::ComPtr;

class Decryption : public testing::Test {
protected:
    void SetUp() override
    {
        settings.setModule(addin.module());
        setOutlookApplication(outlook.application());
        MsgContent mail;
        mail.subject = L"Secret";
        mail.messageClass = L"IPM.Note.SMIME";
        mail.deliveryTime = utcFileTime(2023, 1, 2, 3, 4, 5);
        storage = makeMsgInMemory(mail);
    }
    void TearDown() override { setOutlookApplication(nullptr); }

    // Redemption64.dll beside the add-in, as an administrator installs it.
    std::wstring installRedemption()
    {
        const std::wstring target = folder.file(redemptionFileName());
        EXPECT_TRUE(CopyFileW((testProgramFolder() + L"\\standins\\" + standInRedemptionFileName).c_str(),
                              target.c_str(), FALSE));
        return target;
    }
    bool loaded(const std::wstring& path) { return GetModuleHandleW(path.c_str()) != nullptr; }

    std::wstring classOf(const std::wstring& path)
    {
        ComPtr<IStorage> saved;
        if (FAILED(StgOpenStorageEx(path.c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, STGFMT_ANY, 0, nullptr, nullptr,
                                    IID_IStorage, reinterpret_cast<void**>(saved.GetAddressOf()))))
            return L"<none>";
        MailProperties properties;
        readPropertiesFromStorage(saved.Get(), properties);
        return properties.messageClass;
    }

    TestSettingsKeys keys;
    ScratchFolder folder;
    AddinCopy addin{folder};
    Globals settings{keys.company, keys.product()};
    OutlookStandIn outlook;
    ComPtr<IStorage> storage;
};

} // namespace

TEST_F(Decryption, RedemptionIsUsedWhenSwitchedOnAndPresent)
{
    const std::wstring redemption = installRedemption();
    settings.setDecryptWithRedemption(true);
    MailItem item(folder.file(L"secret.msg"), storage.Get(), settings);
    ASSERT_EQ(item.save(), S_OK);
    EXPECT_TRUE(loaded(redemption));
    EXPECT_EQ(classOf(folder.file(L"secret.msg")), L"IPM.Note");
    EXPECT_TRUE(outlook.sharedItems().empty()); // Outlook's way was not needed
    // Redemption works inside Outlook's own MAPI session.
    EXPECT_TRUE(outlook.namespaceObject().wasCalled(L"MAPIOBJECT"));
}

TEST_F(Decryption, RedemptionSwitchedOffIsNeverLoaded)
{
    const std::wstring redemption = installRedemption();
    MailItem item(folder.file(L"secret.msg"), storage.Get(), settings);
    ASSERT_EQ(item.save(), S_OK);
    EXPECT_FALSE(loaded(redemption));
    EXPECT_EQ(outlook.sharedItems().size(), 1u);
    EXPECT_EQ(classOf(folder.file(L"secret.msg")), L"IPM.Note");
}

TEST_F(Decryption, MissingRedemptionFallsBackToOutlook)
{
    settings.setDecryptWithRedemption(true);
    MailItem item(folder.file(L"secret.msg"), storage.Get(), settings);
    ASSERT_EQ(item.save(), S_OK);
    EXPECT_EQ(outlook.sharedItems().size(), 1u);
    EXPECT_EQ(classOf(folder.file(L"secret.msg")), L"IPM.Note");
}

TEST_F(Decryption, FailingRedemptionFallsBackToOutlook)
{
    installRedemption();
    settings.setDecryptWithRedemption(true);
    EnvironmentSwitch fail(standInRedemptionSwitch, standInRedemptionFailDecrypt);
    MailItem item(folder.file(L"secret.msg"), storage.Get(), settings);
    ASSERT_EQ(item.save(), S_OK);
    EXPECT_EQ(outlook.sharedItems().size(), 1u);
}

TEST_F(Decryption, RedemptionIsLoadedOnlyFromTheAddinsFolder)
{
    // A Redemption in the current directory must not be picked up.
    ScratchFolder elsewhere;
    CopyFileW((testProgramFolder() + L"\\standins\\" + standInRedemptionFileName).c_str(),
              elsewhere.file(redemptionFileName()).c_str(), FALSE);
    wchar_t previous[MAX_PATH + 1] = {};
    GetCurrentDirectoryW(MAX_PATH, previous);
    SetCurrentDirectoryW(elsewhere.path().c_str());
    EXPECT_EQ(DecryptMail(settings).loadRedemption(), nullptr);
    EXPECT_FALSE(DecryptMail(settings).newRedemptionSession());
    SetCurrentDirectoryW(previous);
    EXPECT_FALSE(loaded(elsewhere.file(redemptionFileName())));
}

TEST_F(Decryption, BothWaysFailingGivesOutlooksError)
{
    installRedemption();
    settings.setDecryptWithRedemption(true);
    EnvironmentSwitch fail(standInRedemptionSwitch, standInRedemptionFailSaveAs);
    outlook.setOpenSharedItemFails(true);
    MailItem item(folder.file(L"secret.msg"), storage.Get(), settings);
    ASSERT_EQ(item.prepareFile(), S_OK);
    EXPECT_TRUE(FAILED(item.save()));
    EXPECT_FALSE(fileExists(folder.file(L"secret.msg")));
    EXPECT_FALSE(fileExists(folder.file(L"secret.msg.encrypted.msg")));
}

TEST_F(Decryption, NoticeTextsComeFromTheBundle)
{
    writeBytes(folder.file(L"resource_en.txt"), "notifyDecryptionFailed = Could not decrypt\nnotifyErrorTitle = Oops\n");
    EXPECT_EQ(DecryptMail(settings).notifyDecryptionFailed(), L"Could not decrypt");
    EXPECT_EQ(DecryptMail(settings).notifyErrorTitle(), L"Oops");
}

