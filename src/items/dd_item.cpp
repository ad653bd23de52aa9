#include "items/dd_item.h"

#include "core/log.h"
#include "common/strings.h"

#include <sstream>

namespace {

Logger itemLogger("DDItem");
Logger listLogger("DDItemss");

template <typename Operation>
HRESULT forEachItem(const std::vector<std::unique_ptr<DDItem>>& items, const char* name, Operation operation)
{
    const DWORD start = GetTickCount();
    KV_DEBUG(listLogger) << "begin " << name << " #items=" << items.size();
    HRESULT hr = S_OK;
    for (const auto& item : items) {
        if (!item)
            continue;
        hr = operation(*item);
        if (FAILED(hr))
            break;
    }
    KV_DEBUG(listLogger) << "end " << name << " #items=" << items.size() << ", ms=" << (GetTickCount() - start)
                         << ", hr=" << hr;
    return hr;
}

} // namespace

DDItem::DDItem(std::wstring fileName) : fileName_(std::move(fileName))
{
    KV_DEBUG(itemLogger) << "DDItem(fileName=" << fileName_ << ")";
}

DDItem::~DDItem() = default;

void DDItem::writeJson(std::wostream& out, int indent)
{
    writeJsonValue(out, L"type", L"class " + widen(typeName()), indent);
    out << L"," << std::endl;
    writeJsonValue(out, L"fileName", fileNameOfPath(fileName_), indent);
}

HRESULT DDItems::save()
{
    return forEachItem(items_, "save", [](DDItem& item) { return item.save(); });
}

HRESULT DDItems::prepareFiles()
{
    return forEachItem(items_, "prepareFiles", [](DDItem& item) { return item.prepareFile(); });
}

void DDItems::release()
{
    if (items_.empty())
        return;
    KV_DEBUG(listLogger) << "release #items=" << items_.size();
    // In list order, like the files were made.
    for (auto& item : items_)
        item.reset();
    items_.clear();
}

std::wstring DDItems::toJson() const
{
    const DWORD start = GetTickCount();
    KV_DEBUG(listLogger) << "begin json #items=" << items_.size();
    std::wostringstream out;
    out << L"{" << std::endl;
    out << jsonIndent(2) << L"\"items\" : [" << std::endl;
    for (size_t i = 0; i < items_.size(); ++i) {
        out << jsonIndent(4) << L"{" << std::endl;
        items_[i]->writeJson(out, 6);
        out << std::endl;
        out << jsonIndent(4) << L"}" << (i + 1 < items_.size() ? L"," : L"") << std::endl;
    }
    out << jsonIndent(2) << L"]" << std::endl;
    out << L"}" << std::endl;
    KV_DEBUG(listLogger) << "end json #items=" << items_.size() << ", ms=" << (GetTickCount() - start);
    return out.str();
}
