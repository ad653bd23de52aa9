#include "addin/ribbon_xml.h"

#include "core/log.h"
#include "addin/ribbon_image.h"
#include "common/module_path.h"
#include "common/strings.h"

#include <string_view>

namespace {

Logger logger("KVDragDropAddin");

struct Placeholder {
    const wchar_t* placeholder;
    const wchar_t* textKey; // null: the ribbon title
};

// In the order they are replaced.
constexpr Placeholder placeholders[] = {
    {L"${ribbonTitle}", nullptr},
    {L"${buttonGroup}", L"buttonGroup"},
    {L"${buttonLabel}", L"buttonActive"},
    {L"${groupOptions}", L"groupOptions"},
    {L"${labelFormat}", L"labelFormat"},
    {L"${labelAlwaysCopy}", L"labelAlwaysCopy"},
    {L"${labelTextAsJson}", L"labelTextAsJson"},
    {L"${labelDecrypt}", L"labelDecrypt"},
    {L"${labelTextAsJsonNone}", L"labelTextAsJsonNone"},
    {L"${labelTextAsJsonTable}", L"labelTextAsJsonTable"},
    {L"${labelTextAsJsonJSON}", L"labelTextAsJsonJSON"},
};

void replaceAll(std::wstring& text, std::wstring_view what, const std::wstring& with)
{
    for (size_t at = text.find(what); at != std::wstring::npos; at = text.find(what, at + with.size()))
        text.replace(at, what.size(), with);
}

// A text may land in an attribute value or in element content: every
// character with a meaning in XML is written as its entity, so a title
// "R&D" or a translation with "<" still gives Office a well-formed document.
std::wstring escapedForXml(const std::wstring& text)
{
    std::wstring escaped;
    escaped.reserve(text.size());
    for (const wchar_t c : text) {
        switch (c) {
        case L'&': escaped += L"&amp;"; break;
        case L'<': escaped += L"&lt;"; break;
        case L'>': escaped += L"&gt;"; break;
        case L'"': escaped += L"&quot;"; break;
        case L'\'': escaped += L"&apos;"; break;
        default: escaped += c;
        }
    }
    return escaped;
}

std::wstring xmlText(std::string_view utf8)
{
    // A byte-order mark is not part of the document's text.
    if (utf8.substr(0, 3) == "\xEF\xBB\xBF")
        utf8.remove_prefix(3);
    return utf8ToWide(utf8);
}

} // namespace

std::optional<std::wstring> loadRibbonDefinitionFile(HMODULE module, const std::wstring& ribbonId)
{
    const std::wstring path = modulePath(module, 1000);
    if (path.empty())
        return std::nullopt;
    const std::wstring file = replaceFileName(path, L"Ribbon." + ribbonId + L".xml");
    UniqueGlobal memory = loadFileIntoMem(file);
    if (!memory)
        return std::nullopt;
    GlobalLockGuard locked(memory.get());
    if (!locked)
        return std::nullopt;
    KV_INFO(logger) << "Loaded ribbon definition from file=" << file;
    return xmlText(std::string_view(locked.as<const char>(), locked.size()));
}

std::optional<std::wstring> loadRibbonTemplate(HMODULE module)
{
    HRSRC resource = FindResourceW(module, MAKEINTRESOURCEW(ribbonTemplateResource), L"XML");
    HGLOBAL loaded = resource ? LoadResource(module, resource) : nullptr;
    const char* bytes = loaded ? static_cast<const char*>(LockResource(loaded)) : nullptr;
    if (!bytes) {
        KV_ERROR(logger) << "ribbon template resource missing, err=" << GetLastError();
        return std::nullopt;
    }
    return xmlText(std::string_view(bytes, SizeofResource(module, resource)));
}

std::wstring replaceRibbonPlaceholders(std::wstring xml, const std::wstring& title,
                                       const std::function<std::wstring(const std::wstring&)>& textOf)
{
    for (const Placeholder& entry : placeholders)
        replaceAll(xml, entry.placeholder, escapedForXml(entry.textKey ? textOf(entry.textKey) : title));
    return xml;
}

bool isOutlook15(const std::wstring& version)
{
    return startsWith(version, L"15.");
}

std::wstring upperCased(std::wstring text)
{
    if (!text.empty())
        CharUpperBuffW(text.data(), static_cast<DWORD>(text.size()));
    return text;
}
