// Definitions of the ids that the widl header of korvane.idl declares: the
// class, the type library and the three interfaces. The system headers come
// first, so that only the add-in's own ids are defined here.
#include <windows.h>
#include <oaidl.h>
#include <ocidl.h>

#include <initguid.h>

#include "korvane_h.h"
