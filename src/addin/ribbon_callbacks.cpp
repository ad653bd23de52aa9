// The callbacks of the ribbon tab. Each reads or writes the settings
// directly, so the ribbon keeps no state but the ribbon object and the two
// cached button icons. Behind each one's barrier an exception becomes S_OK
// for an action (nothing changed) and a failure for a question (no answer).
#include "addin/kv_drag_drop_addin.h"

#include "core/exception_barrier.h"
#include "core/globals.h"
#include "core/log.h"
#include "common/com_variant.h"

#include <algorithm>

namespace {

Logger logger("KVDragDropAddin");

constexpr const wchar_t* onOffButton = L"bnOnOff";
constexpr const wchar_t* alwaysCopyBox = L"ckAlwaysCopy";
constexpr const wchar_t* decryptBox = L"ckDecrypt";

constexpr const wchar_t* formatIds[] = {L"msg", L"eml"};
constexpr const wchar_t* formatLabels[] = {L"MSG", L"EML"};

// A string property of a ribbon control ("Id", "Tag"); empty on failure.
std::wstring controlProperty(IDispatch* control, const wchar_t* name)
{
    if (!control)
        return L"";
    UniqueVariant value;
    if (FAILED(getDispatchProperty(control, name, nullptr, 0, value)))
        return L"";
    return value.text();
}

std::wstring controlId(IDispatch* control)
{
    return controlProperty(control, L"Id");
}

HRESULT returnText(const std::wstring& text, BSTR* out)
{
    if (!out)
        return E_POINTER;
    *out = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    return *out ? S_OK : E_OUTOFMEMORY;
}

int clampedFormatIndex(int index)
{
    return std::clamp(index, 0, 1);
}

std::wstring bstrText(BSTR text)
{
    return text ? std::wstring(text, SysStringLen(text)) : std::wstring();
}

} // namespace

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::Ribbon_onLoad(IDispatch* ribbon)
{
    return barrier("Ribbon_onLoad", S_OK, [&] {
        KV_DEBUG(logger) << "Ribbon_onLoad(ribbon=" << static_cast<const void*>(ribbon);
        ribbonUI_ = ribbon;
        KV_DEBUG(logger) << ")Ribbon_onLoad";
        return S_OK;
    });
}

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::Ribbon_getPressed(IDispatch* control, VARIANT_BOOL* pressed)
{
    return barrier("Ribbon_getPressed", [&] {
        const std::wstring id = controlId(control);
        KV_DEBUG(logger) << "Ribbon_getPressed(id=" << id;
        if (!pressed)
            return E_POINTER;
        const Globals& globals = Globals::instance();
        bool state = false;
        if (id == onOffButton)
            state = !globals.getLocked();
        else if (id == alwaysCopyBox)
            state = globals.getIgnoreTargetEffectIfDroppedIntoOtherApplication();
        else if (id == decryptBox)
            state = globals.getDecryptEnabled();
        *pressed = state ? VARIANT_TRUE : VARIANT_FALSE;
        KV_DEBUG(logger) << ")Ribbon_getPressed=" << state;
        return S_OK;
    });
}

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::Ribbon_onAction(IDispatch* control, VARIANT_BOOL pressedFlag)
{
    return barrier("Ribbon_onAction", S_OK, [&] {
        const bool pressed = pressedFlag != VARIANT_FALSE;
        const std::wstring id = controlId(control);
        KV_DEBUG(logger) << "Ribbon_onAction(pressed=" << pressed << ", id=" << id;
        const Globals& globals = Globals::instance();
        if (id == onOffButton) {
            globals.setLocked(!pressed);
            // Office asks for a label and an image only for invalidated controls.
            if (ribbonUI_) {
                UniqueVariant idArgument(id);
                const HRESULT hr = invokeByName(ribbonUI_.Get(), L"InvalidateControl", DISPATCH_METHOD,
                                                {idArgument.get()}, nullptr);
                KV_DEBUG(logger) << "InvalidateControl=" << hr;
            }
        } else if (id == alwaysCopyBox) {
            globals.setIgnoreTargetEffectIfDroppedIntoOtherApplication(pressed);
        } else if (id == decryptBox) {
            globals.setDecryptEnabled(pressed);
        }
        KV_DEBUG(logger) << ")Ribbon_onAction";
        return S_OK;
    });
}

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::Ribbon_getLabel(IDispatch*, BSTR* label)
{
    return barrier("Ribbon_getLabel", [&] {
        KV_DEBUG(logger) << "Ribbon_getLabel(";
        if (!label)
            return E_POINTER;
        const Globals& globals = Globals::instance();
        const std::wstring text = globals.getText(globals.getLocked() ? L"buttonInactive" : L"buttonActive");
        KV_DEBUG(logger) << ")Ribbon_getLabel=" << text;
        return returnText(text, label);
    });
}

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::Ribbon_getImage(IDispatch* control, IPictureDisp** image)
{
    return barrier("Ribbon_getImage", [&] {
        KV_DEBUG(logger) << "Ribbon_getImage(";
        if (!image)
            return E_POINTER;
        *image = nullptr;
        const bool interceptionOn = !Globals::instance().getLocked();
        UniqueIcon& cached = interceptionOn ? iconOn_ : iconOff_;
        HRESULT hr = S_OK;
        if (!cached) {
            UniqueGlobal bytes = loadImageNamedByTag(getRibbonButtonTag(control), Globals::instance().module());
            if (bytes)
                cached = iconFromImage(std::move(bytes));
            if (!cached) {
                hr = loadPngResource(Globals::instance().module(),
                                     interceptionOn ? buttonImageOnResource : buttonImageOffResource, bytes);
                if (SUCCEEDED(hr))
                    cached = iconFromImage(std::move(bytes));
            }
        }
        if (SUCCEEDED(hr))
            hr = pictureFromIcon(cached.get(), image);
        KV_DEBUG(logger) << ")Ribbon_getImage=" << hr;
        return hr;
    });
}

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::Ribbon_getSelectedFormatID(IDispatch*, BSTR* id)
{
    return barrier("Ribbon_getSelectedFormatID", [&] {
        KV_DEBUG(logger) << "Ribbon_getSelectedFormatID(";
        const std::wstring format = Globals::instance().getFormat();
        KV_DEBUG(logger) << ")Ribbon_getSelectedFormatID=" << format;
        return returnText(format.empty() ? L"msg" : format, id);
    });
}

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::Ribbon_onFormatChanged(IDispatch*, BSTR selectedId, int selectedIndex)
{
    return barrier("Ribbon_onFormatChanged", S_OK, [&] {
        const std::wstring format = bstrText(selectedId);
        KV_DEBUG(logger) << "Ribbon_onFormatChanged(id=" << format << ", index=" << selectedIndex;
        Globals::instance().setFormat(format);
        KV_DEBUG(logger) << ")Ribbon_onFormatChanged";
        return S_OK;
    });
}

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::Ribbon_getFormatLabel(IDispatch*, int index, BSTR* label)
{
    return barrier("Ribbon_getFormatLabel", [&] {
        KV_DEBUG(logger) << "Ribbon_getFormatLabel(index=" << index;
        return returnText(formatLabels[clampedFormatIndex(index)], label);
    });
}

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::Ribbon_getFormatId(IDispatch*, int index, BSTR* id)
{
    return barrier("Ribbon_getFormatId", [&] {
        KV_DEBUG(logger) << "Ribbon_getFormatId(index=" << index;
        return returnText(formatIds[clampedFormatIndex(index)], id);
    });
}

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::Ribbon_getFormatCount(IDispatch*, int* count)
{
    return barrier("Ribbon_getFormatCount", [&] {
        KV_DEBUG(logger) << "Ribbon_getFormatCount(";
        if (!count)
            return E_POINTER;
        *count = static_cast<int>(std::size(formatIds));
        return S_OK;
    });
}

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::Ribbon_getSelectedTextFormatID(IDispatch*, BSTR* id)
{
    return barrier("Ribbon_getSelectedTextFormatID", [&] {
        KV_DEBUG(logger) << "Ribbon_getSelectedTextFormatID(";
        const std::wstring format = Globals::instance().getTextFormat();
        KV_DEBUG(logger) << ")Ribbon_getSelectedTextFormatID=" << format;
        return returnText(format.empty() ? L"none" : format, id);
    });
}

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::Ribbon_onTextFormatChanged(IDispatch*, BSTR selectedId,
                                                                       int selectedIndex)
{
    return barrier("Ribbon_onTextFormatChanged", S_OK, [&] {
        const std::wstring format = bstrText(selectedId);
        KV_DEBUG(logger) << "Ribbon_onTextFormatChanged(id=" << format << ", index=" << selectedIndex;
        Globals::instance().setTextFormat(format);
        KV_DEBUG(logger) << ")Ribbon_onTextFormatChanged";
        return S_OK;
    });
}
