#pragma once
// Every stream of a compound file with its bytes, by its path inside the
// file ("__recip_version1.0_#00000000/__properties_version1.0"), to compare
// two .msg files stream by stream.
#include <windows.h>

#include <map>
#include <string>

// S_OK and the streams, or the failure of opening the file.
HRESULT readStorageStreams(const std::wstring& path, std::map<std::wstring, std::string>& streams);
