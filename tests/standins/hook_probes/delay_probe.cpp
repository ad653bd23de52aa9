// A DLL that imports ole32's DoDragDrop and OleSetClipboard delay-loaded, laid
// out as the MSVC linker does it (ImgDelayDescr with offsets, module-handle
// cell, address table starting at binding thunks, name table). The GNU linker
// makes none of this, so the tables are written here and the module points its
// delay-import directory at them when loaded; binding uses __delayLoadHelper2.
#include <windows.h>
#include <delayimp.h>
#include <objidl.h>

using DoDragDropFunction = HRESULT(WINAPI*)(IDataObject*, IDropSource*, DWORD, DWORD*);
using OleSetClipboardFunction = HRESULT(WINAPI*)(IDataObject*);

extern "C" {
HMODULE probeDelayModuleHandle = nullptr;
extern const ImgDelayDescr probeDelayDescriptors[];
FARPROC WINAPI __delayLoadHelper2(PCImgDelayDescr descriptor, FARPROC* slot);
}

namespace {
HRESULT WINAPI bindDoDragDrop(IDataObject*, IDropSource*, DWORD, DWORD*);
HRESULT WINAPI bindOleSetClipboard(IDataObject*);
} // namespace

// Unbound, each entry leads to its binding thunk.
extern "C" {
FARPROC probeDelayAddressTable[3] = {reinterpret_cast<FARPROC>(&bindDoDragDrop),
                                     reinterpret_cast<FARPROC>(&bindOleSetClipboard), nullptr};
}

// The descriptor and the empty one that ends the array, the name table
// (8-byte entries in PE32+) and the hint/name records.
asm(R"(
    .section .rdata$probe_delay,"dr"
    .p2align 3
probeDelayDescriptors:
    .long 1
    .rva probeDelayDllName, probeDelayModuleHandle, probeDelayAddressTable, probeDelayNameTable
    .long 0, 0, 0
    .zero 32
    .p2align 3
probeDelayNameTable:
    .rva probeDelayNameDoDragDrop
    .long 0
    .rva probeDelayNameOleSetClipboard
    .long 0
    .quad 0
    .p2align 1
probeDelayNameDoDragDrop:
    .short 0
    .asciz "DoDragDrop"
    .p2align 1
probeDelayNameOleSetClipboard:
    .short 0
    .asciz "OleSetClipboard"
probeDelayDllName:
    .asciz "ole32.dll"
    .text
)");

namespace {

HRESULT WINAPI bindDoDragDrop(IDataObject* dataObject, IDropSource* dropSource, DWORD okEffects, DWORD* effect)
{
    const FARPROC bound = __delayLoadHelper2(&probeDelayDescriptors[0], &probeDelayAddressTable[0]);
    return reinterpret_cast<DoDragDropFunction>(bound)(dataObject, dropSource, okEffects, effect);
}

HRESULT WINAPI bindOleSetClipboard(IDataObject* dataObject)
{
    const FARPROC bound = __delayLoadHelper2(&probeDelayDescriptors[0], &probeDelayAddressTable[1]);
    return reinterpret_cast<OleSetClipboardFunction>(bound)(dataObject);
}

FARPROC slotValue(int index)
{
    return *static_cast<FARPROC volatile*>(&probeDelayAddressTable[index]);
}

// What the MSVC linker writes into the file: the delay-import directory entry.
void fillDelayDirectory(HMODULE module)
{
    auto* base = reinterpret_cast<BYTE*>(module);
    auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
    IMAGE_DATA_DIRECTORY& entry = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT];
    DWORD protection = 0;
    VirtualProtect(&entry, sizeof entry, PAGE_READWRITE, &protection);
    entry.VirtualAddress = static_cast<DWORD>(reinterpret_cast<const BYTE*>(probeDelayDescriptors) - base);
    entry.Size = 2 * sizeof(ImgDelayDescr);
    VirtualProtect(&entry, sizeof entry, protection, &protection);
}

} // namespace

BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, void*)
{
    if (reason == DLL_PROCESS_ATTACH)
        fillDelayDirectory(module);
    return TRUE;
}

// The module's own calls, through its delay address table (exported, so a
// test can look at its slots).
extern "C" HRESULT probeDoDragDrop(IDataObject* dataObject, IDropSource* dropSource, DWORD okEffects, DWORD* effect)
{
    return reinterpret_cast<DoDragDropFunction>(slotValue(0))(dataObject, dropSource, okEffects, effect);
}

extern "C" HRESULT probeOleSetClipboard(IDataObject* dataObject)
{
    return reinterpret_cast<OleSetClipboardFunction>(slotValue(1))(dataObject);
}
