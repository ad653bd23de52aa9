// IRibbonExtensibility: the ribbon XML for Outlook's explorer window.
#include "addin/kv_drag_drop_addin.h"

#include "core/exception_barrier.h"
#include "core/globals.h"
#include "core/log.h"
#include "core/outlook_application.h"
#include "addin/ribbon_xml.h"
#include "common/com_variant.h"

namespace {

Logger logger("KVDragDropAddin");

std::wstring outlookVersion()
{
    const auto application = outlookApplication();
    UniqueVariant version;
    if (!application || FAILED(getDispatchProperty(application.Get(), L"Version", nullptr, 0, version)))
        return L"";
    return version.text();
}

} // namespace

HRESULT STDMETHODCALLTYPE CKVDragDropAddin::GetCustomUI(BSTR ribbonId, BSTR* ribbonXml)
{
    if (!ribbonXml)
        return E_POINTER;
    *ribbonXml = nullptr;

    // An XML that can't be made is no tab, as when there is no title.
    return barrier("GetCustomUI", S_OK, [&] {
        const std::wstring id = ribbonId ? std::wstring(ribbonId, SysStringLen(ribbonId)) : std::wstring();
        KV_DEBUG(logger) << "GetCustomUI(ribbonId=" << id;
        const Globals& globals = Globals::instance();
        std::wstring title = globals.getRibbonTitle();
        // Without a title the add-in shows no tab at all; that is how an
        // installation without ribbon info hides it.
        if (title.empty()) {
            KV_DEBUG(logger) << ")GetCustomUI, no ribbon title";
            return S_OK;
        }
        // Mail, contact and the other inspector windows get no tab.
        if (id != explorerRibbonId) {
            KV_DEBUG(logger) << ")GetCustomUI, no ribbon for " << id;
            return S_OK;
        }

        std::optional<std::wstring> xml = loadRibbonDefinitionFile(globals.module(), id);
        if (!xml)
            xml = loadRibbonTemplate(globals.module());
        if (!xml)
            return S_OK;

        if (isOutlook15(outlookVersion()))
            title = upperCased(title);
        const std::wstring result =
            replaceRibbonPlaceholders(std::move(*xml), title, [&globals](const std::wstring& key) { return globals.getText(key); });
        KV_DEBUG(logger) << "ribbonXml=" << result;

        *ribbonXml = SysAllocStringLen(result.data(), static_cast<UINT>(result.size()));
        if (!*ribbonXml)
            return E_OUTOFMEMORY;
        KV_DEBUG(logger) << ")GetCustomUI";
        return S_OK;
    });
}
