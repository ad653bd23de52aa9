#pragma once
// Extended MAPI, loaded from mapi32.dll by name and bound by ordinal, the way
// the functions are bound on every Windows with Outlook.
#include <windows.h>
#include <ole2.h>
#include <mapidefs.h>
#include <imessage.h>

struct MapiFunctions {
    LPMALLOC(STDAPICALLTYPE* getDefaultMalloc)();
    SCODE(STDAPICALLTYPE* openIMsgOnIStg)(LPMSGSESS, LPALLOCATEBUFFER, LPALLOCATEMORE, LPFREEBUFFER, LPMALLOC,
                                          LPVOID, LPSTORAGE, MSGCALLRELEASE*, ULONG, ULONG, LPMESSAGE*);
    LPALLOCATEBUFFER allocateBuffer;
    LPALLOCATEMORE allocateMore;
    LPFREEBUFFER freeBuffer;
};

// The bound functions, loaded once per process; null when mapi32.dll can't be
// loaded or lacks one of the ordinals (logged once).
const MapiFunctions* mapiFunctions();

// A block from MAPIAllocateBuffer, freed with MAPIFreeBuffer.
template <typename T>
class MapiBuffer {
public:
    explicit MapiBuffer(const MapiFunctions& mapi) : mapi_(mapi) {}
    MapiBuffer(const MapiBuffer&) = delete;
    MapiBuffer& operator=(const MapiBuffer&) = delete;
    ~MapiBuffer()
    {
        if (value_)
            mapi_.freeBuffer(value_);
    }
    T* get() const { return value_; }
    T* operator->() const { return value_; }
    T** put() { return &value_; }

private:
    const MapiFunctions& mapi_;
    T* value_ = nullptr;
};

// A row set from QueryRows: every row's properties and the set itself are
// MAPI blocks of their own.
class MapiRows {
public:
    explicit MapiRows(const MapiFunctions& mapi) : mapi_(mapi) {}
    MapiRows(const MapiRows&) = delete;
    MapiRows& operator=(const MapiRows&) = delete;
    ~MapiRows();
    LPSRowSet get() const { return rows_; }
    LPSRowSet* put() { return &rows_; }

private:
    const MapiFunctions& mapi_;
    LPSRowSet rows_ = nullptr;
};
