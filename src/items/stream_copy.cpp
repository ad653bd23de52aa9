#include "items/stream_copy.h"

#include "common/hresult.h"

#include <wrl/client.h>

#include <memory>
#include <string>

namespace {

constexpr ULONG copyBufferBytes = 1024 * 1024;

// Storages nest only a few levels in a mail (an attachment holding a mail
// holding an attachment...); a deeper tree is a broken or hostile one.
constexpr int maxStorageDepth = 64;

struct StatName {
    STATSTG stat{};
    ~StatName() { CoTaskMemFree(stat.pwcsName); }
};

HRESULT copyStorageLevel(IStorage* source, IStorage* target, int depth)
{
    if (depth > maxStorageDepth)
        return STG_E_DOCFILECORRUPT;

    StatName self;
    if (SUCCEEDED(source->Stat(&self.stat, STATFLAG_NONAME))) {
        target->SetClass(self.stat.clsid);
        target->SetStateBits(self.stat.grfStateBits, 0xFFFFFFFF);
    }

    Microsoft::WRL::ComPtr<IEnumSTATSTG> elements;
    RETURN_IF_FAILED(source->EnumElements(0, nullptr, 0, &elements));
    for (;;) {
        StatName element;
        const HRESULT next = elements->Next(1, &element.stat, nullptr);
        if (next != S_OK)
            return FAILED(next) ? next : S_OK;
        const wchar_t* name = element.stat.pwcsName;
        if (element.stat.type == STGTY_STORAGE) {
            Microsoft::WRL::ComPtr<IStorage> from, to;
            RETURN_IF_FAILED(source->OpenStorage(name, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, &from));
            RETURN_IF_FAILED(target->CreateStorage(name, STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, 0, &to));
            RETURN_IF_FAILED(copyStorageLevel(from.Get(), to.Get(), depth + 1));
        } else if (element.stat.type == STGTY_STREAM) {
            Microsoft::WRL::ComPtr<IStream> from, to;
            RETURN_IF_FAILED(source->OpenStream(name, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &from));
            RETURN_IF_FAILED(target->CreateStream(name, STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, 0, &to));
            // Setting the size first lets the storage lay the stream out at once.
            to->SetSize(element.stat.cbSize);
            ULONGLONG copied = 0;
            RETURN_IF_FAILED(copyStreamBytes(from.Get(), to.Get(), element.stat.cbSize.QuadPart, copied));
            if (copied != element.stat.cbSize.QuadPart) {
                ULARGE_INTEGER actual{};
                actual.QuadPart = copied;
                to->SetSize(actual);
            }
        }
    }
}

} // namespace

HRESULT copyStreamBytes(IStream* source, IStream* target, ULONGLONG size, ULONGLONG& copied)
{
    copied = 0;
    if (!source || !target)
        return E_POINTER;
    const ULONG bufferBytes = static_cast<ULONG>(size < copyBufferBytes ? (size > 0 ? size : 1) : copyBufferBytes);
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[bufferBytes]);
    if (!buffer)
        return E_OUTOFMEMORY;
    while (copied < size) {
        const ULONG want = static_cast<ULONG>(size - copied < bufferBytes ? size - copied : bufferBytes);
        ULONG read = 0;
        const HRESULT readResult = source->Read(buffer.get(), want, &read);
        if (FAILED(readResult))
            return readResult;
        if (read == 0)
            break;
        ULONG written = 0;
        RETURN_IF_FAILED(target->Write(buffer.get(), read, &written));
        if (written != read)
            return STG_E_WRITEFAULT;
        copied += read;
    }
    return S_OK;
}

HRESULT copyStorageContents(IStorage* source, IStorage* target)
{
    if (!source || !target)
        return E_POINTER;
    return copyStorageLevel(source, target, 0);
}
