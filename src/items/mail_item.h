#pragma once
// A dragged mail: written as an Outlook .msg compound file or as an Internet
// .eml file, decrypted first when it is S/MIME-encrypted, dated with its
// delivery time.
#include <objidl.h>
#include <mapidefs.h>
#include <wrl/client.h>

#include "items/converter_session.h"
#include "items/dd_item.h"
#include "items/eml_message.h"
#include "items/mail_properties.h"
#include "items/msg_storage.h"

#include <functional>
#include <vector>

class Globals;

class MailItem : public DDItem {
public:
    // With the "eml" format the file name's extension becomes ".eml".
    MailItem(std::wstring fileName, IStorage* storage, Globals& settings);
    ~MailItem() override;

    HRESULT save() override;
    HRESULT prepareFile() override;
    void writeJson(std::wostream& out, int indent) override;

    // Opens the message (through MAPI where it can) and reads its properties
    // and recipients; straight from the storage when MAPI can't be used.
    HRESULT readMessage();
    // readMessage when the subject is still empty.
    void ensureRead();
    HRESULT readProperties();
    HRESULT readRecipients();
    bool isEncrypted() const;
    HRESULT setSecurityFlagDecrypted();

    HRESULT saveAsMsg(const std::wstring& destFileName);
    HRESULT saveAsEml(const std::wstring& msgFileName);
    HRESULT saveAsEmlWithRedemption(const std::wstring& msgFileName, int format);
    HRESULT saveAsEmlWithOutlook(const std::wstring& msgFileName);
    // Korvane's own MIME writer, for when the converter can't be created or
    // fails: the .eml from the properties of the message in hand (the
    // decrypted copy once saveAsEmlWithOutlook switched to it).
    HRESULT saveAsEmlWithOwnWriter();
    HRESULT replaceEmlHeadersAndWrite(IStream* memoryStream, IStream* fileStream);
    void setFileTimeToReceivedAt();

    const MailProperties& properties() const { return properties_; }
    // How the properties were read: "MAPI", "storage", or empty before.
    const wchar_t* readWay() const { return readWay_; }

protected:
    const char* typeName() const override { return "MailItem"; }

private:
    HRESULT openMessage();
    void releaseMessage();
    // The whole compound storage, element by element, into a new .msg file.
    HRESULT copyStorageToFile(const std::wstring& path);
    HRESULT copyStorageThroughDocfile(const std::wstring& path);
    void resolveExchangeAddresses();
    Microsoft::WRL::ComPtr<IConverterSession> createConverter();
    // Opens the target file and lets `writeMime` write the whole mail into a
    // stream: straight into the file, or, with ExtractMailAddress on, into
    // memory and through the address-header rewrite. Both writers share it.
    // `expectedSize`, when known, lets the memory grow once.
    HRESULT writeEmlFile(const std::function<HRESULT(IStream*)>& writeMime, ULONGLONG expectedSize = 0);
    // The properties the own writer needs, the way the item read its message.
    HRESULT readEmlProperties(StoredProperties& message, std::vector<EmlAttachmentSource>& attachments);

    Globals& settings_;
    MailProperties properties_;
    Microsoft::WRL::ComPtr<IStorage> storage_;
    Microsoft::WRL::ComPtr<IMessage> message_;
    const wchar_t* readWay_ = L"";
};
