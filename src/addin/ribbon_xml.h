#pragma once
// The ribbon XML that the add-in hands to Office: a definition file beside
// the add-in or the built-in template, with its placeholders replaced by the
// texts of the user's language.
#include <windows.h>

#include <functional>
#include <optional>
#include <string>

inline constexpr const wchar_t* explorerRibbonId = L"Microsoft.Outlook.Explorer";
inline constexpr WORD ribbonTemplateResource = 201;

// "Ribbon." + ribbonId + ".xml" in the folder of `module`, read as UTF-8;
// nullopt when there is no such file or it can't be read.
std::optional<std::wstring> loadRibbonDefinitionFile(HMODULE module, const std::wstring& ribbonId);

// The template, resource 201 of type "XML" (UTF-8); nullopt when missing.
std::optional<std::wstring> loadRibbonTemplate(HMODULE module);

// Every placeholder, in a fixed order, each everywhere: "${ribbonTitle}" by
// `title`, the others by the text of the key that `textOf` looks up; each
// text escaped for XML.
std::wstring replaceRibbonPlaceholders(std::wstring xml, const std::wstring& title,
                                       const std::function<std::wstring(const std::wstring&)>& textOf);

// Outlook 2013 (version 15) shows tab titles in capitals; the add-in's tab
// follows suit.
bool isOutlook15(const std::wstring& version);
std::wstring upperCased(std::wstring text);
