#pragma once
// mapi32.dll as the tests in this folder reach it: loaded by name and bound by
// ordinal, the way the add-in binds it. Beside this program and with
// WINEDLLOVERRIDES=mapi32=n that is the stand-in (standins/mapi32/).
#include "standins/mapi32/mapi_standin.h"

#include <windows.h>
#include <ole2.h>
#include <mapidefs.h>
#include <imessage.h>
#include <wrl/client.h>

#include <initializer_list>
#include <vector>

struct StandInMapi {
    HMODULE module = nullptr;
    LPMALLOC(STDAPICALLTYPE* getDefaultMalloc)() = nullptr;                        // ordinal 59
    SCODE(STDAPICALLTYPE* openIMsgOnIStg)(LPMSGSESS, LPALLOCATEBUFFER, LPALLOCATEMORE, LPFREEBUFFER, LPMALLOC,
                                          LPVOID, LPSTORAGE, MSGCALLRELEASE*, ULONG, ULONG,
                                          LPMESSAGE*) = nullptr;                    // ordinal 198
    LPALLOCATEBUFFER allocateBuffer = nullptr;                                     // ordinal 13
    LPALLOCATEMORE allocateMore = nullptr;                                         // ordinal 15
    LPFREEBUFFER freeBuffer = nullptr;                                             // ordinal 17
    StandInCounter openCount = nullptr;
    StandInCounter liveAllocations = nullptr;

    bool complete() const;

    // OpenIMsgOnIStg the way the add-in calls it: MAPI's own allocation
    // functions and default allocator, no session, no support object.
    HRESULT open(IStorage* storage, Microsoft::WRL::ComPtr<IMessage>& message) const;
};

// Loaded on first use and kept for the life of the program.
const StandInMapi& standInMapi();

// FreeProws as MAPI does it: every row's properties, then the set.
void freeRows(const StandInMapi& mapi, LPSRowSet rows);

// A block from the stand-in's MAPIAllocateBuffer, freed with its MAPIFreeBuffer.
template <typename T>
class MapiBlock {
public:
    MapiBlock() = default;
    MapiBlock(const MapiBlock&) = delete;
    MapiBlock& operator=(const MapiBlock&) = delete;
    ~MapiBlock() { reset(); }
    T* get() const { return value_; }
    T* operator->() const { return value_; }
    T& operator[](size_t index) const { return value_[index]; }
    T** put()
    {
        reset();
        return &value_;
    }
    void reset()
    {
        if (value_)
            standInMapi().freeBuffer(value_);
        value_ = nullptr;
    }

private:
    T* value_ = nullptr;
};

// An SPropTagArray over a list of tags.
class TagList {
public:
    TagList(std::initializer_list<ULONG> tags);
    LPSPropTagArray get() { return reinterpret_cast<LPSPropTagArray>(words_.data()); }

private:
    std::vector<ULONG> words_; // the count, then the tags
};
