#pragma once
// The shared fixture of the item tests: a scratch folder the items write
// into, settings under a test key, the Outlook stand-in as the add-in's
// Outlook, and what the tests read their files back with.
#include "core/globals.h"
#include "core/outlook_application.h"
#include "e2e_shared/msg_builder.h"
#include "e2e_shared/outlook_standin.h"
#include "e2e_shared/sample_mailbox.h"
#include "items/mail_item.h"
#include "support/scratch.h"
#include "support/storage_tree.h"

#include <objidl.h>
#include <wrl/client.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

class ItemFiles : public testing::Test {
protected:
    void SetUp() override { setOutlookApplication(outlook.application()); }
    void TearDown() override { setOutlookApplication(nullptr); }

    // A mail item over `source` (a new storage of `content` when null) that
    // saves into the scratch folder under `name`.
    std::unique_ptr<MailItem> mailItem(const MsgContent& content, const std::wstring& name = L"mail.msg",
                                       IStorage* source = nullptr);

    TestSettingsKeys keys;
    ScratchFolder folder;
    Globals settings{keys.company, keys.product()};
    OutlookStandIn outlook;
    Microsoft::WRL::ComPtr<IStorage> storage; // the last mail item's source
};

// A mail with what most mails have: a subject beyond ASCII, a delivery time,
// an SMTP sender, To (one name with quotes), Cc, Bcc and a recipient of a
// type of its own, a plain body and its identifiers.
MsgContent sampleMail();

// The FILETIME as one number, for comparing.
ULONGLONG timeNumber(const FILETIME& time);
ULONGLONG lastWriteTime(const std::wstring& path);

// A stream in memory holding `bytes`.
Microsoft::WRL::ComPtr<IStream> memoryStream(const std::string& bytes);

bool contains(const std::string& text, const std::string& part);

// Every problem of a written version 3 compound file, one a line, read from
// its bytes the way the format is documented (so that a lenient reader can't
// hide a broken FAT or an ill-formed sibling tree); empty when it is sound.
std::string compoundFileProblems(const std::string& bytes);
