#include "support/faulty_storage.h"

#include "common/com_ptr.h"
#include "e2e_shared/com_object.h"

#include <algorithm>
#include <cstring>

using Microsoft::WRL::ComPtr;

namespace {

#define REFUSED(signature) \
    HRESULT STDMETHODCALLTYPE signature override { return STG_E_ACCESSDENIED; }

class FaultyStream final : public ComObject<IStream> {
public:
    FaultyStream(ComPtr<IStream> real, const StorageFaults& faults) : real_(std::move(real)), faults_(faults) {}

    HRESULT STDMETHODCALLTYPE Read(void* buffer, ULONG size, ULONG* read) override
    {
        ULONG got = 0;
        if (delivered_ >= faults_.failAfterBytes)
            return STG_E_READFAULT;
        ULONG want = static_cast<ULONG>(std::min<ULONGLONG>(size, faults_.failAfterBytes - delivered_));
        if (faults_.maxBytesPerRead)
            want = std::min(want, faults_.maxBytesPerRead);
        const HRESULT hr = real_->Read(buffer, want, &got);
        delivered_ += got;
        if (read)
            *read = got ? got + faults_.readOverclaim : 0;
        return hr;
    }
    HRESULT STDMETHODCALLTYPE Write(const void* buffer, ULONG size, ULONG* written) override
    {
        ULONG put = 0;
        if (taken_ >= faults_.failWritesAfterBytes)
            return STG_E_MEDIUMFULL;
        const HRESULT hr =
            real_->Write(buffer, static_cast<ULONG>(std::min<ULONGLONG>(size, faults_.failWritesAfterBytes - taken_)),
                         &put);
        taken_ += put;
        if (written)
            *written = put;
        return hr;
    }
    HRESULT STDMETHODCALLTYPE Stat(STATSTG* stat, DWORD flags) override
    {
        const HRESULT hr = FAILED(faults_.statFailure) ? faults_.statFailure : real_->Stat(stat, flags);
        if (SUCCEEDED(hr))
            stat->cbSize.QuadPart += faults_.statExtraBytes;
        return hr;
    }
    HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* at) override
    {
        return real_->Seek(move, origin, at);
    }
    HRESULT STDMETHODCALLTYPE Commit(DWORD flags) override { return real_->Commit(flags); }
    // Callers copy through Read and Write, where the faults are.
    REFUSED(CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*))
    HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER size) override { return real_->SetSize(size); }
    REFUSED(Revert())
    REFUSED(LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD))
    REFUSED(UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD))
    REFUSED(Clone(IStream**))

private:
    bool offers(REFIID iid) const override { return iid == IID_IStream || iid == IID_ISequentialStream; }

    ComPtr<IStream> real_;
    StorageFaults faults_;
    ULONGLONG delivered_ = 0, taken_ = 0;
};

// The real elements, with one of them under another name.
class RenamingEnumerator final : public ComObject<IEnumSTATSTG> {
public:
    RenamingEnumerator(ComPtr<IEnumSTATSTG> real, const StorageFaults& faults) : real_(std::move(real)), faults_(faults)
    {
    }
    HRESULT STDMETHODCALLTYPE Next(ULONG count, STATSTG* elements, ULONG* fetched) override
    {
        ULONG got = 0;
        const HRESULT hr = real_->Next(count, elements, &got);
        for (ULONG i = 0; i < got; ++i) {
            if (elements[i].pwcsName && faults_.renamedFrom == elements[i].pwcsName) {
                CoTaskMemFree(elements[i].pwcsName);
                const size_t bytes = (faults_.renamedTo.size() + 1) * sizeof(wchar_t);
                elements[i].pwcsName = static_cast<wchar_t*>(CoTaskMemAlloc(bytes));
                std::memcpy(elements[i].pwcsName, faults_.renamedTo.c_str(), bytes);
            }
        }
        if (fetched)
            *fetched = got;
        return hr;
    }
    HRESULT STDMETHODCALLTYPE Skip(ULONG count) override { return real_->Skip(count); }
    HRESULT STDMETHODCALLTYPE Reset() override { return real_->Reset(); }
    REFUSED(Clone(IEnumSTATSTG**))

private:
    bool offers(REFIID iid) const override { return iid == IID_IEnumSTATSTG; }

    ComPtr<IEnumSTATSTG> real_;
    StorageFaults faults_;
};

class FaultyStorage final : public ComObject<IStorage> {
public:
    FaultyStorage(ComPtr<IStorage> real, const StorageFaults& faults, bool active)
        : real_(std::move(real)), faults_(faults), active_(active)
    {
    }

    HRESULT STDMETHODCALLTYPE OpenStream(const OLECHAR* name, void*, DWORD mode, DWORD, IStream** stream) override
    {
        ComPtr<IStream> real;
        const HRESULT hr = real_->OpenStream(realName(name), nullptr, mode, 0, &real);
        *stream = nullptr;
        if (FAILED(hr))
            return hr;
        if (!active_ || (!faults_.onlyStream.empty() && faults_.onlyStream != name))
            *stream = real.Detach();
        else
            *stream = new FaultyStream(real, faults_);
        return hr;
    }
    HRESULT STDMETHODCALLTYPE OpenStorage(const OLECHAR* name, IStorage*, DWORD mode, SNB, DWORD,
                                          IStorage** storage) override
    {
        ComPtr<IStorage> real;
        const HRESULT hr = real_->OpenStorage(realName(name), nullptr, mode, nullptr, 0, &real);
        *storage = nullptr;
        if (SUCCEEDED(hr))
            *storage = new FaultyStorage(real, faults_, faults_.onlyInside.empty() || faults_.onlyInside == name);
        return hr;
    }
    HRESULT STDMETHODCALLTYPE EnumElements(DWORD, void*, DWORD, IEnumSTATSTG** elements) override
    {
        *elements = nullptr;
        if (FAILED(faults_.enumFailure))
            return faults_.enumFailure;
        ComPtr<IEnumSTATSTG> real;
        const HRESULT hr = real_->EnumElements(0, nullptr, 0, &real);
        if (SUCCEEDED(hr))
            *elements = new RenamingEnumerator(real, faults_);
        return hr;
    }
    HRESULT STDMETHODCALLTYPE Stat(STATSTG* stat, DWORD flags) override { return real_->Stat(stat, flags); }
    HRESULT STDMETHODCALLTYPE Commit(DWORD flags) override { return real_->Commit(flags); }
    HRESULT STDMETHODCALLTYPE Revert() override { return real_->Revert(); }
    REFUSED(CreateStream(const OLECHAR*, DWORD, DWORD, DWORD, IStream**))
    REFUSED(CreateStorage(const OLECHAR*, DWORD, DWORD, DWORD, IStorage**))
    REFUSED(CopyTo(DWORD, const IID*, SNB, IStorage*))
    REFUSED(MoveElementTo(const OLECHAR*, IStorage*, const OLECHAR*, DWORD))
    REFUSED(DestroyElement(const OLECHAR*))
    REFUSED(RenameElement(const OLECHAR*, const OLECHAR*))
    REFUSED(SetElementTimes(const OLECHAR*, const FILETIME*, const FILETIME*, const FILETIME*))
    REFUSED(SetClass(REFCLSID))
    REFUSED(SetStateBits(DWORD, DWORD))

private:
    bool offers(REFIID iid) const override { return iid == IID_IStorage; }

    const OLECHAR* realName(const OLECHAR* name) const
    {
        return name && !faults_.renamedTo.empty() && faults_.renamedTo == name ? faults_.renamedFrom.c_str() : name;
    }

    ComPtr<IStorage> real_;
    StorageFaults faults_;
    bool active_; // whether this storage's streams misbehave
};

} // namespace

ComPtr<IStorage> wrapWithFaults(IStorage* real, const StorageFaults& faults)
{
    ComPtr<IStorage> wrapper;
    wrapper = adoptCom(new FaultyStorage(real, faults, faults.onlyInside.empty()));
    return wrapper;
}

ComPtr<IStream> wrapStreamWithFaults(IStream* real, const StorageFaults& faults)
{
    ComPtr<IStream> wrapper;
    wrapper = adoptCom(new FaultyStream(real, faults));
    return wrapper;
}
