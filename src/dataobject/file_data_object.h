#pragma once
// The add-in's own data object over real files, for systems whose shell
// cannot make one (SHCreateDataObject missing or a stub). Like the shell's, it
// renders CF_HDROP, "Shell IDList Array", "FileName" and "FileNameW" for its
// files, keeps whatever SetData gives it, and hands every other format to an
// inner data object.
#include <objidl.h>
#include <wrl/client.h>

#include <vector>

#include "dataobject/data_object_writer.h"

class FileDataObject final : public IDataObject {
public:
    // `inner` may be null; `paths` are the files it offers, in order.
    FileDataObject(IDataObject* inner, PathList paths);

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
    // A format given by SetData with the medium this object now owns.
    struct StoredFormat {
        FORMATETC format; // ptd owned
        STGMEDIUM medium;
    };

    ~FileDataObject();

    StoredFormat* findStored(const FORMATETC& format);
    bool rendersFormat(CLIPFORMAT format) const;
    std::vector<FORMATETC> renderedFormats() const;
    HRESULT queryRendered(const FORMATETC& format) const;
    HGLOBAL render(CLIPFORMAT format) const;

    LONG references_ = 1;
    Microsoft::WRL::ComPtr<IDataObject> inner_;
    PathList paths_;
    std::vector<StoredFormat> stored_;
};
