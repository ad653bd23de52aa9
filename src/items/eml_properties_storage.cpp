#include "items/eml_properties_storage.h"

#include "addin/log.h"
#include "items/msg_layout.h"
#include "items/property_text.h"

namespace {

const Logger logger("MailItem");

constexpr uint32_t attachDataBinTag = 0x37010102;
constexpr DWORD childMode = STGM_READ | STGM_SHARE_EXCLUSIVE;

} // namespace

HRESULT readEmlSourcesFromStorage(IStorage* storage, StoredProperties& message,
                                  std::vector<EmlAttachmentSource>& attachments)
{
    attachments.clear();
    StoredMessage stored;
    StoredReadLimits limits;
    limits.readAttachmentData = false;
    const HRESULT hr = readStoredMessage(storage, stored, limits);
    if (FAILED(hr))
        return hr;
    for (const SkippedValue& skipped : stored.skipped) {
        KV_WARN(logger) << "left out of the .eml: " << (skipped.where.empty() ? L"message" : skipped.where.c_str())
                        << " value 0x" << MsgLayout::hex8(skipped.tag) << ", hr=" << skipped.hr;
    }
    message = std::move(stored.properties);
    for (size_t i = 0; i < stored.attachments.size(); ++i) {
        EmlAttachmentSource source;
        source.properties = std::move(stored.attachments[i]);
        if (source.properties.count(propertyIdOf(attachDataBinTag)) && i < stored.attachmentNames.size()) {
            // Listed, not read: opened here and read while the mail is written.
            source.properties.erase(propertyIdOf(attachDataBinTag));
            Microsoft::WRL::ComPtr<IStorage> child;
            HRESULT openHr = storage->OpenStorage(stored.attachmentNames[i].c_str(), nullptr, childMode, nullptr, 0,
                                                  &child);
            if (SUCCEEDED(openHr))
                openHr = child->OpenStream(MsgLayout::SubstorageName(attachDataBinTag).c_str(), nullptr, childMode, 0,
                                           &source.dataStream);
            if (SUCCEEDED(openHr)) {
                source.dataOwner = child;
            } else {
                source.dataStream.Reset();
                KV_WARN(logger) << "data of " << stored.attachmentNames[i] << " can't be opened, hr=" << openHr;
            }
        }
        attachments.push_back(std::move(source));
    }
    return S_OK;
}
