// The formats of a data object in the log, with the names of the standard
// clipboard formats.
#include "dataobject/data_object_writer.h"

#include "core/log.h"
#include "dataobject/format_etc.h"

#include <iterator>
#include <sstream>

namespace {

Logger logger("DataObjectHelper");

struct StandardFormat {
    UINT id;
    const wchar_t* name;
};

constexpr StandardFormat standardFormats[] = {
    {CF_TEXT, L"CF_TEXT"},
    {CF_BITMAP, L"CF_BITMAP"},
    {CF_METAFILEPICT, L"CF_METAFILEPICT"},
    {CF_SYLK, L"CF_SYLK"},
    {CF_DIF, L"CF_DIF"},
    {CF_TIFF, L"CF_TIFF"},
    {CF_OEMTEXT, L"CF_OEMTEXT"},
    {CF_DIB, L"CF_DIB"},
    {CF_PALETTE, L"CF_PALETTE"},
    {CF_PENDATA, L"CF_PENDATA"},
    {CF_RIFF, L"CF_RIFF"},
    {CF_WAVE, L"CF_WAVE"},
    {CF_UNICODETEXT, L"CF_UNICODETEXT"},
    {CF_ENHMETAFILE, L"CF_ENHMETAFILE"},
    {CF_HDROP, L"CF_HDROP"},
    {CF_LOCALE, L"CF_LOCALE"},
    {CF_DIBV5, L"CF_DIBV5"},
    {CF_OWNERDISPLAY, L"CF_OWNERDISPLAY"},
    {CF_DSPTEXT, L"CF_DSPTEXT"},
    {CF_DSPBITMAP, L"CF_DSPBITMAP"},
    {CF_DSPMETAFILEPICT, L"CF_DSPMETAFILEPICT"},
    {CF_DSPENHMETAFILE, L"CF_DSPENHMETAFILE"},
    {CF_PRIVATEFIRST, L"CF_PRIVATEFIRST"},
    {CF_PRIVATELAST, L"CF_PRIVATELAST"},
    {CF_GDIOBJFIRST, L"CF_GDIOBJFIRST"},
    {CF_GDIOBJLAST, L"CF_GDIOBJLAST"},
};

} // namespace

std::wstring clipboardFormatName(CLIPFORMAT format)
{
    for (const StandardFormat& standard : standardFormats) {
        if (standard.id == format)
            return standard.name;
    }
    wchar_t name[256] = {};
    const int length = GetClipboardFormatNameW(format, name, static_cast<int>(std::size(name)));
    return std::wstring(name, length > 0 ? static_cast<size_t>(length) : 0);
}

std::wstring describeFormat(const FORMATETC& format)
{
    std::wostringstream text;
    text << L"cfFormat=" << format.cfFormat << L", name=" << clipboardFormatName(format.cfFormat)
         << L", dwAspect=" << format.dwAspect << L", tymed=" << format.tymed << L", lindex=" << format.lindex
         << L", pdt=" << static_cast<const void*>(format.ptd);
    return text.str();
}

void dumpFormats(IDataObject* dataObject, DWORD direction)
{
    KV_DEBUG(logger) << "dumpFormats(" << (direction == DATADIR_SET ? "DATADIR_SET" : "DATADIR_GET");
    const HRESULT hr = forEachFormat(dataObject, direction, [](const FORMATETC& format) {
        KV_DEBUG(logger) << describeFormat(format);
    });
    KV_DEBUG(logger) << ")dumpFormats=" << hr;
}
