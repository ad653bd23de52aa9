#include "items_mapi/standin_mapi.h"

namespace {

StandInMapi loadStandInMapi()
{
    StandInMapi mapi;
    mapi.module = LoadLibraryW(L"mapi32.dll");
    if (!mapi.module)
        return mapi;
    const auto bind = [&](int ordinal) { return GetProcAddress(mapi.module, MAKEINTRESOURCEA(ordinal)); };
    mapi.getDefaultMalloc = reinterpret_cast<decltype(mapi.getDefaultMalloc)>(bind(59));
    mapi.openIMsgOnIStg = reinterpret_cast<decltype(mapi.openIMsgOnIStg)>(bind(198));
    mapi.allocateBuffer = reinterpret_cast<LPALLOCATEBUFFER>(bind(13));
    mapi.allocateMore = reinterpret_cast<LPALLOCATEMORE>(bind(15));
    mapi.freeBuffer = reinterpret_cast<LPFREEBUFFER>(bind(17));
    mapi.openCount = reinterpret_cast<StandInCounter>(GetProcAddress(mapi.module, standInOpenCountExport));
    mapi.liveAllocations = reinterpret_cast<StandInCounter>(GetProcAddress(mapi.module, standInLiveAllocationsExport));
    return mapi;
}

} // namespace

const StandInMapi& standInMapi()
{
    static const StandInMapi mapi = loadStandInMapi();
    return mapi;
}

bool StandInMapi::complete() const
{
    return module && getDefaultMalloc && openIMsgOnIStg && allocateBuffer && allocateMore && freeBuffer &&
           openCount && liveAllocations;
}

HRESULT StandInMapi::open(IStorage* storage, Microsoft::WRL::ComPtr<IMessage>& message) const
{
    return openIMsgOnIStg(nullptr, allocateBuffer, allocateMore, freeBuffer, getDefaultMalloc(), nullptr, storage,
                          nullptr, 0, 0, message.ReleaseAndGetAddressOf());
}

void freeRows(const StandInMapi& mapi, LPSRowSet rows)
{
    if (!rows)
        return;
    for (ULONG r = 0; r < rows->cRows; ++r)
        mapi.freeBuffer(rows->aRow[r].lpProps);
    mapi.freeBuffer(rows);
}

TagList::TagList(std::initializer_list<ULONG> tags)
{
    words_.push_back(static_cast<ULONG>(tags.size()));
    words_.insert(words_.end(), tags.begin(), tags.end());
}
