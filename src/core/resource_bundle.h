#pragma once
// Texts shown to the user, looked up by key in resource_<language>.txt beside
// the add-in file. A missing key shows as the key itself.
#include <windows.h>

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

class ResourceBundle {
public:
    virtual std::wstring getString(const std::wstring& key) const = 0;
    virtual ~ResourceBundle() = default;
};

class ResourceBundleMap : public ResourceBundle {
public:
    std::wstring getString(const std::wstring& key) const override;
    // Enters every "key = text" line; a later line for a key replaces the earlier one.
    void addLines(const std::vector<std::wstring>& lines);
    bool empty() const { return texts_.empty(); }

private:
    std::unordered_map<std::wstring, std::wstring> texts_;
};

class ResourceBundleImpl : public ResourceBundle {
public:
    ResourceBundleImpl(std::shared_ptr<ResourceBundle> parent, HMODULE module, const std::wstring& language);
    std::wstring getString(const std::wstring& key) const override;

    // The file the texts came from; empty when none could be opened.
    const std::wstring& sourcePath() const { return sourcePath_; }

private:
    std::shared_ptr<ResourceBundle> parent_;
    ResourceBundleMap map_;
    std::wstring sourcePath_;
};

// "resource_de.txt" for "de", "resource.txt" for an empty language.
std::wstring resourceFileName(const std::wstring& language);

std::shared_ptr<ResourceBundle> makeResourceBundle(std::shared_ptr<ResourceBundle> parent, HMODULE module,
                                                   const std::wstring& language);
