// The installers' entry points of the add-in file: Windows Installer custom
// actions, rundll32 commands and the Java setup program's native methods.
// Each opens the add-in's log for its run and hands over to the installation.
#include <windows.h>

#include "core/exception_barrier.h"
#include "core/globals.h"
#include "core/log.h"
#include "install/installation.h"
#include "install/installer_entry_points.h"
#include "install/msi_session.h"

namespace {

Logger logger("korvane");

// The add-in's log, configured as at the add-in's start, for one
// installer's run; closed again afterwards, so that Outlook can write it.
class InstallerRunLog {
public:
    InstallerRunLog() { configureLogFromRegistry(Globals::instance().userKey()); }
    ~InstallerRunLog() { LogFile::instance().close(); }
    InstallerRunLog(const InstallerRunLog&) = delete;
    InstallerRunLog& operator=(const InstallerRunLog&) = delete;
};

enum class Direction { Install, Uninstall };

HRESULT run(Direction direction, const std::wstring& params, InstallParts parts, const InstallerMessages& messages)
{
    return direction == Direction::Install ? installAddin(params, parts, messages)
                                           : uninstallAddin(params, parts, messages);
}

UINT customAction(const char* name, MSIHANDLE install, Direction direction, InstallParts parts) noexcept
{
    const HRESULT hr = exportedCall(name, [&] {
        const InstallerRunLog log;
        const MsiSession session(install);
        return run(direction, session.customActionData(), parts,
                   [&session](const std::wstring& text) { session.log(text); });
    });
    return SUCCEEDED(hr) ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

void rundll32Command(const char* name, const wchar_t* commandLine, Direction direction) noexcept
{
    exportedCall(name, [&] {
        const InstallerRunLog log;
        return run(direction, commandLine ? commandLine : L"", InstallParts::Everything, {});
    });
}

} // namespace

// Windows Installer custom actions (deferred; the parameter string is their
// CustomActionData).
extern "C" UINT WINAPI Install(MSIHANDLE install)
{
    return customAction("Install", install, Direction::Install, InstallParts::Everything);
}

extern "C" UINT WINAPI Uninstall(MSIHANDLE install)
{
    return customAction("Uninstall", install, Direction::Uninstall, InstallParts::Everything);
}

extern "C" UINT WINAPI InstallAddin(MSIHANDLE install)
{
    return customAction("InstallAddin", install, Direction::Install, InstallParts::OutlookKeyOnly);
}

extern "C" UINT WINAPI UninstallAddin(MSIHANDLE install)
{
    return customAction("UninstallAddin", install, Direction::Uninstall, InstallParts::OutlookKeyOnly);
}

// rundll32 korvane64.dll,RunInstall <parameter string>
extern "C" void CALLBACK RunInstallW(HWND, HINSTANCE, LPWSTR commandLine, int)
{
    rundll32Command("RunInstallW", commandLine, Direction::Install);
}

extern "C" void CALLBACK RunUninstallW(HWND, HINSTANCE, LPWSTR commandLine, int)
{
    rundll32Command("RunUninstallW", commandLine, Direction::Uninstall);
}

// The Java setup program (class com.quembrook.com.KorvaneDll) opens the log
// itself; install and uninstall answer 0 or the failure's HRESULT.
extern "C" jint JNICALL Java_com_quembrook_com_KorvaneDll_nativeInstall(JNIEnv* env, jclass, jstring params)
{
    return exportedCall("nativeInstall",
                        [&] { return installAddin(javaString(env, params), InstallParts::Everything, {}); });
}

extern "C" jint JNICALL Java_com_quembrook_com_KorvaneDll_nativeUninstall(JNIEnv* env, jclass, jstring params)
{
    return exportedCall("nativeUninstall",
                        [&] { return uninstallAddin(javaString(env, params), InstallParts::Everything, {}); });
}

extern "C" void JNICALL Java_com_quembrook_com_KorvaneDll_nativeSetProductName(JNIEnv* env, jclass, jstring name)
{
    exportedCall("nativeSetProductName", [&] {
        const std::wstring productName = javaString(env, name);
        KV_DEBUG(logger) << "name=" << productName;
        if (!productName.empty())
            Globals::instance().setProductName(productName);
        return S_OK;
    });
}

extern "C" void JNICALL Java_com_quembrook_com_KorvaneDll_nativeOpenLogFile(JNIEnv* env, jclass, jstring path,
                                                                         jint level, jboolean append)
{
    exportedCall("nativeOpenLogFile", [&] {
        LogFile::instance().open(javaString(env, path), level, append != 0);
        KV_DEBUG(logger) << "level=" << level << ", append=" << (append != 0);
        return S_OK;
    });
}

extern "C" void JNICALL Java_com_quembrook_com_KorvaneDll_nativeCloseLogFile(JNIEnv*, jclass)
{
    exportedCall("nativeCloseLogFile", [] {
        LogFile::instance().close();
        return S_OK;
    });
}
