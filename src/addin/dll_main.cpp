// Entry points of korvane64.dll / korvane32.dll: DllMain and the COM server
// exports. Each export only hands over to the unit that does the work; they
// live here because the linker keeps exports of the DLL target itself.
#include <windows.h>
#include <objbase.h>
#include <olectl.h>

#include "addin/com_module.h"
#include "addin/log.h"
#include "common/strings.h"
#include "install/installation.h"

namespace {

Logger logger("korvane");

} // namespace

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH)
        DisableThreadLibraryCalls(instance);
    return TRUE;
}

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, LPVOID* object)
{
    return CkorvaneModule::instance().getClassObject(clsid, iid, object);
}

STDAPI DllCanUnloadNow()
{
    return CkorvaneModule::instance().canUnloadNow();
}

STDAPI DllRegisterServer()
{
    KV_DEBUG(logger) << "DllRegisterServer(";
    const HRESULT hr = registerServer(RegistrationScope::Machine);
    KV_DEBUG(logger) << ")DllRegisterServer=" << hr;
    return hr;
}

STDAPI DllUnregisterServer()
{
    KV_DEBUG(logger) << "DllUnregisterServer(";
    const HRESULT hr = unregisterServer(RegistrationScope::Machine);
    KV_DEBUG(logger) << ")DllUnregisterServer=" << hr;
    return hr;
}

// regsvr32 /i:user [/u] korvane64.dll registers for the current user only,
// without administrator rights; any other command line means the machine.
extern "C" HRESULT STDAPICALLTYPE DllInstall(BOOL install, LPCWSTR commandLine)
{
    const bool forUser = commandLine && equalsIgnoreCase(commandLine, L"user");
    KV_DEBUG(logger) << "DllInstall(install=" << (install != FALSE) << ", forUser=" << forUser;
    const RegistrationScope scope = forUser ? RegistrationScope::CurrentUser : RegistrationScope::Machine;
    const HRESULT hr = install ? registerServer(scope) : unregisterServer(scope);
    KV_DEBUG(logger) << ")DllInstall=" << hr;
    return hr;
}
