#include "dataobject/clipboard_formats.h"

#include "core/log.h"

namespace {

Logger logger("DataObjectHelper");

ClipboardFormats formats;

struct Registration {
    CLIPFORMAT ClipboardFormats::*id;
    const wchar_t* name;
    const char* label; // how the id is logged; null: not logged
};

// Outlook's own formats and the OLE ones at the end are registered so that
// format dumps can name them; nothing reads them.
constexpr Registration registrations[] = {
    {&ClipboardFormats::fileContents, L"FileContents", "file contents format ="},
    {&ClipboardFormats::fileGroupDescriptorW, L"FileGroupDescriptorW", "file group descriptor UNICODE format ="},
    {&ClipboardFormats::fileGroupDescriptor, L"FileGroupDescriptor", "file group descriptor ASCII format ="},
    {&ClipboardFormats::fileNameA, L"FileName", "CF_FILENAMEA="},
    {&ClipboardFormats::fileNameW, L"FileNameW", "CF_FILENAMEW="},
    {&ClipboardFormats::shellIdList, L"Shell IDList Array", "CF_IDLIST="},
    {&ClipboardFormats::dragContext, L"DragContext", "DragContext="},
    {&ClipboardFormats::objectDescriptor, L"Object Descriptor", nullptr},
    {&ClipboardFormats::renPrivateSourceFolder, L"RenPrivateSourceFolder", nullptr},
    {&ClipboardFormats::renPrivateItem, L"RenPrivateItem", nullptr},
    {&ClipboardFormats::renPrivateLatestMessages, L"RenPrivateLatestMessages", nullptr},
    {&ClipboardFormats::renPrivateMessages, L"RenPrivateMessages", nullptr},
    {&ClipboardFormats::csv, L"CSV", nullptr},
};

} // namespace

// The system hands out the same id for the same name for the life of the
// session, so registering again only repeats the same answers; that keeps the
// ids right whoever calls first, and each call logs what it found.
void RegisterDataFormats()
{
    KV_DEBUG(logger) << "RegisterDataFormats(";
    for (const Registration& registration : registrations) {
        const CLIPFORMAT id = static_cast<CLIPFORMAT>(RegisterClipboardFormatW(registration.name));
        formats.*registration.id = id;
        if (registration.label)
            KV_INFO(logger) << registration.label << id;
    }
    KV_DEBUG(logger) << ")RegisterDataFormats";
}

const ClipboardFormats& clipboardFormats()
{
    return formats;
}
