#pragma once
// The exported Base64 file tools.
#include <windows.h>

extern "C" HRESULT WINAPI EncodeBase64(const wchar_t* inputFile, const wchar_t* outputFile);
extern "C" HRESULT WINAPI DecodeBase64(const wchar_t* inputFile, const wchar_t* outputFile);
