#pragma once
// The work behind every installer entry point (Windows Installer's custom
// actions, rundll32, the Java setup program, regsvr32): the add-in
// registered for the machine or for the current user only, from install.cfg
// and the installer's parameter string
//   <folder>\<friendly name>\<description>\<"user" or "machine">\<ribbon info>\<"removeSettings">
// whose empty fields change nothing.
#include "install/com_registration.h"

#include <functional>
#include <string>

// Where an installation reports to besides the add-in's log: Windows
// Installer's own log when it runs the entry point.
using InstallerMessages = std::function<void(const std::wstring& text)>;

enum class InstallParts {
    Everything,      // the COM class and type library, and what OutlookKey covers
    OutlookKeyOnly,  // Outlook's add-in key, the ribbon info and the install-for-user record
};

// Applies the options, then registers the parts for the machine or, when
// field 3 is "user", for the current user (HKCU and HKCU\Software\Classes;
// HKLM is then only read). The ribbon info is field 4, else install.cfg's,
// else the value already there, else "1;" (the tab with its localized
// title). A failed installation takes back everything it wrote.
HRESULT installAddin(const std::wstring& params, InstallParts parts, const InstallerMessages& messages);

// Removes what installAddin wrote, for the scope of field 3 or, when that is
// empty, the scope the add-in was installed in. The users' settings stay
// (an upgrade uninstalls the older version first) unless field 5 is
// "removeSettings". Removing what isn't there succeeds.
HRESULT uninstallAddin(const std::wstring& params, InstallParts parts, const InstallerMessages& messages);

// regsvr32's registration: install.cfg applies, and an administrator's
// ribbon info is never overwritten.
HRESULT registerServer(RegistrationScope scope);
HRESULT unregisterServer(RegistrationScope scope);
