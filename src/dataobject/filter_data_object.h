#pragma once
// A data object wrapper that hides a set of formats, serves plain text of its
// own, and never gives text to the SAP logon pad; and the enumerator of the
// formats that pass.
#include <objidl.h>
#include <wrl/client.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "items/dd_item.h"

class MyDataObjectFilterFormat final : public IDataObject {
public:
    // Resets the drop-target tracker: a new drag begins.
    // `items` is only kept alive: the drag's files live as long as the object.
    MyDataObjectFilterFormat(IDataObject* inner, std::set<CLIPFORMAT> filteredFormats, std::wstring text = L"",
                             std::shared_ptr<DDItems> items = nullptr);

    void setText(const std::wstring& text) { text_ = text; }
    bool isEnabled(CLIPFORMAT format) const;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override;
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;
    HRESULT STDMETHODCALLTYPE GetData(FORMATETC* format, STGMEDIUM* medium) override;
    HRESULT STDMETHODCALLTYPE GetDataHere(FORMATETC* format, STGMEDIUM* medium) override;
    HRESULT STDMETHODCALLTYPE QueryGetData(FORMATETC* format) override;
    HRESULT STDMETHODCALLTYPE GetCanonicalFormatEtc(FORMATETC* in, FORMATETC* out) override;
    HRESULT STDMETHODCALLTYPE SetData(FORMATETC* format, STGMEDIUM* medium, BOOL release) override;
    HRESULT STDMETHODCALLTYPE EnumFormatEtc(DWORD direction, IEnumFORMATETC** enumerator) override;
    HRESULT STDMETHODCALLTYPE DAdvise(FORMATETC* format, DWORD flags, IAdviseSink* sink, DWORD* connection) override;
    HRESULT STDMETHODCALLTYPE DUnadvise(DWORD connection) override;
    HRESULT STDMETHODCALLTYPE EnumDAdvise(IEnumSTATDATA** enumerator) override;

private:
    ~MyDataObjectFilterFormat() = default;

    LONG references_ = 1;
    Microsoft::WRL::ComPtr<IDataObject> inner_;
    std::wstring text_;
    std::set<CLIPFORMAT> filteredFormats_;
    std::shared_ptr<DDItems> items_;
};

class MyEnumFORMATETC final : public IEnumFORMATETC {
public:
    explicit MyEnumFORMATETC(std::vector<FORMATETC> formats, size_t index = 0);

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override;
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;
    HRESULT STDMETHODCALLTYPE Next(ULONG count, FORMATETC* formats, ULONG* fetched) override;
    HRESULT STDMETHODCALLTYPE Skip(ULONG count) override;
    HRESULT STDMETHODCALLTYPE Reset() override;
    HRESULT STDMETHODCALLTYPE Clone(IEnumFORMATETC** clone) override;

private:
    ~MyEnumFORMATETC();

    LONG references_ = 1;
    std::vector<FORMATETC> formats_; // each ptd owned (CoTaskMemAlloc copies)
    size_t index_;
};
