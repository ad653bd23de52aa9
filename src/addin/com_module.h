#pragma once
// The DLL's COM server: the one class it serves and the lock count that says
// whether COM may unload it. Every live add-in object, every class factory
// handed out and every LockServer(TRUE) holds one lock.
#include <windows.h>
#include <objbase.h>

#include <atomic>

class CkorvaneModule {
public:
    static CkorvaneModule& instance();

    void lock() { ++locks_; }
    void unlock() { --locks_; }
    LONG lockCount() const { return locks_; }

    // The class factory of CKVDragDropAddin; CLASS_E_CLASSNOTAVAILABLE for any other class.
    HRESULT getClassObject(REFCLSID clsid, REFIID iid, void** object);

    // S_OK when nothing holds the module any more; it then also lets go of
    // what must not be released from DllMain (GDI+).
    HRESULT canUnloadNow();

private:
    std::atomic<LONG> locks_{0};
};
