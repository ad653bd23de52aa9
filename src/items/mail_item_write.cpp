// Writing a mail item's file: the .msg copy of Outlook's storage, and the
// .eml through Redemption, Outlook's MIME converter or Korvane's own writer.
#include "items/mail_item.h"

#include "core/globals.h"
#include "items/decrypt_mail.h"
#include "core/log.h"
#include "core/outlook_application.h"
#include "common/com_variant.h"
#include "common/hresult.h"
#include "common/strings.h"
#include "items/eml_headers.h"
#include "items/eml_message.h"
#include "items/eml_properties_mapi.h"
#include "items/eml_properties_storage.h"
#include "items/eml_writer.h"
#include "items/file_beside.h"
#include "items/mapi_library.h"
#include "items/outlook_objects.h"
#include "items/compound_file_writer.h"
#include "items/stream_copy.h"

#include <shlwapi.h>

namespace {

Logger logger("MailItem");

constexpr ULONG mimeConversionFlags = CCSF_SMTP | CCSF_INCLUDE_BCC | CCSF_USE_RTF;

HRESULT writeAll(IStream* stream, const void* data, size_t size)
{
    ULONG written = 0;
    const HRESULT hr = stream->Write(data, static_cast<ULONG>(size), &written);
    if (SUCCEEDED(hr) && written != size)
        return STG_E_WRITEFAULT;
    return hr;
}

// A locked global memory block, unlocked on every way out.
class GlobalLockGuard {
public:
    explicit GlobalLockGuard(HGLOBAL memory) : memory_(memory), data_(GlobalLock(memory)) {}
    GlobalLockGuard(const GlobalLockGuard&) = delete;
    GlobalLockGuard& operator=(const GlobalLockGuard&) = delete;
    ~GlobalLockGuard()
    {
        if (data_)
            GlobalUnlock(memory_);
    }
    const char* data() const { return static_cast<const char*>(data_); }

private:
    HGLOBAL memory_;
    void* data_;
};

} // namespace

HRESULT MailItem::copyStorageToFile(const std::wstring& path)
{
    // Our own compound-file writer streams the storage out with large writes;
    // the system's docfile is the way back when it can't.
    HRESULT hr = writeCompoundFile(storage_.Get(), path);
    KV_DEBUG(logger) << "writeCompoundFile " << path << " =" << hr;
    if (SUCCEEDED(hr))
        return hr;
    KV_WARN(logger) << "compound file writer failed, hr=" << hr << ", copying through the system's storage";
    return copyStorageThroughDocfile(path);
}

HRESULT MailItem::copyStorageThroughDocfile(const std::wstring& path)
{
    return writeBesideThenMove(path, [this](const std::wstring& beside) {
        Microsoft::WRL::ComPtr<IStorage> fileStorage;
        HRESULT hr =
            StgCreateDocfile(beside.c_str(), STGM_CREATE | STGM_SHARE_EXCLUSIVE | STGM_READWRITE, 0, &fileStorage);
        KV_DEBUG(logger) << "StgCreateDocfile =" << hr << ", " << fileStorage.Get();
        if (FAILED(hr))
            return hr;
        hr = copyStorageContents(storage_.Get(), fileStorage.Get());
        KV_DEBUG(logger) << "pStorageSrc->CopyTo=" << hr;
        if (FAILED(hr))
            return hr;
        hr = fileStorage->Commit(STGC_DEFAULT);
        if (SUCCEEDED(hr)) {
            KV_DEBUG(logger) << "fileStorage->Commit OK";
        } else {
            KV_WARN(logger) << "fileStorage->Commit failed, hr=" << hr;
        }
        return hr;
    });
}

HRESULT MailItem::saveAsMsg(const std::wstring& destFileName)
{
    if (!storage_) {
        KV_DEBUG(logger) << "decrypted mail already saved.";
        return S_OK;
    }
    RETURN_IF_FAILED(copyStorageToFile(destFileName.empty() ? fileName_ : destFileName));
    releaseMessage();
    setFileTimeToReceivedAt();
    return S_OK;
}

HRESULT MailItem::saveAsEml(const std::wstring& msgFileName)
{
    const int format = settings_.getSaveWithRedemptionFormat();
    HRESULT hr = E_FAIL;
    if (format >= 0)
        hr = saveAsEmlWithRedemption(msgFileName, format);
    if (format < 0 || hr != S_OK)
        hr = saveAsEmlWithOutlook(msgFileName);
    if (FAILED(hr)) {
        // No converter here (Outlook alone has one), or it failed: the mail
        // is written from its properties.
        KV_INFO(logger) << "MIME converter not usable, hr=" << hr << ", using Korvane's MIME writer";
        hr = saveAsEmlWithOwnWriter();
    }
    return hr;
}

HRESULT MailItem::saveAsEmlWithRedemption(const std::wstring& msgFileName, int format)
{
    DecryptMail redemption(settings_);
    auto session = redemption.newRedemptionSession();
    if (!session)
        return E_FAIL;
    HRESULT hr = redemption.attachOutlookSession(session.Get(), outlookApplication().Get());
    if (FAILED(hr))
        return hr;

    // Redemption reads .msg files; the mail goes through one beside the target.
    std::wstring msgFile = msgFileName;
    const bool temporaryMsg = msgFile.empty();
    if (temporaryMsg) {
        if (!storage_)
            return E_UNEXPECTED;
        msgFile = fileName_ + L".msg";
        RETURN_IF_FAILED(copyStorageToFile(msgFile));
    }

    UniqueVariant path(msgFile);
    auto mail = callForObject(session.Get(), L"GetMessageFromMsgFile", {path.get()}, hr);
    KV_DEBUG(logger) << "GetMessageFromMsgFile, hr=" << hr;
    if (mail) {
        hr = writeBesideThenMove(fileName_, [&](const std::wstring& beside) {
            UniqueVariant target(beside);
            UniqueVariant type(static_cast<LONG>(format));
            const HRESULT saved =
                invokeByName(mail.Get(), L"SaveAs", DISPATCH_METHOD, {target.get(), type.get()}, nullptr);
            KV_DEBUG(logger) << "SaveAs " << fileName_ << ", ret=" << saved;
            return saved;
        });
    }
    mail.Reset();
    if (temporaryMsg)
        DeleteFileW(msgFile.c_str());
    return hr;
}

Microsoft::WRL::ComPtr<IConverterSession> MailItem::createConverter()
{
    Microsoft::WRL::ComPtr<IUnknown> unknown;
    Microsoft::WRL::ComPtr<IConverterSession> converter;
    HRESULT hr = CoCreateInstance(CLSID_KvConverterSession, nullptr, CLSCTX_ALL, IID_IUnknown,
                                  reinterpret_cast<void**>(unknown.GetAddressOf()));
    if (FAILED(hr)) {
        KV_WARN(logger) << "CoCreateInstance failed for CLSID_IConverterSession, hr=" << hr;
        return converter;
    }
    hr = unknown->QueryInterface(IID_KvConverterSession, reinterpret_cast<void**>(converter.GetAddressOf()));
    if (FAILED(hr)) {
        KV_WARN(logger) << "converterUnk->QueryInterface failed, hr=" << hr;
        converter.Reset();
    }
    return converter;
}

HRESULT MailItem::saveAsEmlWithOutlook(const std::wstring& msgFileName)
{
    if (!msgFileName.empty()) {
        // The decrypted mail: its properties and recipients are the ones that count.
        Microsoft::WRL::ComPtr<IStorage> decrypted;
        const HRESULT openResult =
            StgOpenStorageEx(msgFileName.c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, STGFMT_ANY, 0, nullptr, nullptr,
                             IID_IStorage, reinterpret_cast<void**>(decrypted.GetAddressOf()));
        KV_DEBUG(logger) << "StgOpenStorageEx " << msgFileName << " =" << openResult;
        if (SUCCEEDED(openResult)) {
            message_.Reset();
            storage_ = decrypted;
            readMessage();
        }
    }

    HRESULT hr = openMessage();
    if (FAILED(hr)) {
        KV_WARN(logger) << "no MAPI message for the MIME converter, hr=" << hr;
        return hr;
    }
    auto converter = createConverter();
    if (!converter)
        return REGDB_E_CLASSNOTREG;

    hr = writeEmlFile([&](IStream* target) {
        const HRESULT converted = converter->MAPIToMIMEStm(message_.Get(), target, mimeConversionFlags);
        KV_DEBUG(logger) << "to mime stream, hr=" << converted;
        return converted;
    });
    if (FAILED(hr)) {
        KV_ERROR(logger) << "converter->MAPIToMIMEStm failed for " << fileName_ << ", hr=" << hr;
    } else {
        KV_INFO(logger) << "EML of " << fileName_ << " written by Outlook's MIME converter";
    }
    return hr;
}

HRESULT MailItem::writeEmlFile(const std::function<HRESULT(IStream*)>& writeMime, ULONGLONG expectedSize)
{
    // With the address headers rewritten, the whole mail is made in memory
    // first: the file is touched only once the new bytes are there.
    Microsoft::WRL::ComPtr<IStream> memoryStream;
    if (settings_.getExtractMailAddress()) {
        KV_DEBUG(logger) << "convert to memory.";
        RETURN_IF_FAILED(CreateStreamOnHGlobal(nullptr, TRUE, &memoryStream));
        if (expectedSize > 0) {
            // A memory stream grows write by write, copying itself each time:
            // quadratic for a mail with a large attachment.
            ULARGE_INTEGER size{};
            size.QuadPart = expectedSize;
            RETURN_IF_FAILED(memoryStream->SetSize(size));
        }
        RETURN_IF_FAILED(writeMime(memoryStream.Get()));
        if (expectedSize > 0) {
            // What was written ends where the writer stopped, not where the memory does.
            ULARGE_INTEGER end{};
            RETURN_IF_FAILED(memoryStream->Seek(LARGE_INTEGER{}, STREAM_SEEK_CUR, &end));
            RETURN_IF_FAILED(memoryStream->SetSize(end));
        }
    }
    return writeBesideThenMove(fileName_, [&](const std::wstring& beside) {
        Microsoft::WRL::ComPtr<IStream> fileStream;
        const HRESULT hr = openStreamForWriting(beside, fileStream);
        if (FAILED(hr)) {
            KV_ERROR(logger) << "SHCreateStreamOnFileEx failed for fileName=" << fileName_ << ", hr=" << hr;
            return hr;
        }
        if (!memoryStream) {
            KV_DEBUG(logger) << "convert directly to file.";
            return writeMime(fileStream.Get());
        }
        return replaceEmlHeadersAndWrite(memoryStream.Get(), fileStream.Get());
    });
}

HRESULT MailItem::readEmlProperties(StoredProperties& message, std::vector<EmlAttachmentSource>& attachments)
{
    const MapiFunctions* mapi = mapiFunctions();
    if (!message_ || !mapi)
        return readEmlSourcesFromStorage(storage_.Get(), message, attachments);
    RETURN_IF_FAILED(readPropertyMapThroughMapi(message_.Get(), *mapi, emlMessageTags(), message));
    const HRESULT hr = readAttachmentsThroughMapi(message_.Get(), *mapi, emlAttachmentTags(), attachments);
    if (SUCCEEDED(hr)) {
        // Attached messages and OLE objects are read from their storages.
        readAttachedObjects(storage_.Get(), attachments);
        return hr;
    }
    // A message opened on a storage has its attachments in that storage too.
    KV_INFO(logger) << "no attachment table through MAPI, hr=" << hr << ", attachments read from the storage";
    StoredProperties unused;
    return readEmlSourcesFromStorage(storage_.Get(), unused, attachments);
}

HRESULT MailItem::saveAsEmlWithOwnWriter()
{
    if (!storage_)
        return E_UNEXPECTED;
    ensureRead();
    StoredProperties properties;
    std::vector<EmlAttachmentSource> attachments;
    HRESULT hr = readEmlProperties(properties, attachments);
    if (FAILED(hr)) {
        KV_ERROR(logger) << "properties for the EML of " << fileName_ << " can't be read, hr=" << hr << ": "
                         << storedReadProblem(hr);
        return hr;
    }
    const EmlMessage eml = collectEmlMessage(properties, std::move(attachments), properties_);
    hr = writeEmlFile([&eml](IStream* target) { return writeEml(eml, target); }, emlSizeEstimate(eml));
    if (FAILED(hr)) {
        KV_ERROR(logger) << "Korvane's MIME writer failed for " << fileName_ << ", hr=" << hr;
    } else {
        KV_INFO(logger) << "EML of " << fileName_ << " written by Korvane's MIME writer (properties through "
                        << (message_ ? L"MAPI" : L"storage") << ", " << eml.attachments.size() << " attachments, "
                        << eml.attachmentsLeftOut << " left out)";
    }
    return hr;
}

HRESULT MailItem::replaceEmlHeadersAndWrite(IStream* memoryStream, IStream* fileStream)
{
    ensureRead();
    HGLOBAL memory = nullptr;
    HRESULT hr = GetHGlobalFromStream(memoryStream, &memory);
    if (FAILED(hr)) {
        KV_ERROR(logger) << "GetHGlobalFromStream failed, hr=" << hr;
        return hr;
    }
    // The block may be larger than what the converter wrote; the stream knows.
    STATSTG stat{};
    RETURN_IF_FAILED(memoryStream->Stat(&stat, STATFLAG_NONAME));
    const size_t size = static_cast<size_t>(std::min<ULONGLONG>(stat.cbSize.QuadPart, GlobalSize(memory)));

    std::string headers;
    size_t bodyOffset = 0;
    {
        GlobalLockGuard lock(memory);
        if (!lock.data())
            return E_OUTOFMEMORY;
        const EmlSplit split = splitEmlHeaders(std::string_view(lock.data(), size));
        if (!split.found) {
            KV_WARN(logger) << "no end of the header block, the mail is written unchanged";
            bodyOffset = 0;
        } else {
            KV_DEBUG(logger) << "old EML headers -----";
            KV_DEBUG(logger) << widen(split.headers);
            KV_DEBUG(logger) << "-----------------";
            headers = rewriteAddressHeaders(split.headers, properties_.sender, properties_.to, properties_.cc,
                                            properties_.bcc, settings_.getExtractMailAddress());
            KV_DEBUG(logger) << "new EML headers -----";
            KV_DEBUG(logger) << widen(headers);
            KV_DEBUG(logger) << "-----------------";
            bodyOffset = split.bodyOffset;
        }
    }

    KV_DEBUG(logger) << "write new headers, #bytes=" << headers.size();
    hr = writeAll(fileStream, headers.data(), headers.size());
    if (FAILED(hr)) {
        KV_ERROR(logger) << "Failed to write stream, hr=" << hr;
        return hr;
    }

    LARGE_INTEGER bodyPosition{};
    bodyPosition.QuadPart = static_cast<LONGLONG>(bodyOffset);
    KV_DEBUG(logger) << "move memoryStream to body pos=" << bodyOffset;
    RETURN_IF_FAILED(memoryStream->Seek(bodyPosition, STREAM_SEEK_SET, nullptr));
    ULONGLONG remaining = size - bodyOffset;
    while (remaining > 0) {
        ULARGE_INTEGER count{}, read{}, written{};
        count.QuadPart = remaining;
        KV_DEBUG(logger) << "write body, #bytes=" << remaining;
        hr = memoryStream->CopyTo(fileStream, count, &read, &written);
        KV_DEBUG(logger) << "#written=" << written.QuadPart;
        if (FAILED(hr) || written.QuadPart == 0) {
            KV_ERROR(logger) << "Failed to write stream, hr=" << hr;
            return FAILED(hr) ? hr : STG_E_WRITEFAULT;
        }
        remaining -= std::min<ULONGLONG>(remaining, written.QuadPart);
    }
    return fileStream->Commit(STGC_DEFAULT);
}
