#pragma once
// The class factory of CKVDragDropAddin.
#include <windows.h>
#include <unknwn.h>

// A new factory, answered for iid; it holds a module lock while it lives.
HRESULT createKVDragDropAddinFactory(REFIID iid, void** object);
