#pragma once
// Reading what a drop delivers: the paths in a CF_HDROP block, the files in a
// folder, and the subject of a saved .msg file opened as a compound file.
#include <windows.h>
#include <objidl.h>

#include <string>
#include <vector>

// The paths of a CF_HDROP block, read with DragQueryFileW.
std::vector<std::wstring> pathsOfHdrop(HDROP drop);

// GetData(CF_HDROP) of a data object and its paths; empty when it has none.
std::vector<std::wstring> hdropPathsOf(IDataObject* dataObject);

// CF_UNICODETEXT of a data object (without the NUL); empty when it has none.
std::wstring unicodeTextOf(IDataObject* dataObject);

// Whether the object answers QueryGetData for a format in an HGLOBAL.
bool offersFormat(IDataObject* dataObject, CLIPFORMAT format);

// The names of the entries of a folder (no "." and ".."), sorted.
std::vector<std::wstring> entriesOf(const std::wstring& folder);

// The subfolders of a folder, full paths, sorted.
std::vector<std::wstring> subfoldersOf(const std::wstring& folder);

ULONGLONG fileSize(const std::wstring& path);

// Opens the file with StgOpenStorageEx as a compound file and reads the
// message's subject; S_OK and the subject, or the failure.
HRESULT subjectOfMsgFile(const std::wstring& path, std::wstring& subject);
