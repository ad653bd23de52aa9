#pragma once
// One dragged object that becomes a file, and the owning list of one drag's
// items with the operations on all of them and their JSON text.
#include "items/json_text.h"

#include <windows.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

class DDItem {
public:
    explicit DDItem(std::wstring fileName);
    virtual ~DDItem();
    DDItem(const DDItem&) = delete;
    DDItem& operator=(const DDItem&) = delete;

    // Writes the complete file; does nothing once the item is saved.
    virtual HRESULT save() = 0;
    // Creates the file ahead of its contents, so a drop target finds it at once.
    virtual HRESULT prepareFile() = 0;
    // The item's members of the JSON text; the base writes "type" and "fileName".
    virtual void writeJson(std::wostream& out, int indent);

    // The path of the file in the temporary folder.
    const std::wstring& fileName() const { return fileName_; }
    bool isSaved() const { return saved_; }

protected:
    // The class name as the item list shows it ("AttachmentItem", "MailItem").
    virtual const char* typeName() const = 0;

    std::wstring fileName_;
    bool saved_ = false;
};

class DDItems {
public:
    DDItems() = default;
    DDItems(const DDItems&) = delete;
    DDItems& operator=(const DDItems&) = delete;
    ~DDItems() { release(); }

    void add(std::unique_ptr<DDItem> item) { items_.push_back(std::move(item)); }
    size_t size() const { return items_.size(); }
    bool empty() const { return items_.empty(); }
    DDItem* at(size_t index) const { return items_[index].get(); }

    HRESULT save();
    HRESULT prepareFiles();
    void release();
    std::wstring toJson() const;

private:
    std::vector<std::unique_ptr<DDItem>> items_;
};
