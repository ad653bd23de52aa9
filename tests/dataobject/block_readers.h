#pragma once
// Readers for the blocks the toolkit writes, used by its tests: CF_HDROP
// through the shell's own DragQueryFileW, the CIDA block with bounds checks
// and the shell's ILGetSize.
#include <windows.h>
#include <shellapi.h>
#include <shlobj.h>

#include <cstring>
#include <string>
#include <vector>

inline std::string globalBytes(HGLOBAL memory)
{
    const void* data = memory ? GlobalLock(memory) : nullptr;
    if (!data)
        return std::string();
    std::string bytes(static_cast<const char*>(data), GlobalSize(memory));
    GlobalUnlock(memory);
    return bytes;
}

inline std::vector<std::wstring> dragQueryPaths(HGLOBAL hdrop)
{
    std::vector<std::wstring> paths;
    auto drop = static_cast<HDROP>(hdrop);
    const UINT count = DragQueryFileW(drop, 0xFFFFFFFF, nullptr, 0);
    for (UINT i = 0; i < count; ++i) {
        std::wstring path(DragQueryFileW(drop, i, nullptr, 0) + 1, L'\0');
        path.resize(DragQueryFileW(drop, i, path.data(), static_cast<UINT>(path.size())));
        paths.push_back(path);
    }
    return paths;
}

inline std::string pidlBytes(LPCITEMIDLIST pidl)
{
    return pidl ? std::string(reinterpret_cast<const char*>(pidl), ILGetSize(pidl)) : std::string();
}

// The lists of a CIDA block, parent first. `valid` is false when a count, an
// offset or a list runs past the block.
struct ParsedCida {
    bool valid = false;
    UINT cidl = 0;
    std::vector<UINT> offsets;
    std::vector<std::string> lists; // each list's bytes, its terminator included
};

inline ParsedCida parseCida(const std::string& block)
{
    ParsedCida cida;
    if (block.size() < 4)
        return cida;
    std::memcpy(&cida.cidl, block.data(), 4);
    if (cida.cidl > (block.size() - 4) / 4 - 1)
        return cida;
    for (UINT j = 0; j <= cida.cidl; ++j) {
        UINT offset = 0;
        std::memcpy(&offset, block.data() + 4 + 4 * j, 4);
        // Walk the ids by hand first, so a bad list is caught inside the block.
        size_t position = offset;
        for (;;) {
            if (position + 2 > block.size())
                return cida;
            USHORT cb = 0;
            std::memcpy(&cb, block.data() + position, 2);
            if (cb == 0)
                break;
            position += cb;
        }
        const auto* pidl = reinterpret_cast<LPCITEMIDLIST>(block.data() + offset);
        const UINT size = ILGetSize(pidl);
        if (offset + size != position + 2)
            return cida;
        cida.offsets.push_back(offset);
        cida.lists.emplace_back(block.data() + offset, size);
    }
    cida.valid = true;
    return cida;
}
