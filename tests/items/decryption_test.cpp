// S/MIME mails decrypted on the way into their file, through Redemption
// beside the add-in or through Outlook: the file is the decrypted mail, no
// encrypted copy is left, and a mail that can't be decrypted leaves no file.
#include "item_files.h"

#include "core/log.h"
#include "items/decrypt_mail.h"
#include "standins/redemption/redemption_standin.h"
#include "support/environment_switch.h"

namespace {

MsgContent encryptedMail()
{
    MsgContent mail = sampleMail();
    mail.messageClass = L"IPM.Note.SMIME";
    return mail;
}

std::wstring classOf(const std::wstring& path)
{
    MailProperties properties;
    const auto storage = openStorageFile(path);
    return storage && SUCCEEDED(readPropertiesFromStorage(storage.Get(), properties)) ? properties.messageClass
                                                                                       : L"<none>";
}

const std::wstring standInRedemption = testProgramFolder() + L"\\standins\\" + redemptionFileName();
} // namespace

TEST_F(ItemFiles, EncryptedMailIsSavedDecryptedByTheFirstWayThatWorks)
{
    const struct {
        const char* name;
        bool installed, withRedemption;
        const wchar_t* redemptionFails; // the stand-in's switch
        bool outlookFails, eml;
        HRESULT hr;
        size_t outlookOpened;
    } rows[] = {
        {"Redemption", true, true, nullptr, false, false, S_OK, 0},
        {"Redemption switched off", true, false, nullptr, false, false, S_OK, 1},
        {"Redemption missing", false, true, nullptr, false, false, S_OK, 1},
        {"Redemption failing", true, true, standInRedemptionFailDecrypt, false, false, S_OK, 1},
        {"Redemption, then Outlook failing", true, true, standInRedemptionFailSaveAs, true, false, DISP_E_EXCEPTION, 1},
        {"EML of the decrypted copy", false, false, nullptr, false, true, S_OK, 1},
        {"EML, decryption failing", false, false, nullptr, true, true, DISP_E_EXCEPTION, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ScratchFolder addinFolder, files;
        AddinCopy addin(addinFolder);
        Globals rowSettings{keys.company, keys.product()};
        rowSettings.setModule(addin.module());
        rowSettings.setDecryptWithRedemption(row.withRedemption);
        rowSettings.setFormat(row.eml ? L"eml" : L"msg");
        const std::wstring redemption = addinFolder.file(redemptionFileName());
        if (row.installed) {
            ASSERT_TRUE(CopyFileW(standInRedemption.c_str(), redemption.c_str(), FALSE));
        }
        OutlookStandIn rowOutlook;
        rowOutlook.setSaveAsFails(row.outlookFails);
        setOutlookApplication(rowOutlook.application());
        EnvironmentSwitch redemptionSwitch(standInRedemptionSwitch, row.redemptionFails);
        const auto source = makeMsgInMemory(encryptedMail());
        MailItem item(files.file(L"a.msg"), source.Get(), rowSettings);
        ASSERT_EQ(item.prepareFile(), S_OK);

        EXPECT_EQ(item.save(), row.hr);
        EXPECT_TRUE(item.isSaved());
        EXPECT_EQ(GetModuleHandleW(redemption.c_str()) != nullptr, row.installed && row.withRedemption);
        ASSERT_EQ(rowOutlook.sharedItems().size(), row.outlookOpened);
        const std::wstring target = files.file(row.eml ? L"a.eml" : L"a.msg");
        if (row.outlookOpened) {
            EXPECT_EQ(rowOutlook.lastSharedItem()->path, target + L".encrypted.msg");
            // Moved into a store (Deleted Items) and saved with its flags cleared.
            EXPECT_EQ(rowOutlook.lastMoveTarget(),
                      static_cast<IDispatch*>(&rowOutlook.defaultFolder(kOlFolderDeletedItems)));
        }
        if (FAILED(row.hr)) {
            EXPECT_TRUE(filesIn(files.path()).empty()) << "no file under the target name, no copy beside it";
            continue;
        }
        EXPECT_EQ(filesIn(files.path()), std::vector<std::wstring>{fileNameOfPath(target)});
        EXPECT_EQ(lastWriteTime(target), timeNumber(*sampleMail().deliveryTime));
        if (row.eml) {
            EXPECT_EQ(item.properties().messageClass, L"IPM.Note") << "read again from the decrypted copy";
            EXPECT_TRUE(readBytes(target).starts_with("From: \"Anna Sender\""));
        } else {
            EXPECT_EQ(classOf(target), L"IPM.Note");
        }
        if (row.outlookOpened) {
            ASSERT_EQ(rowOutlook.lastSharedItem()->securityFlagsWhenSaved, std::vector<LONG>{0});
        } else {
            EXPECT_TRUE(rowOutlook.namespaceObject().wasCalled(L"MAPIOBJECT")) << "inside Outlook's MAPI session";
        }
    }
}

TEST_F(ItemFiles, WithoutDecryptionTheMailIsSavedAsItIsAndWithoutOutlookNotAtAll)
{
    // Decryption switched off: saved as it is.
    settings.setDecryptEnabled(false);
    ASSERT_EQ(mailItem(encryptedMail(), L"as-is.msg")->save(), S_OK);
    EXPECT_EQ(classOf(folder.file(L"as-is.msg")), L"IPM.Note.SMIME");
    EXPECT_TRUE(outlook.sharedItems().empty());

    // Without Outlook nothing can decrypt: no file at all.
    settings.setDecryptEnabled(true);
    setOutlookApplication(nullptr);
    EXPECT_TRUE(FAILED(mailItem(encryptedMail(), L"none.msg")->save()));
    EXPECT_EQ(filesIn(folder.path()), std::vector<std::wstring>{L"as-is.msg"});
}

TEST_F(ItemFiles, RedemptionComesOnlyFromTheAddinsFolder)
{
    ScratchFolder addinFolder, elsewhere;
    AddinCopy addin(addinFolder);
    settings.setModule(addin.module());
    ASSERT_TRUE(CopyFileW(standInRedemption.c_str(), elsewhere.file(redemptionFileName()).c_str(), FALSE));
    wchar_t previous[MAX_PATH + 1] = {};
    GetCurrentDirectoryW(MAX_PATH, previous);
    SetCurrentDirectoryW(elsewhere.path().c_str());
    EXPECT_EQ(DecryptMail(settings).loadRedemption(), nullptr);
    EXPECT_FALSE(DecryptMail(settings).newRedemptionSession());
    SetCurrentDirectoryW(previous);
    EXPECT_EQ(GetModuleHandleW(elsewhere.file(redemptionFileName()).c_str()), nullptr);
}
