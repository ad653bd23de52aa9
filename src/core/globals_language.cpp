// Which language the user sees, and the add-in's own version.
#include "core/globals.h"

#include "core/log.h"
#include "common/com_variant.h"
#include "common/module_path.h"

#include <vector>

namespace {

Logger logger("Globals");

constexpr UINT msoLanguageIDUI = 2;

} // namespace

std::wstring languageCodeOf(LANGID languageId)
{
    wchar_t code[100] = {};
    if (GetLocaleInfoW(languageId, LOCALE_SISO639LANGNAME, code, 100) == 0)
        return L"";
    return code;
}

void Globals::makeResourceBundleFor(const std::wstring& language) const
{
    KV_INFO(logger) << "language=" << language;
    auto bundle = makeResourceBundle(nullptr, module_, language);
    std::lock_guard<std::mutex> guard(resourceBundleLock_);
    resourceBundle_ = std::move(bundle);
}

void Globals::setLanguage(IDispatch* application)
{
    UniqueVariant languageSettings;
    HRESULT hr = getDispatchProperty(application, L"LanguageSettings", nullptr, 0, languageSettings);
    if (SUCCEEDED(hr) && (languageSettings->vt != VT_DISPATCH || !languageSettings->pdispVal))
        hr = E_NOINTERFACE;

    UniqueVariant languageId;
    if (SUCCEEDED(hr)) {
        VARIANT which;
        VariantInit(&which);
        which.vt = VT_UI4;
        which.ulVal = msoLanguageIDUI;
        hr = getDispatchProperty(languageSettings->pdispVal, L"LanguageID", &which, 1, languageId);
    }
    if (SUCCEEDED(hr))
        hr = VariantChangeType(languageId.get(), languageId.get(), 0, VT_UI4);
    if (FAILED(hr)) {
        KV_WARN(logger) << "Office language not available, hr=" << hr;
        return;
    }

    const ULONG id = languageId->ulVal;
    KV_DEBUG(logger) << "langId=" << id;
    makeResourceBundleFor(languageCodeOf(static_cast<LANGID>(id)));
}

std::shared_ptr<ResourceBundle> Globals::getResourceBundle() const
{
    {
        std::lock_guard<std::mutex> guard(resourceBundleLock_);
        if (resourceBundle_)
            return resourceBundle_;
    }
    makeResourceBundleFor(languageCodeOf(GetThreadUILanguage()));
    std::lock_guard<std::mutex> guard(resourceBundleLock_);
    return resourceBundle_;
}

std::wstring Globals::getText(const std::wstring& key) const
{
    return getResourceBundle()->getString(key);
}

bool Globals::getVersion(int& a, int& b, int& c, int& d) const
{
    const std::wstring path = modulePath(module_, 1000);
    if (path.empty())
        return false;
    DWORD ignored = 0;
    const DWORD size = GetFileVersionInfoSizeW(path.c_str(), &ignored);
    if (size < 1 || size > 2048)
        return false;
    std::vector<BYTE> block(size);
    if (!GetFileVersionInfoW(path.c_str(), 0, size, block.data()))
        return false;
    VS_FIXEDFILEINFO* info = nullptr;
    UINT infoSize = 0;
    if (!VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&info), &infoSize) || !info ||
        infoSize < sizeof(VS_FIXEDFILEINFO))
        return false;
    a = HIWORD(info->dwProductVersionMS);
    b = LOWORD(info->dwProductVersionMS);
    c = HIWORD(info->dwProductVersionLS);
    d = LOWORD(info->dwProductVersionLS);
    return true;
}
