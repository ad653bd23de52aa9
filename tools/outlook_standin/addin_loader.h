#pragma once
// Loads COM add-ins the way Outlook does: the ProgIDs under
// Software\Microsoft\Office\Outlook\Addins (HKCU, then HKLM in both registry
// views) whose LoadBehavior says "load at start", each made with
// CLSIDFromProgID and CoCreateInstance, then driven through Office's
// connection interface in Outlook's order.
#include "korvane_h.h"

#include <windows.h>
#include <wrl/client.h>

#include <string>
#include <vector>

struct LoadedAddin {
    std::wstring progId;
    std::wstring keyPath;  // where the add-in key was found
    Microsoft::WRL::ComPtr<_IDTExtensibility2> connection;
    Microsoft::WRL::ComPtr<IRibbonExtensibility> ribbon;  // null when the add-in has no ribbon
    Microsoft::WRL::ComPtr<IDispatch> callbacks;          // the ribbon callbacks' dispatch interface
};

struct AddinKey {
    std::wstring progId;
    std::wstring keyPath;
    DWORD loadBehavior = 0;
};

// The add-in keys Outlook would look at, HKCU first; a ProgID listed twice is
// taken once.
std::vector<AddinKey> findAddinKeys();

// Creates the add-in object of a key; the failing HRESULT otherwise.
HRESULT createAddin(const AddinKey& key, LoadedAddin& addin);

// The timings of the connection events, in milliseconds.
struct ConnectionTimes {
    double onConnection = 0, onAddInsUpdate = 0, onStartupComplete = 0;
    double onBeginShutdown = 0, onDisconnection = 0;
};

HRESULT connectAddin(LoadedAddin& addin, IDispatch* application, ConnectionTimes& times);
HRESULT disconnectAddin(LoadedAddin& addin, ConnectionTimes& times);
