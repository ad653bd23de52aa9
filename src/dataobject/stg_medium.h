#pragma once
// STGMEDIUM ownership: a medium released by ReleaseStgMedium when it goes out
// of scope, and copies of a medium that their receiver may release alone.
#include <objidl.h>

class UniqueStgMedium {
public:
    UniqueStgMedium() = default;
    ~UniqueStgMedium() { reset(); }
    UniqueStgMedium(const UniqueStgMedium&) = delete;
    UniqueStgMedium& operator=(const UniqueStgMedium&) = delete;

    // For GetData: releases what is held and hands out the empty record.
    STGMEDIUM* put()
    {
        reset();
        return &medium_;
    }
    const STGMEDIUM& get() const { return medium_; }
    const STGMEDIUM* operator->() const { return &medium_; }

    // Gives the medium away (to SetData with the release flag set).
    STGMEDIUM release()
    {
        const STGMEDIUM medium = medium_;
        medium_ = STGMEDIUM{};
        return medium;
    }

    void reset()
    {
        if (medium_.tymed != TYMED_NULL || medium_.pUnkForRelease)
            ReleaseStgMedium(&medium_);
        medium_ = STGMEDIUM{};
    }

private:
    STGMEDIUM medium_{};
};

// A medium of its own for the receiver: HGLOBAL blocks and file names are
// copied byte for byte, streams and storages get one more reference, GDI and
// metafile handles are duplicated by OLE. The copy never has a release object.
// DV_E_TYMED for TYMED_NULL or an unknown medium, E_OUTOFMEMORY when a copy
// cannot be made.
HRESULT duplicateMedium(const STGMEDIUM& source, CLIPFORMAT format, STGMEDIUM& copy);
