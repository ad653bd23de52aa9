// Entry points of korvane64.dll / korvane32.dll: DllMain and the COM server
// exports. Each export only hands over to the unit that does the work; they
// live here because the linker keeps exports of the DLL target itself.
#include <windows.h>
#include <objbase.h>
#include <olectl.h>

#include "addin/com_module.h"
#include "core/exception_barrier.h"
#include "core/log.h"
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

// Each export runs behind exportedCall's barrier: nothing thrown inside
// reaches the caller (Outlook, COM, regsvr32, an installer).
STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, LPVOID* object)
{
    return exportedCall("DllGetClassObject",
                        [&] { return CkorvaneModule::instance().getClassObject(clsid, iid, object); });
}

STDAPI DllCanUnloadNow()
{
    return exportedCall("DllCanUnloadNow", [] { return CkorvaneModule::instance().canUnloadNow(); });
}

STDAPI DllRegisterServer()
{
    return exportedCall("DllRegisterServer", [] { return registerServer(RegistrationScope::Machine); });
}

STDAPI DllUnregisterServer()
{
    return exportedCall("DllUnregisterServer", [] { return unregisterServer(RegistrationScope::Machine); });
}

// regsvr32 /i:user [/u] korvane64.dll registers for the current user only,
// without administrator rights; any other command line means the machine.
extern "C" HRESULT STDAPICALLTYPE DllInstall(BOOL install, LPCWSTR commandLine)
{
    return exportedCall("DllInstall", [&] {
        const bool forUser = commandLine && equalsIgnoreCase(commandLine, L"user");
        KV_DEBUG(logger) << "install=" << (install != FALSE) << ", forUser=" << forUser;
        const RegistrationScope scope = forUser ? RegistrationScope::CurrentUser : RegistrationScope::Machine;
        return install ? registerServer(scope) : unregisterServer(scope);
    });
}
