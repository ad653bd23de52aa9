#include "items/eml_properties_storage.h"

#include "core/log.h"
#include "common/hresult.h"
#include "items/msg_layout.h"
#include "items/property_text.h"
#include "items/stream_copy.h"

#include <memory>

namespace {

const Logger logger("MailItem");

using Microsoft::WRL::ComPtr;

constexpr uint32_t attachDataBinTag = 0x37010102;
constexpr DWORD childMode = STGM_READ | STGM_SHARE_EXCLUSIVE;
constexpr DWORD memoryMode = STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

// Attached messages read for one mail, at all depths together: a storage
// that holds itself through a damaged directory, or a mail of thousands of
// mails, ends here.
constexpr size_t maxAttachedMessages = 512;
constexpr ULONGLONG maxObjectBytes = ULONGLONG(64) << 20;

struct ObjectBudget {
    size_t messages = 0;
};

void readObjects(IStorage* storage, std::vector<EmlAttachmentSource>& attachments, int depth, ObjectBudget& budget);

// The message's properties, recipients and attachments (their data left in
// their streams, opened here).
HRESULT readMessageSource(IStorage* storage, bool embedded, EmlMessageSource& source)
{
    StoredMessage stored;
    StoredReadLimits limits;
    limits.readAttachmentData = false;
    limits.embeddedMessage = embedded;
    const HRESULT hr = readStoredMessage(storage, stored, limits);
    if (FAILED(hr))
        return hr;
    for (const SkippedValue& skipped : stored.skipped) {
        KV_WARN(logger) << "left out of the .eml: " << (skipped.where.empty() ? L"message" : skipped.where.c_str())
                        << " value 0x" << MsgLayout::hex8(skipped.tag) << ", hr=" << skipped.hr;
    }
    source.properties = std::move(stored.properties);
    source.recipients = std::move(stored.recipients);
    for (size_t i = 0; i < stored.attachments.size(); ++i) {
        EmlAttachmentSource attachment;
        attachment.properties = std::move(stored.attachments[i]);
        attachment.storageName = i < stored.attachmentNames.size() ? stored.attachmentNames[i] : L"";
        const StoredProperty* data = findStoredProperty(attachment.properties, propertyIdOf(attachDataBinTag));
        // The same id as PT_OBJECT is an attached message or OLE object, read by readObjects.
        if (data && data->tag == attachDataBinTag && !attachment.storageName.empty()) {
            // Listed, not read: opened here and read while the mail is written.
            attachment.properties.erase(propertyIdOf(attachDataBinTag));
            ComPtr<IStorage> child;
            HRESULT openHr = storage->OpenStorage(attachment.storageName.c_str(), nullptr, childMode, nullptr, 0, &child);
            if (SUCCEEDED(openHr))
                openHr = child->OpenStream(MsgLayout::SubstorageName(attachDataBinTag).c_str(), nullptr, childMode, 0,
                                           &attachment.dataStream);
            if (SUCCEEDED(openHr)) {
                attachment.dataOwner = child;
            } else {
                attachment.dataStream.Reset();
                KV_WARN(logger) << "data of " << attachment.storageName << " can't be opened, hr=" << openHr;
            }
        }
        source.attachments.push_back(std::move(attachment));
    }
    return S_OK;
}

// The bytes of the streams in a storage, counted before anything is copied;
// more than `limit` (or deeper than OLE objects nest) is too large.
HRESULT checkStorageSize(IStorage* storage, ULONGLONG limit, ULONGLONG& total, int depth = 0)
{
    ComPtr<IEnumSTATSTG> elements;
    RETURN_IF_FAILED(storage->EnumElements(0, nullptr, 0, &elements));
    STATSTG element{};
    while (elements->Next(1, &element, nullptr) == S_OK) {
        std::unique_ptr<wchar_t, decltype(&CoTaskMemFree)> name(element.pwcsName, &CoTaskMemFree);
        total += element.cbSize.QuadPart;
        if (total > limit || depth > 8)
            return STG_E_DOCFILETOOLARGE;
        ComPtr<IStorage> child;
        if (element.type == STGTY_STORAGE &&
            SUCCEEDED(storage->OpenStorage(name.get(), nullptr, childMode, nullptr, 0, &child)))
            RETURN_IF_FAILED(checkStorageSize(child.Get(), limit, total, depth + 1));
    }
    return S_OK;
}

// An OLE object's storage as the bytes of a compound file of its own.
HRESULT objectBytesOf(IStorage* object, std::string& bytes)
{
    ULONGLONG total = 0;
    RETURN_IF_FAILED(checkStorageSize(object, maxObjectBytes, total));
    ComPtr<ILockBytes> lockBytes;
    RETURN_IF_FAILED(CreateILockBytesOnHGlobal(nullptr, TRUE, &lockBytes));
    ComPtr<IStorage> copy;
    RETURN_IF_FAILED(StgCreateDocfileOnILockBytes(lockBytes.Get(), memoryMode, 0, &copy));
    RETURN_IF_FAILED(copyStorageContents(object, copy.Get()));
    RETURN_IF_FAILED(copy->Commit(STGC_DEFAULT));
    STATSTG stat{};
    RETURN_IF_FAILED(lockBytes->Stat(&stat, STATFLAG_NONAME));
    if (stat.cbSize.QuadPart > maxObjectBytes)
        return STG_E_DOCFILETOOLARGE;
    bytes.resize(static_cast<size_t>(stat.cbSize.QuadPart));
    ULONG read = 0;
    RETURN_IF_FAILED(lockBytes->ReadAt(ULARGE_INTEGER{}, bytes.data(), static_cast<ULONG>(bytes.size()), &read));
    bytes.resize(read);
    return S_OK;
}

void readObject(IStorage* storage, EmlAttachmentSource& attachment, uint32_t method, int depth, ObjectBudget& budget)
{
    std::wstring name = attachment.storageName;
    if (name.empty()) {
        const auto number = findStoredLong(attachment.properties, 0x0E21); // PR_ATTACH_NUM
        if (!number)
            return;
        name = MsgLayout::rowStorageName(MsgLayout::attachmentPrefix, *number);
    }
    if (method == AttachMethod::embeddedMessage && depth >= maxEmbeddedMessageDepth)
        return; // logged where the mail is put together
    if (method == AttachMethod::embeddedMessage && budget.messages >= maxAttachedMessages) {
        KV_WARN(logger) << "more than " << maxAttachedMessages << " attached messages, " << name << " is not read";
        return;
    }
    ComPtr<IStorage> child;
    ComPtr<IStorage> object;
    HRESULT hr = storage->OpenStorage(name.c_str(), nullptr, childMode, nullptr, 0, &child);
    if (SUCCEEDED(hr))
        hr = child->OpenStorage(MsgLayout::SubstorageName(MsgLayout::attachDataObjectTag).c_str(), nullptr, childMode,
                                nullptr, 0, &object);
    if (FAILED(hr)) {
        KV_WARN(logger) << "object of attachment " << name << " can't be opened, hr=" << hr;
        return;
    }
    if (method == AttachMethod::oleObject) {
        std::string bytes;
        hr = objectBytesOf(object.Get(), bytes);
        if (FAILED(hr)) {
            KV_WARN(logger) << "OLE object of attachment " << name << " can't be copied, hr=" << hr;
            return;
        }
        attachment.objectBytes = std::move(bytes);
        return;
    }
    ++budget.messages;
    auto message = std::make_shared<EmlMessageSource>();
    hr = readMessageSource(object.Get(), true, *message);
    if (FAILED(hr)) {
        KV_WARN(logger) << "attached message in " << name << " can't be read, hr=" << hr;
        return;
    }
    readObjects(object.Get(), message->attachments, depth + 1, budget);
    // Released inner first, after its attachments' streams.
    message->owners = {object, child};
    attachment.message = std::move(message);
}

void readObjects(IStorage* storage, std::vector<EmlAttachmentSource>& attachments, int depth, ObjectBudget& budget)
{
    for (EmlAttachmentSource& attachment : attachments) {
        const uint32_t method = findStoredLong(attachment.properties, EmlPropertyId::attachMethod).value_or(0);
        // An OLE object kept as bytes has its data stream already.
        if (method == AttachMethod::embeddedMessage || (method == AttachMethod::oleObject && !attachment.dataStream))
            readObject(storage, attachment, method, depth, budget);
    }
}

} // namespace

HRESULT readEmlSourcesFromStorage(IStorage* storage, StoredProperties& message,
                                  std::vector<EmlAttachmentSource>& attachments)
{
    attachments.clear();
    EmlMessageSource source;
    RETURN_IF_FAILED(readMessageSource(storage, false, source));
    ObjectBudget budget;
    readObjects(storage, source.attachments, 0, budget);
    message = std::move(source.properties);
    attachments = std::move(source.attachments);
    return S_OK;
}

void readAttachedObjects(IStorage* storage, std::vector<EmlAttachmentSource>& attachments)
{
    if (!storage)
        return;
    ObjectBudget budget;
    readObjects(storage, attachments, 0, budget);
}
