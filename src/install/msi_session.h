#pragma once
// What a Windows Installer custom action of the add-in needs of its session:
// the parameter string and the installer's log. msi.dll is bound when a
// custom action runs, so that Outlook, which loads the same file, never
// loads msi.dll for it.
#include <windows.h>
#include <msi.h>
#include <msiquery.h>

#include <string>

#include "common/unique_resource.h"

class MsiSession {
public:
    explicit MsiSession(MSIHANDLE install);

    // The CustomActionData property: what a deferred action is handed.
    std::wstring customActionData() const;
    // One line into the installer's log.
    void log(const std::wstring& text) const;

private:
    struct Functions {
        decltype(&MsiGetPropertyW) getProperty;
        decltype(&MsiCreateRecord) createRecord;
        decltype(&MsiRecordSetStringW) recordSetString;
        decltype(&MsiProcessMessage) processMessage;
        decltype(&MsiCloseHandle) closeHandle;
    };

    MSIHANDLE install_;
    UniqueLibrary library_;
    Functions functions_{};
    bool bound_ = false;
};
