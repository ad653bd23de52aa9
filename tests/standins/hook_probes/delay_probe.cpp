// A DLL that imports DoDragDrop and OleSetClipboard of ole32.dll delay-loaded,
// the way the MSVC linker lays such imports out: one ImgDelayDescr with
// offsets (dlattrRva), a module-handle cell, a delay address table whose
// entries start at binding thunks, and a name table. The GNU linker neither
// makes these tables nor fills the PE's delay-import directory entry, so they
// are written here, with `.rva` giving the image-relative offsets, and the
// build runs pe_tool.py afterwards to point the directory entry at them.
// Binding goes through the toolchain's own __delayLoadHelper2, so a call
// through the table binds exactly as in a module built with /DELAYLOAD.
#include <windows.h>
#include <delayimp.h>
#include <objidl.h>
#include <oleidl.h>

using DoDragDropFunction = HRESULT(WINAPI*)(IDataObject*, IDropSource*, DWORD, DWORD*);
using OleSetClipboardFunction = HRESULT(WINAPI*)(IDataObject*);

extern "C" {
// Written by the loader helper when ole32.dll is bound.
HMODULE probeDelayModuleHandle = nullptr;
// Made below, in the assembler block.
extern const ImgDelayDescr probeDelayDescriptors[];
// The toolchain's delay-load helper (libmingwex); delayimp.h leaves it out.
FARPROC WINAPI __delayLoadHelper2(PCImgDelayDescr descriptor, FARPROC* slot);
}

namespace {

HRESULT WINAPI bindDoDragDrop(IDataObject*, IDropSource*, DWORD, DWORD*);
HRESULT WINAPI bindOleSetClipboard(IDataObject*);

} // namespace

// The delay address table: unbound, each entry leads to its binding thunk.
extern "C" {
FARPROC probeDelayAddressTable[3] = {
    reinterpret_cast<FARPROC>(&bindDoDragDrop),
    reinterpret_cast<FARPROC>(&bindOleSetClipboard),
    nullptr,
};
}

// Descriptor (plus the empty one that ends the array), name table and names.
// Name-table entries are 8 bytes in a PE32+ image: the offset of the hint and
// name record in the low half.
asm(R"(
    .section .rdata$probe_delay,"dr"
    .p2align 3
    .globl probeDelayDescriptors
probeDelayDescriptors:
    .long 1
    .rva probeDelayDllName
    .rva probeDelayModuleHandle
    .rva probeDelayAddressTable
    .rva probeDelayNameTable
    .long 0
    .long 0
    .long 0
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

// What a delay-load thunk does: have the helper bind the slot, then call
// what it bound.
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

} // namespace

// The module's own calls, through its delay address table as the compiler
// makes them for a delay-loaded import.
extern "C" HRESULT probeDoDragDrop(IDataObject* dataObject, IDropSource* dropSource, DWORD okEffects, DWORD* effect)
{
    return reinterpret_cast<DoDragDropFunction>(slotValue(0))(dataObject, dropSource, okEffects, effect);
}

extern "C" HRESULT probeOleSetClipboard(IDataObject* dataObject)
{
    return reinterpret_cast<OleSetClipboardFunction>(slotValue(1))(dataObject);
}

// The slot of "DoDragDrop" or "OleSetClipboard" in the delay address table.
extern "C" FARPROC* probeDelaySlot(const char* functionName)
{
    if (lstrcmpA(functionName, "DoDragDrop") == 0)
        return &probeDelayAddressTable[0];
    if (lstrcmpA(functionName, "OleSetClipboard") == 0)
        return &probeDelayAddressTable[1];
    return nullptr;
}
