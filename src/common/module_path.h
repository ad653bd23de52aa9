#pragma once
// Where the add-in's own file lives, and the files beside it.
#include <windows.h>

#include <string>

// The module that contains this code: the add-in DLL, or a test program that
// links the same code.
HMODULE thisModule();

// Full path of a module file, at most maxChars characters; empty on failure.
std::wstring modulePath(HMODULE module, DWORD maxChars);

// The path with its file name replaced by fileName (drive and folder kept).
std::wstring replaceFileName(const std::wstring& path, const std::wstring& fileName);
