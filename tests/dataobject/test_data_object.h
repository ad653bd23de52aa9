#pragma once
// A small data object for the data object toolkit's tests: it offers the
// media a test gives it (memory blocks, streams, storages, file names, GDI
// bitmaps), hands out a fresh medium at every GetData, and records every
// SetData exactly as it came (format, medium, release flag).
#include "common/com_ptr.h"
#include "e2e_shared/com_object.h"

#include <windows.h>
#include <objidl.h>
#include <shlobj.h>
#include <wrl/client.h>

#include <cstring>
#include <string>
#include <vector>

class TestDataObject : public ComObject<IDataObject> {
public:
    struct Offer {
        FORMATETC format;
        std::string bytes;                      // TYMED_HGLOBAL
        Microsoft::WRL::ComPtr<IUnknown> object; // TYMED_ISTREAM, TYMED_ISTORAGE
        std::wstring fileName;                  // TYMED_FILE
    };
    struct Received {
        FORMATETC format;
        STGMEDIUM medium; // released at the end when `release` was set
        BOOL release;
    };

    static Microsoft::WRL::ComPtr<TestDataObject> create()
    {
        Microsoft::WRL::ComPtr<TestDataObject> object = adoptCom(new TestDataObject());
        return object;
    }

    // ---- what it offers ----
    void offerBytes(CLIPFORMAT format, const std::string& bytes, LONG lindex = -1)
    {
        offers_.push_back(Offer{{format, nullptr, DVASPECT_CONTENT, lindex, TYMED_HGLOBAL}, bytes, nullptr, {}});
    }
    void offerText(const std::wstring& text)
    {
        offerBytes(CF_UNICODETEXT, std::string(reinterpret_cast<const char*>(text.c_str()),
                                               (text.size() + 1) * sizeof(wchar_t)));
    }
    void offerStream(CLIPFORMAT format, IStream* stream, LONG lindex = -1)
    {
        offers_.push_back(Offer{{format, nullptr, DVASPECT_CONTENT, lindex, TYMED_ISTREAM}, {}, stream, {}});
    }
    void offerStorage(CLIPFORMAT format, IStorage* storage, LONG lindex = -1)
    {
        offers_.push_back(Offer{{format, nullptr, DVASPECT_CONTENT, lindex, TYMED_ISTORAGE}, {}, storage, {}});
    }
    void offerFile(CLIPFORMAT format, const std::wstring& fileName)
    {
        offers_.push_back(Offer{{format, nullptr, DVASPECT_CONTENT, -1, TYMED_FILE}, {}, nullptr, fileName});
    }
    void offerBitmap(CLIPFORMAT format)
    {
        offers_.push_back(Offer{{format, nullptr, DVASPECT_CONTENT, -1, TYMED_GDI}, {}, nullptr, {}});
    }

    // ---- how it misbehaves ----
    HRESULT setDataResult = S_OK;    // a failure refuses SetData (nothing is kept)
    HRESULT enumResult = S_OK;       // a failure refuses EnumFormatEtc
    HRESULT getDataResult = S_OK;    // a failure refuses every GetData

    // ---- what it received ----
    const std::vector<Received>& received() const { return received_; }
    const Received* receivedFormat(CLIPFORMAT format) const
    {
        for (auto it = received_.rbegin(); it != received_.rend(); ++it) {
            if (it->format.cfFormat == format)
                return &*it;
        }
        return nullptr;
    }
    // The bytes of the last HGLOBAL set for the format; empty when none.
    std::string receivedBytes(CLIPFORMAT format) const
    {
        const Received* received = receivedFormat(format);
        if (!received || received->medium.tymed != TYMED_HGLOBAL)
            return std::string();
        return bytesOf(received->medium.hGlobal);
    }
    unsigned getDataCalls() const { return getDataCalls_; }

    static std::string bytesOf(HGLOBAL memory)
    {
        const void* data = GlobalLock(memory);
        if (!data)
            return std::string();
        std::string bytes(static_cast<const char*>(data), GlobalSize(memory));
        GlobalUnlock(memory);
        return bytes;
    }

    HRESULT STDMETHODCALLTYPE GetData(FORMATETC* format, STGMEDIUM* medium) override
    {
        ++getDataCalls_;
        if (!format || !medium)
            return E_INVALIDARG;
        *medium = STGMEDIUM{};
        if (FAILED(getDataResult))
            return getDataResult;
        const Offer* offer = find(*format);
        if (!offer)
            return DV_E_FORMATETC;
        medium->tymed = offer->format.tymed;
        switch (offer->format.tymed) {
        case TYMED_HGLOBAL:
            medium->hGlobal = GlobalAlloc(GMEM_MOVEABLE, offer->bytes.size());
            if (void* data = GlobalLock(medium->hGlobal)) {
                std::memcpy(data, offer->bytes.data(), offer->bytes.size());
                GlobalUnlock(medium->hGlobal);
            }
            return S_OK;
        case TYMED_ISTREAM:
            return offer->object.CopyTo(IID_IStream, reinterpret_cast<void**>(&medium->pstm));
        case TYMED_ISTORAGE:
            return offer->object.CopyTo(IID_IStorage, reinterpret_cast<void**>(&medium->pstg));
        case TYMED_FILE: {
            const size_t bytes = (offer->fileName.size() + 1) * sizeof(wchar_t);
            medium->lpszFileName = static_cast<LPOLESTR>(CoTaskMemAlloc(bytes));
            std::memcpy(medium->lpszFileName, offer->fileName.c_str(), bytes);
            return S_OK;
        }
        case TYMED_GDI:
            medium->hBitmap = CreateBitmap(4, 4, 1, 32, nullptr);
            return S_OK;
        default:
            return DV_E_TYMED;
        }
    }
    HRESULT STDMETHODCALLTYPE GetDataHere(FORMATETC*, STGMEDIUM*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE QueryGetData(FORMATETC* format) override
    {
        return format && find(*format) ? S_OK : DV_E_FORMATETC;
    }
    HRESULT STDMETHODCALLTYPE GetCanonicalFormatEtc(FORMATETC*, FORMATETC* out) override
    {
        if (out)
            out->ptd = nullptr;
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE SetData(FORMATETC* format, STGMEDIUM* medium, BOOL release) override
    {
        if (!format || !medium)
            return E_INVALIDARG;
        if (FAILED(setDataResult))
            return setDataResult;
        received_.push_back(Received{*format, *medium, release});
        received_.back().format.ptd = nullptr;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE EnumFormatEtc(DWORD direction, IEnumFORMATETC** formats) override
    {
        if (!formats)
            return E_POINTER;
        *formats = nullptr;
        if (FAILED(enumResult))
            return enumResult;
        if (direction != DATADIR_GET)
            return E_NOTIMPL;
        std::vector<FORMATETC> list;
        for (const Offer& offer : offers_)
            list.push_back(offer.format);
        return SHCreateStdEnumFmtEtc(static_cast<UINT>(list.size()), list.data(), formats);
    }
    HRESULT STDMETHODCALLTYPE DAdvise(FORMATETC*, DWORD, IAdviseSink*, DWORD*) override
    {
        return OLE_E_ADVISENOTSUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE DUnadvise(DWORD) override { return OLE_E_ADVISENOTSUPPORTED; }
    HRESULT STDMETHODCALLTYPE EnumDAdvise(IEnumSTATDATA**) override { return OLE_E_ADVISENOTSUPPORTED; }

protected:
    bool offers(REFIID riid) const override { return riid == IID_IDataObject; }

private:
    TestDataObject() = default;
    ~TestDataObject() override
    {
        for (Received& each : received_) {
            if (each.release)
                ReleaseStgMedium(&each.medium);
        }
    }

    const Offer* find(const FORMATETC& format) const
    {
        for (const Offer& offer : offers_) {
            if (offer.format.cfFormat == format.cfFormat && offer.format.lindex == format.lindex &&
                (offer.format.tymed & format.tymed))
                return &offer;
        }
        return nullptr;
    }

    std::vector<Offer> offers_;
    std::vector<Received> received_;
    unsigned getDataCalls_ = 0;
};
