#pragma once
// The add-in object that Outlook creates: Office's connection interface, the
// ribbon interface and the ribbon callbacks, each a dual interface described
// by the add-in's type library. Its IUnknown can be aggregated: created with
// an outer object, every interface's IUnknown is the outer one's.
#include "addin/ribbon_callback_dispatch.h"
#include "addin/ribbon_image.h"
#include "addin/type_info_dispatch.h"
#include "korvane_h.h"

#include <wrl/client.h>

class CKVDragDropAddin final : public RibbonCallbackDispatch,
                               public TypeInfoDispatch<_IDTExtensibility2>,
                               public TypeInfoDispatch<IRibbonExtensibility> {
public:
    // A new object answered for iid. With an outer object only IID_IUnknown
    // may be asked for (CLASS_E_NOAGGREGATION otherwise), and the answer is
    // the object's own, non-delegating IUnknown.
    static HRESULT create(IUnknown* outer, REFIID iid, void** object);

    CKVDragDropAddin(const CKVDragDropAddin&) = delete;
    CKVDragDropAddin& operator=(const CKVDragDropAddin&) = delete;

    // IUnknown of every interface: the controlling unknown's.
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override;
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;

    // _IDTExtensibility2
    HRESULT STDMETHODCALLTYPE OnConnection(IDispatch* application, ext_ConnectMode connectMode,
                                           IDispatch* addInInstance, SAFEARRAY** custom) override;
    HRESULT STDMETHODCALLTYPE OnDisconnection(ext_DisconnectMode removeMode, SAFEARRAY** custom) override;
    HRESULT STDMETHODCALLTYPE OnAddInsUpdate(SAFEARRAY** custom) override;
    HRESULT STDMETHODCALLTYPE OnStartupComplete(SAFEARRAY** custom) override;
    HRESULT STDMETHODCALLTYPE OnBeginShutdown(SAFEARRAY** custom) override;

    // IRibbonExtensibility
    HRESULT STDMETHODCALLTYPE GetCustomUI(BSTR ribbonId, BSTR* ribbonXml) override;

    // IKVDragDropAddin: the ribbon callbacks
    HRESULT STDMETHODCALLTYPE Ribbon_onAction(IDispatch* control, VARIANT_BOOL pressed) override;
    HRESULT STDMETHODCALLTYPE Ribbon_getPressed(IDispatch* control, VARIANT_BOOL* pressed) override;
    HRESULT STDMETHODCALLTYPE Ribbon_getImage(IDispatch* control, IPictureDisp** image) override;
    HRESULT STDMETHODCALLTYPE Ribbon_getLabel(IDispatch* control, BSTR* label) override;
    HRESULT STDMETHODCALLTYPE Ribbon_onLoad(IDispatch* ribbon) override;
    HRESULT STDMETHODCALLTYPE Ribbon_getSelectedFormatID(IDispatch* control, BSTR* id) override;
    HRESULT STDMETHODCALLTYPE Ribbon_onFormatChanged(IDispatch* control, BSTR selectedId, int selectedIndex) override;
    HRESULT STDMETHODCALLTYPE Ribbon_getFormatLabel(IDispatch* control, int index, BSTR* label) override;
    HRESULT STDMETHODCALLTYPE Ribbon_getFormatId(IDispatch* control, int index, BSTR* id) override;
    HRESULT STDMETHODCALLTYPE Ribbon_getFormatCount(IDispatch* control, int* count) override;
    HRESULT STDMETHODCALLTYPE Ribbon_getSelectedTextFormatID(IDispatch* control, BSTR* id) override;
    HRESULT STDMETHODCALLTYPE Ribbon_onTextFormatChanged(IDispatch* control, BSTR selectedId,
                                                         int selectedIndex) override;

private:
    // The object's own IUnknown: counts references and answers every
    // interface. Not aggregated, it is also the controlling unknown.
    class OwnUnknown final : public IUnknown {
    public:
        explicit OwnUnknown(CKVDragDropAddin& addin) : addin_(addin) {}
        HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override;
        ULONG STDMETHODCALLTYPE AddRef() override;
        ULONG STDMETHODCALLTYPE Release() override;

    private:
        CKVDragDropAddin& addin_;
    };

    explicit CKVDragDropAddin(IUnknown* outer);
    ~CKVDragDropAddin();

    void finalConstruct();
    HRESULT ownQueryInterface(REFIID iid, void** object);

    OwnUnknown ownUnknown_{*this};
    IUnknown* controllingUnknown_;
    LONG references_ = 0;

    Microsoft::WRL::ComPtr<IDispatch> ribbonUI_;
    // The on/off button's icons for interception on and off, made on first use.
    UniqueIcon iconOn_;
    UniqueIcon iconOff_;
};
