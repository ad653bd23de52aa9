#include "install/installation.h"

#include "core/globals.h"
#include "core/log.h"
#include "core/reg_util.h"

#include <olectl.h>

#include <cstdio>

namespace {

Logger logger("MsiInstall");

constexpr size_t scopeField = 3;
constexpr size_t ribbonInfoField = 4;
constexpr size_t removeSettingsField = 5;
constexpr const wchar_t* defaultRibbonInfo = L"1;";

std::wstring fieldAt(const std::vector<std::wstring>& fields, size_t index)
{
    return index < fields.size() ? fields[index] : std::wstring();
}

std::wstring hresultText(HRESULT hr)
{
    wchar_t text[16] = {};
    swprintf(text, 16, L"0x%08lX", static_cast<unsigned long>(hr));
    return text;
}

const wchar_t* scopeName(RegistrationScope scope)
{
    return scope == RegistrationScope::Machine ? L"the machine" : L"the current user";
}

// One line for the add-in's log and the installer's.
void report(const InstallerMessages& messages, bool failure, const std::wstring& text)
{
    if (failure)
        KV_ERROR(logger) << text;
    else
        KV_INFO(logger) << text;
    if (messages)
        messages(text);
}

RegistrationScope scopeOf(const Globals& globals)
{
    return globals.installForUser() ? RegistrationScope::CurrentUser : RegistrationScope::Machine;
}

// The installer's ribbon info has been written while the options were
// applied; written again here to learn whether it could be. Without one, a
// value already there (an administrator's) stays, and a fresh installation
// shows the tab.
bool writeRibbonInfo(Globals& globals, const std::wstring& fromInstaller)
{
    if (!fromInstaller.empty())
        return globals.setRibbonInfo(fromInstaller);
    if (!RegUtil::readString(globals.ribbonInfoPlace()).empty())
        return true;
    const std::wstring configured = globals.getRibbonInfo();
    return globals.setRibbonInfo(configured.empty() ? defaultRibbonInfo : configured);
}

bool removeInstalledKeys(Globals& globals, RegistrationScope scope, InstallParts parts)
{
    const std::wstring stopAt = scope == RegistrationScope::Machine ? L"HKLM\\Software" : L"HKCU\\Software";
    bool gone = removeOutlookAddin(scope);
    gone = deleteKeyAndEmptyParents(globals.ribbonInfoPlace(), stopAt) && gone;
    if (scope == RegistrationScope::CurrentUser) {
        globals.recordInstallForUser(false);
        deleteEmptyKeys(globals.userKey(), stopAt);
    }
    if (parts == InstallParts::Everything)
        gone = removeComClass(scope) && gone;
    return gone;
}

std::wstring registrySteps(InstallParts parts)
{
    return parts == InstallParts::Everything ? L"the COM class, its type library, Outlook's add-in key and the ribbon info"
                                             : L"Outlook's add-in key and the ribbon info";
}

} // namespace

HRESULT installAddin(const std::wstring& params, InstallParts parts, const InstallerMessages& messages)
{
    KV_DEBUG(logger) << "installAddin(params=" << params << ", everything=" << (parts == InstallParts::Everything);
    Globals& globals = Globals::instance();
    globals.applyInstallationOptions(params);
    const RegistrationScope scope = scopeOf(globals);
    report(messages, false, std::wstring(L"Installing ") + globals.addinFriendlyName() + L" for " + scopeName(scope));

    HRESULT hr = parts == InstallParts::Everything ? registerComClass(scope, globals.module()) : S_OK;
    if (SUCCEEDED(hr))
        hr = registerOutlookAddin(scope);
    if (SUCCEEDED(hr) && !writeRibbonInfo(globals, fieldAt(installParameterFields(params), ribbonInfoField)))
        hr = SELFREG_E_CLASS;
    if (SUCCEEDED(hr))
        globals.recordInstallForUser(scope == RegistrationScope::CurrentUser);

    if (SUCCEEDED(hr)) {
        report(messages, false, L"Registered " + registrySteps(parts) + L" for " + scopeName(scope));
    } else {
        removeInstalledKeys(globals, scope, parts);
        std::wstring text = L"Installation for " + std::wstring(scopeName(scope)) + L" failed (" + hresultText(hr) +
                            L"): could not write " + registrySteps(parts) + L"; nothing of it is left.";
        if (scope == RegistrationScope::Machine)
            text += L" Installing for the machine needs administrator rights; without them install for the "
                    L"current user only.";
        report(messages, true, text);
    }
    KV_DEBUG(logger) << ")installAddin=" << hr;
    return hr;
}

HRESULT uninstallAddin(const std::wstring& params, InstallParts parts, const InstallerMessages& messages)
{
    KV_DEBUG(logger) << "uninstallAddin(params=" << params << ", everything=" << (parts == InstallParts::Everything);
    Globals& globals = Globals::instance();
    RegUtil::getRegistryViewForOutlooksBitness();
    globals.readInstallOptionsFromConfigFile();

    const std::vector<std::wstring> fields = installParameterFields(params);
    const std::wstring scopeText = fieldAt(fields, scopeField);
    const RegistrationScope scope = scopeText.empty()   ? scopeOf(globals)
                                    : scopeText == L"user" ? RegistrationScope::CurrentUser
                                                           : RegistrationScope::Machine;
    report(messages, false, std::wstring(L"Removing ") + globals.addinFriendlyName() + L" for " + scopeName(scope));

    bool gone = removeInstalledKeys(globals, scope, parts);
    if (fieldAt(fields, removeSettingsField) == L"removeSettings") {
        gone = removeProductSettings(scope) && gone;
        report(messages, false, L"Removed the add-in's settings");
    }
    const HRESULT hr = gone ? S_OK : SELFREG_E_CLASS;
    if (gone)
        report(messages, false, L"Removed " + registrySteps(parts) + L" for " + scopeName(scope));
    else
        report(messages, true, L"Removal for " + std::wstring(scopeName(scope)) + L" failed (" + hresultText(hr) +
                                   L"): some keys could not be deleted; the add-in's log names them.");
    KV_DEBUG(logger) << ")uninstallAddin=" << hr;
    return hr;
}

HRESULT registerServer(RegistrationScope scope)
{
    const wchar_t* params = scope == RegistrationScope::CurrentUser ? L"\\\\\\user" : L"\\\\\\machine";
    return installAddin(params, InstallParts::Everything, {});
}

HRESULT unregisterServer(RegistrationScope scope)
{
    const wchar_t* params = scope == RegistrationScope::CurrentUser ? L"\\\\\\user" : L"\\\\\\machine";
    return uninstallAddin(params, InstallParts::Everything, {});
}
