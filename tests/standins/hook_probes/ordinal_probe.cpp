// A DLL that imports DoDragDrop of ole32.dll by ordinal only: its import
// library (made at build time from Wine's ole32.dll, see pe_tool.py) names the
// function by its ordinal and gives no name, so the name table of the import
// directory holds an ordinal entry, as some Office modules have.
#include <windows.h>

// The import slot; the import library defines it under the function's name.
extern "C" void* __imp_DoDragDrop;

extern "C" void** ordinalProbeSlot()
{
    return &__imp_DoDragDrop;
}
