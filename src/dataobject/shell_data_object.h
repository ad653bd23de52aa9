#pragma once
// The shell's SHCreateDataObject, bound by name at run time: older shells
// lack it, and some implementations only answer E_NOTIMPL.
#include <windows.h>
#include <shlobj.h>

using SHCreateDataObjectFunction = HRESULT(WINAPI*)(PCIDLIST_ABSOLUTE parent, UINT count,
                                                    PCUITEMID_CHILD_ARRAY children, IDataObject* inner, REFIID iid,
                                                    void** object);

// The function in use: the one put in place by setShellCreateDataObject, else
// shell32's own; null when shell32 has none or only a stub of it.
SHCreateDataObjectFunction shellCreateDataObject();

// Puts another implementation in the shell's place (null: shell32's own
// again), so that the shell's path can be exercised where the system's
// function is missing or a stub.
void setShellCreateDataObject(SHCreateDataObjectFunction function);
