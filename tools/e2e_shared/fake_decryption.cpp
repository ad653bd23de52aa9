#include "e2e_shared/fake_decryption.h"

#include "core/log.h"
#include "common/hresult.h"
#include "items/msg_layout.h"
#include "items/property_text.h"

#include <objbase.h>
#include <wrl/client.h>

#include <algorithm>
#include <cstring>
#include <string>

using Microsoft::WRL::ComPtr;

namespace {

const Logger logger("FakeDecryption");

constexpr uint16_t messageClassId = 0x001A;
constexpr DWORD childMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
constexpr size_t maxClassBytes = 4096;

HRESULT readStream(IStream* stream, std::string& bytes)
{
    bytes.assign(maxClassBytes + 1, '\0');
    ULONG read = 0;
    RETURN_IF_FAILED(stream->Read(bytes.data(), static_cast<ULONG>(bytes.size()), &read));
    bytes.resize(std::min<size_t>(read, bytes.size()));
    return bytes.size() > maxClassBytes ? STG_E_DOCFILECORRUPT : S_OK;
}

HRESULT overwriteStream(IStream* stream, const std::string& bytes)
{
    RETURN_IF_FAILED(stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_SET, nullptr));
    ULARGE_INTEGER size{};
    size.QuadPart = bytes.size();
    RETURN_IF_FAILED(stream->SetSize(size));
    ULONG written = 0;
    RETURN_IF_FAILED(stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written));
    return written == bytes.size() ? stream->Commit(STGC_DEFAULT) : STG_E_WRITEFAULT;
}

// The entry of the class in the properties stream records the value's size
// (terminator counted); it must follow the new text.
HRESULT updateEntrySize(IStorage* message, uint32_t tag, uint32_t size)
{
    ComPtr<IStream> stream;
    RETURN_IF_FAILED(message->OpenStream(MsgLayout::propertiesStream, nullptr, childMode, 0, &stream));
    STATSTG stat{};
    RETURN_IF_FAILED(stream->Stat(&stat, STATFLAG_NONAME));
    const ULONGLONG total = stat.cbSize.QuadPart;
    for (ULONGLONG at = MsgLayout::messageHeaderSize; at + MsgLayout::entrySize <= total; at += MsgLayout::entrySize) {
        LARGE_INTEGER offset{};
        offset.QuadPart = static_cast<LONGLONG>(at);
        RETURN_IF_FAILED(stream->Seek(offset, STREAM_SEEK_SET, nullptr));
        char entry[MsgLayout::entrySize] = {};
        ULONG read = 0;
        RETURN_IF_FAILED(stream->Read(entry, sizeof entry, &read));
        if (read != sizeof entry)
            return STG_E_DOCFILECORRUPT;
        uint32_t entryTag = 0;
        std::memcpy(&entryTag, entry, 4);
        if (entryTag != tag)
            continue;
        offset.QuadPart = static_cast<LONGLONG>(at + 8);
        RETURN_IF_FAILED(stream->Seek(offset, STREAM_SEEK_SET, nullptr));
        ULONG written = 0;
        RETURN_IF_FAILED(stream->Write(&size, sizeof size, &written));
        return stream->Commit(STGC_DEFAULT);
    }
    return S_OK;
}

// Rewrites the class stream of one string type, if the copy has it.
HRESULT markClassDecrypted(IStorage* message, uint16_t type)
{
    const uint32_t tag = (uint32_t(messageClassId) << 16) | type;
    ComPtr<IStream> stream;
    HRESULT hr = message->OpenStream(MsgLayout::substorageStreamName(tag).c_str(), nullptr, childMode, 0, &stream);
    if (hr == STG_E_FILENOTFOUND)
        return S_FALSE;
    RETURN_IF_FAILED(hr);
    std::string bytes;
    RETURN_IF_FAILED(readStream(stream.Get(), bytes));
    const std::wstring messageClass = propertyText(tag, bytes);
    if (messageClass.find(L".SMIME") == std::wstring::npos) {
        KV_DEBUG(logger) << "class " << messageClass << " is not encrypted, left as it is";
        return S_OK;
    }
    const std::wstring plain = L"IPM.Note";
    std::string newBytes;
    if (type == PropertyType::Unicode)
        newBytes.assign(reinterpret_cast<const char*>(plain.data()), plain.size() * sizeof(wchar_t));
    else
        newBytes.assign(plain.begin(), plain.end());
    RETURN_IF_FAILED(overwriteStream(stream.Get(), newBytes));
    stream.Reset();
    const auto size = static_cast<uint32_t>(newBytes.size() + MsgLayout::terminatorSizeOf(type));
    RETURN_IF_FAILED(updateEntrySize(message, tag, size));
    KV_DEBUG(logger) << "class " << messageClass << " becomes " << plain;
    return S_OK;
}

HRESULT copyStorage(const std::wstring& sourcePath, const std::wstring& targetPath, ComPtr<IStorage>& target)
{
    ComPtr<IStorage> source;
    HRESULT hr = StgOpenStorageEx(sourcePath.c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, STGFMT_ANY, 0, nullptr,
                                  nullptr, IID_IStorage, reinterpret_cast<void**>(source.GetAddressOf()));
    if (FAILED(hr)) {
        KV_WARN(logger) << "StgOpenStorageEx failed for " << sourcePath << ", hr=" << hr;
        return hr;
    }
    hr = StgCreateDocfile(targetPath.c_str(), STGM_CREATE | STGM_SHARE_EXCLUSIVE | STGM_READWRITE, 0, &target);
    if (FAILED(hr)) {
        KV_WARN(logger) << "StgCreateDocfile failed for " << targetPath << ", hr=" << hr;
        return hr;
    }
    hr = source->CopyTo(0, nullptr, nullptr, target.Get());
    if (FAILED(hr))
        KV_WARN(logger) << "CopyTo " << targetPath << " failed, hr=" << hr;
    return hr;
}

} // namespace

HRESULT copyMsgFile(const std::wstring& sourceMsgPath, const std::wstring& targetMsgPath)
{
    ComPtr<IStorage> target;
    RETURN_IF_FAILED(copyStorage(sourceMsgPath, targetMsgPath, target));
    return target->Commit(STGC_DEFAULT);
}

HRESULT writeDecryptedCopy(const std::wstring& encryptedMsgPath, const std::wstring& decryptedMsgPath)
{
    ComPtr<IStorage> target;
    RETURN_IF_FAILED(copyStorage(encryptedMsgPath, decryptedMsgPath, target));
    RETURN_IF_FAILED(markClassDecrypted(target.Get(), PropertyType::Unicode));
    RETURN_IF_FAILED(markClassDecrypted(target.Get(), PropertyType::String8));
    return target->Commit(STGC_DEFAULT);
}
