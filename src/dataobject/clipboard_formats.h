#pragma once
// The clipboard formats the add-in reads and writes, registered once with the
// system before any data object is looked at.
#include <windows.h>

struct ClipboardFormats {
    CLIPFORMAT fileContents = 0;         // "FileContents"
    CLIPFORMAT fileGroupDescriptorW = 0; // "FileGroupDescriptorW"
    CLIPFORMAT fileGroupDescriptor = 0;  // "FileGroupDescriptor" (ANSI)
    CLIPFORMAT fileNameA = 0;            // "FileName"
    CLIPFORMAT fileNameW = 0;            // "FileNameW"
    CLIPFORMAT shellIdList = 0;          // "Shell IDList Array"
    CLIPFORMAT dragContext = 0;          // "DragContext"
    CLIPFORMAT objectDescriptor = 0;     // "Object Descriptor"
    CLIPFORMAT renPrivateSourceFolder = 0;
    CLIPFORMAT renPrivateItem = 0;
    CLIPFORMAT renPrivateLatestMessages = 0;
    CLIPFORMAT renPrivateMessages = 0;
    CLIPFORMAT csv = 0;
};

// Registers the thirteen formats (idempotent) and logs the ids of the first seven.
void RegisterDataFormats();

// The ids; all zero before RegisterDataFormats.
const ClipboardFormats& clipboardFormats();
