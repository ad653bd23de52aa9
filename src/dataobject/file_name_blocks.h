#pragma once
// The blocks of "FileName" (ANSI code page) and "FileNameW" for one path.
#include <windows.h>

#include <string>

// The path in the ANSI code page with its NUL (GMEM_MOVEABLE); null when out of memory.
HGLOBAL ansiFileNameBlock(const std::wstring& path);
// The path as UTF-16 with its NUL (GMEM_MOVEABLE | GMEM_ZEROINIT); null when out of memory.
HGLOBAL wideFileNameBlock(const std::wstring& path);
