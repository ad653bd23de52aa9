#include "items/mail_item.h"

#include "core/globals.h"
#include "items/decrypt_mail.h"
#include "core/log.h"
#include "core/outlook_application.h"
#include "items/exchange_address.h"
#include "items/file_beside.h"
#include "items/mapi_library.h"
#include "common/unique_resource.h"

#include <mapicode.h>

#include <mapitags.h>
#include <shlwapi.h>

#include <cstdio>
#include <sstream>

namespace {

Logger logger("MailItem");

std::wstring blanks(int count)
{
    return std::wstring(static_cast<size_t>(count), L' ');
}

void writeAddressArray(std::wostream& out, const wchar_t* key, const std::vector<MailAddress>& addresses, int indent)
{
    if (addresses.empty()) {
        out << blanks(indent) << L"\"" << key << L"\" : []";
        return;
    }
    out << blanks(indent) << L"\"" << key << L"\" :" << std::endl;
    out << blanks(indent + 2) << L"[" << std::endl;
    for (size_t i = 0; i < addresses.size(); ++i) {
        const int m = indent + 4;
        out << blanks(m) << L"{" << std::endl;
        writeJsonValue(out, L"name", addresses[i].name, m + 2);
        out << L"," << std::endl;
        writeJsonValue(out, L"address", addresses[i].mailAddress, m + 2);
        out << std::endl;
        out << blanks(m) << L"}" << (i + 1 < addresses.size() ? L"," : L"") << std::endl;
    }
    out << blanks(indent + 2) << L"]";
}

bool replaceExtension(std::wstring& path, const std::wstring& extension)
{
    const size_t dot = path.find_last_of(L'.');
    const size_t separator = path.find_last_of(L"\\/");
    if (dot == std::wstring::npos || (separator != std::wstring::npos && dot < separator))
        path += extension;
    else
        path.replace(dot, std::wstring::npos, extension);
    return true;
}

void deleteTemporaryFile(const std::wstring& path)
{
    if (!DeleteFileW(path.c_str()) && GetLastError() != ERROR_FILE_NOT_FOUND) {
        KV_WARN(logger) << "Failed to delete " << path << ", error=" << GetLastError();
    }
}

} // namespace

MailItem::MailItem(std::wstring fileName, IStorage* storage, Globals& settings)
    : DDItem(std::move(fileName)), settings_(settings), storage_(storage)
{
    if (settings_.getFormat() == L"eml")
        replaceExtension(fileName_, L".eml");
}

MailItem::~MailItem()
{
    releaseMessage();
}

void MailItem::releaseMessage()
{
    message_.Reset();
    storage_.Reset();
}

HRESULT MailItem::openMessage()
{
    if (message_)
        return S_OK;
    if (!storage_)
        return E_UNEXPECTED;
    const MapiFunctions* mapi = mapiFunctions();
    if (!mapi)
        return MAPI_E_NOT_INITIALIZED;
    LPMALLOC allocator = mapi->getDefaultMalloc();
    if (!allocator) {
        KV_ERROR(logger) << "MAPIGetDefaultMalloc failed";
        return E_OUTOFMEMORY;
    }
    const DWORD start = GetTickCount();
    const HRESULT hr = mapi->openIMsgOnIStg(nullptr, mapi->allocateBuffer, mapi->allocateMore, mapi->freeBuffer,
                                            allocator, nullptr, storage_.Get(), nullptr, 0, 0, &message_);
    KV_DEBUG(logger) << "open message, ms=" << (GetTickCount() - start) << ", hr=" << hr;
    if (FAILED(hr))
        message_.Reset();
    return hr;
}

HRESULT MailItem::readMessage()
{
    HRESULT hr = openMessage();
    // Once the storage is gone there is nothing to read from: what was read
    // before stays.
    if (!message_ && !storage_)
        return hr;
    properties_ = MailProperties{};
    if (message_) {
        readWay_ = L"MAPI";
        KV_DEBUG(logger) << "read message through MAPI";
        const HRESULT propertiesResult = readProperties();
        KV_DEBUG(logger) << "readProperties=" << propertiesResult;
        hr = readRecipients();
    } else {
        // No Extended MAPI here (or it can't open this message): the .msg
        // storage has the same properties in its own streams.
        readWay_ = L"storage";
        KV_INFO(logger) << "read message from its storage, MAPI hr=" << hr;
        hr = readPropertiesFromStorage(storage_.Get(), properties_);
    }
    resolveExchangeAddresses();
    KV_DEBUG(logger) << "subject=" << properties_.subject;
    KV_DEBUG(logger) << "receivedAtIso=" << properties_.receivedAtIso;
    KV_DEBUG(logger) << "sender=" << properties_.sender.name << " <" << properties_.sender.mailAddress << ">";
    KV_DEBUG(logger) << "messageClass=" << properties_.messageClass;
    return hr;
}

HRESULT MailItem::readProperties()
{
    const MapiFunctions* mapi = mapiFunctions();
    if (!message_ || !mapi)
        return E_UNEXPECTED;
    return readPropertiesThroughMapi(message_.Get(), *mapi, properties_);
}

HRESULT MailItem::readRecipients()
{
    const MapiFunctions* mapi = mapiFunctions();
    if (!message_ || !mapi)
        return E_UNEXPECTED;
    return readRecipientsThroughMapi(message_.Get(), *mapi, properties_);
}

void MailItem::resolveExchangeAddresses()
{
    auto resolve = [](MailAddress& address) {
        if (address.addrType == L"EX")
            address.mailAddress = getMailAddressFromExchange(outlookApplication().Get(), address.entryId);
    };
    resolve(properties_.sender);
    for (auto* list : {&properties_.to, &properties_.cc, &properties_.bcc}) {
        for (MailAddress& address : *list)
            resolve(address);
    }
}

void MailItem::ensureRead()
{
    if (properties_.subject.empty() && (message_ || storage_))
        readMessage();
}

bool MailItem::isEncrypted() const
{
    return properties_.messageClass.find(L".SMIME") != std::wstring::npos;
}

HRESULT MailItem::setSecurityFlagDecrypted()
{
    HRESULT hr = openMessage();
    if (FAILED(hr))
        return hr;
    SPropValue security{};
    security.ulPropTag = PROP_TAG(PT_LONG, 0x0034); // PR_SECURITY
    security.Value.l = 0;
    hr = message_->SetProps(1, &security, nullptr);
    if (FAILED(hr))
        return hr;
    return message_->SaveChanges(KEEP_OPEN_READWRITE);
}

HRESULT MailItem::save()
{
    const DWORD start = GetTickCount();
    if (saved_) {
        KV_DEBUG(logger) << "already saved";
        return S_OK;
    }
    const bool eml = settings_.getFormat() == L"eml";
    HRESULT hr = S_OK;
    bool encrypted = false;
    std::wstring decryptedFileName;

    // Read while the storage is there, whatever the settings: the file time
    // is the received time, and the item list's text is asked for after the
    // storage is gone when the files are written at once.
    ensureRead();
    if (settings_.getDecryptEnabled()) {
        encrypted = isEncrypted();
        KV_DEBUG(logger) << "isEncrypted=" << encrypted;
    }
    if (encrypted) {
        decryptedFileName = eml ? fileName_ + L".decrypted.msg" : fileName_;
        const std::wstring encryptedFileName = fileName_ + L".encrypted.msg";
        hr = saveAsMsg(encryptedFileName);
        KV_DEBUG(logger) << "release objects of encrypted mail";
        releaseMessage();
        if (SUCCEEDED(hr)) {
            KV_DEBUG(logger) << "call decryptMailItem";
            hr = writeBesideThenMove(decryptedFileName, [&](const std::wstring& beside) {
                return DecryptMail(settings_).decryptMailItem(settings_.getDecryptWithRedemption(),
                                                              outlookApplication().Get(), encryptedFileName, beside);
            });
        }
        if (FAILED(hr)) {
            KV_ERROR(logger) << "Failed to decrypt " << fileName_ << ", hr=" << hr;
        } else {
            KV_DEBUG(logger) << "decryptMailItem succ";
        }
        deleteTemporaryFile(encryptedFileName);
        if (FAILED(hr)) {
            // Nothing half-written stays under the name the drop target sees.
            deleteTemporaryFile(fileName_);
            if (eml)
                deleteTemporaryFile(decryptedFileName);
            saved_ = true;
            KV_ERROR(logger) << "save \"" << fileName_ << "\" failed, ms=" << (GetTickCount() - start)
                             << ", hr=" << hr;
            return hr;
        }
    }

    KV_DEBUG(logger) << "save as EML or MSG";
    if (eml)
        hr = saveAsEml(encrypted ? decryptedFileName : L"");
    else
        hr = saveAsMsg(L"");
    // Closes the decrypted .msg too, which the converter read from.
    releaseMessage();
    if (eml && encrypted)
        deleteTemporaryFile(decryptedFileName);
    if (SUCCEEDED(hr))
        setFileTimeToReceivedAt();

    if (settings_.getTempFileReadOnly()) {
        const DWORD attributes = GetFileAttributesW(fileName_.c_str());
        const BOOL succ = attributes != INVALID_FILE_ATTRIBUTES &&
                          SetFileAttributesW(fileName_.c_str(), attributes | FILE_ATTRIBUTE_READONLY);
        KV_DEBUG(logger) << "SetFileAttributes read-only, succ=" << succ;
    }
    saved_ = true;
    if (SUCCEEDED(hr)) {
        KV_INFO(logger) << "save \"" << fileName_ << "\" succeeded, ms=" << (GetTickCount() - start) << ", hr=" << hr;
    } else {
        KV_ERROR(logger) << "save \"" << fileName_ << "\" failed, ms=" << (GetTickCount() - start) << ", hr=" << hr;
    }
    return hr;
}

HRESULT MailItem::prepareFile()
{
    if (saved_) {
        KV_DEBUG(logger) << "already saved";
        return S_OK;
    }
    // One zero byte, never an empty file: some targets skip empty files.
    UniqueFile file(CreateFileW(fileName_.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                FILE_ATTRIBUTE_NORMAL, nullptr));
    KV_DEBUG(logger) << "opened " << fileName_ << ", err=" << (file ? 0 : GetLastError());
    if (file) {
        LARGE_INTEGER one{};
        one.QuadPart = 1;
        BOOL succ = SetFilePointerEx(file.get(), one, nullptr, FILE_BEGIN);
        KV_DEBUG(logger) << "SetFilePointerEx, succ=" << succ << ", err=" << GetLastError();
        succ = SetEndOfFile(file.get());
        KV_DEBUG(logger) << "SetEndOfFile, succ=" << succ << ", err=" << GetLastError();
    }
    return S_OK;
}

void MailItem::writeJson(std::wostream& out, int indent)
{
    ensureRead();
    DDItem::writeJson(out, indent);
    out << L"," << std::endl;
    writeJsonValue(out, L"subject", properties_.subject, indent);
    out << L"," << std::endl;
    writeJsonValue(out, L"receivedAtIso", properties_.receivedAtIso, indent);
    out << L"," << std::endl;
    writeJsonValue(out, L"senderMailAddress", properties_.sender.mailAddress, indent);
    out << L"," << std::endl;
    writeJsonValue(out, L"senderName", properties_.sender.name, indent);
    out << L"," << std::endl;
    writeAddressArray(out, L"receivers", properties_.to, indent);
    out << L"," << std::endl;
    writeAddressArray(out, L"cc", properties_.cc, indent);
    out << L"," << std::endl;
    writeAddressArray(out, L"bcc", properties_.bcc, indent);
    out << L"," << std::endl;
}

void MailItem::setFileTimeToReceivedAt()
{
    if (properties_.receivedAtIso.empty())
        return;
    SYSTEMTIME time{};
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (swscanf(properties_.receivedAtIso.c_str(), L"%d-%d-%dT%d:%d:%dZ", &year, &month, &day, &hour, &minute,
                &second) != 6) {
        KV_WARN(logger) << "receivedAtIso not understood: " << properties_.receivedAtIso;
        return;
    }
    time.wYear = static_cast<WORD>(year);
    time.wMonth = static_cast<WORD>(month);
    time.wDay = static_cast<WORD>(day);
    time.wHour = static_cast<WORD>(hour);
    time.wMinute = static_cast<WORD>(minute);
    time.wSecond = static_cast<WORD>(second);
    FILETIME fileTime{};
    UniqueFile file;
    if (SystemTimeToFileTime(&time, &fileTime))
        file.reset(CreateFileW(fileName_.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                               FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file || !SetFileTime(file.get(), &fileTime, &fileTime, &fileTime)) {
        KV_WARN(logger) << "Assign received date to " << fileName_ << " failed, err=" << GetLastError();
        return;
    }
    FILETIME written{};
    GetFileTime(file.get(), nullptr, nullptr, &written);
    if (logger.isDebugEnabled()) {
        LogLine line = logger.debug(__LINE__);
        line << "file time of " << fileName_ << " is ";
        std::wostringstream text;
        writeFileTime(text, written);
        line << text.str();
    }
}
