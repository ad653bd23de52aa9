#include "core/resource_bundle.h"

#include "core/log.h"
#include "common/module_path.h"
#include "common/text_file.h"

namespace {

Logger logger("ResourceBundleImpl");

constexpr size_t maxLineChars = 999;

std::wstring currentDirectoryBase()
{
    wchar_t folder[261] = {};
    const DWORD length = GetCurrentDirectoryW(260, folder);
    std::wstring base(folder, length <= 260 ? length : 0);
    if (base.empty() || base.back() != L'\\')
        base += L'\\';
    // Only the folder of this dummy file name matters.
    return base + L"a.b";
}

} // namespace

std::wstring ResourceBundleMap::getString(const std::wstring& key) const
{
    const auto found = texts_.find(key);
    return found == texts_.end() ? key : found->second;
}

void ResourceBundleMap::addLines(const std::vector<std::wstring>& lines)
{
    for (const std::wstring& line : lines) {
        if (auto entry = splitKeyValue(line))
            texts_[entry->first] = entry->second;
    }
}

std::wstring resourceFileName(const std::wstring& language)
{
    return language.empty() ? L"resource.txt" : L"resource_" + language + L".txt";
}

ResourceBundleImpl::ResourceBundleImpl(std::shared_ptr<ResourceBundle> parent, HMODULE module,
                                       const std::wstring& language)
    : parent_(std::move(parent))
{
    const std::wstring bases[] = {modulePath(module, 260), currentDirectoryBase()};
    const std::wstring languages[] = {language, L"en"};
    for (const std::wstring& base : bases) {
        if (base.empty())
            continue;
        for (const std::wstring& candidate : languages) {
            const std::wstring path = replaceFileName(base, resourceFileName(candidate));
            if (auto lines = readUtf8Lines(path, maxLineChars)) {
                map_.addLines(*lines);
                sourcePath_ = path;
                KV_DEBUG(logger) << "texts from " << path;
                return;
            }
        }
    }
    KV_WARN(logger) << "no text file found for language=" << language;
}

std::wstring ResourceBundleImpl::getString(const std::wstring& key) const
{
    std::wstring text = map_.getString(key);
    if (text == key && parent_)
        return parent_->getString(key);
    return text;
}

std::shared_ptr<ResourceBundle> makeResourceBundle(std::shared_ptr<ResourceBundle> parent, HMODULE module,
                                                   const std::wstring& language)
{
    return std::make_shared<ResourceBundleImpl>(std::move(parent), module, language);
}
