#pragma once
// What the reader tests share: the registered formats, a settings object of
// their own, a scratch folder as the drag folder, and small ways to look at
// what came back.
#include "block_readers.h"

#include "core/globals.h"
#include "dataobject/clipboard_formats.h"
#include "dataobject/data_object_reader.h"
#include "dataobject/global_memory.h"
#include "items/msg_storage.h"
#include "e2e_shared/outlook_data_object.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

class ReaderTest : public testing::Test {
protected:
    void SetUp() override { RegisterDataFormats(); }

    // The paths the reader builds for the data object's descriptor.
    static std::vector<std::wstring> pathsOf(IDataObject* dataObject, const std::wstring& tempDir)
    {
        UniqueGlobal descriptor(getFileGroupDescriptorFromDataObject(dataObject));
        std::vector<std::wstring> paths;
        if (descriptor)
            getFileNamesFromGroupDescr(descriptor.get(), tempDir, paths);
        return paths;
    }

    std::vector<std::wstring> inFolder(std::initializer_list<const wchar_t*> names) const
    {
        std::vector<std::wstring> paths;
        for (const wchar_t* name : names)
            paths.push_back(folder.file(name));
        return paths;
    }

    TestSettingsKeys keys;
    Globals settings{keys.company, keys.product()};
    ScratchFolder folder;
};

// The subject a .msg storage holds, or "<unreadable>".
inline std::wstring subjectOf(IStorage* storage)
{
    StoredMessage message;
    if (!storage || FAILED(readStoredMessage(storage, message)))
        return L"<unreadable>";
    const StoredProperty* subject = findStoredProperty(message.properties, 0x0037);
    if (!subject)
        return L"<none>";
    return std::wstring(reinterpret_cast<const wchar_t*>(subject->bytes.data()), subject->bytes.size() / 2);
}

inline MsgContent mailWithSubject(const std::wstring& subject)
{
    MsgContent content;
    content.subject = subject;
    content.senderName = L"Ann Lee";
    content.senderAddress = L"ann@example.com";
    content.senderAddrType = L"SMTP";
    content.body = L"Hello from " + subject;
    content.deliveryTime = utcFileTime(2023, 4, 7, 10, 15, 0);
    return content;
}
