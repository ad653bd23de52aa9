#pragma once
// The add-in's settings. Switchable settings are not cached: each getter reads
// the registry afresh (per-user place, then machine place, then the default)
// and each setter writes the per-user place at once, so a change made on the
// ribbon, in a second Outlook window or by an administrator counts with the
// next drag.
#include <oaidl.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/resource_bundle.h"

class Globals {
public:
    static constexpr const wchar_t* defaultProductName = L"Korvane Addin for Microsoft Outlook";
    static constexpr const wchar_t* defaultCompanyName = L"QUEMBROOK";

    // The one process-wide settings object, made on first use.
    static Globals& instance();

    // A settings object under another company and product key (host programs
    // and tests); loads from the registry like the process-wide one.
    Globals(std::wstring companyName, std::wstring productName);
    Globals(const Globals&) = delete;
    Globals& operator=(const Globals&) = delete;

    // At the add-in's start: the log, the version line, and the move of the
    // obsolete TextAsJson switch into TextFormat.
    void init();
    void migrateTextFormat() const;

    // Generic access by setting name.
    std::wstring getString(const std::wstring& name, const std::wstring& defaultValue) const;
    void setString(const std::wstring& name, const std::wstring& value) const;
    bool getBool(const std::wstring& name, bool defaultValue) const;
    void setBool(const std::wstring& name, bool value) const;
    int getInt(const std::wstring& name, int defaultValue) const;
    void setInt(const std::wstring& name, int value) const;

    bool getLocked() const { return getBool(L"Locked", false); }
    void setLocked(bool value) const { setBool(L"Locked", value); }
    std::wstring getFormat() const { return getString(L"Format", L"msg"); }
    void setFormat(const std::wstring& value) const { setString(L"Format", value); }
    bool getIgnoreTargetEffectIfDroppedIntoOtherApplication() const
    {
        return getBool(L"IgnoreTargetEffectIfDroppedIntoOtherApplication", true);
    }
    void setIgnoreTargetEffectIfDroppedIntoOtherApplication(bool value) const
    {
        setBool(L"IgnoreTargetEffectIfDroppedIntoOtherApplication", value);
    }
    std::wstring getTextFormat() const { return getString(L"TextFormat", L"none"); }
    void setTextFormat(const std::wstring& value) const { setString(L"TextFormat", value); }
    bool getSaveOnBeginDrag() const { return getBool(L"SaveOnBeginDrag", false); }
    void setSaveOnBeginDrag(bool value) const { setBool(L"SaveOnBeginDrag", value); }
    bool getExtractMailAddress() const { return getBool(L"ExtractMailAddress", false); }
    void setExtractMailAddress(bool value) const { setBool(L"ExtractMailAddress", value); }
    bool getDecryptEnabled() const { return getBool(L"DecryptEnabled", true); }
    void setDecryptEnabled(bool value) const { setBool(L"DecryptEnabled", value); }
    bool getDecryptWithRedemption() const { return getBool(L"DecryptWithRedemption", false); }
    void setDecryptWithRedemption(bool value) const { setBool(L"DecryptWithRedemption", value); }
    int getSaveWithRedemptionFormat() const { return getInt(L"SaveWithRedemptionFormat", -1); }
    void setSaveWithRedemptionFormat(int value) const { setInt(L"SaveWithRedemptionFormat", value); }
    bool getTempFileReadOnly() const { return getBool(L"TempFileReadOnly", false); }
    void setTempFileReadOnly(bool value) const { setBool(L"TempFileReadOnly", value); }
    bool getCaptureClipboard() const { return getBool(L"CaptureClipboard", false); }
    void setCaptureClipboard(bool value) const { setBool(L"CaptureClipboard", value); }

    const std::wstring& getRibbonInfo() const { return ribbonInfo_; }
    // Writes the machine place (the per-user place when installed for the user only).
    bool setRibbonInfo(const std::wstring& text);
    // The key whose unnamed value setRibbonInfo writes.
    std::wstring ribbonInfoPlace() const;
    std::wstring getRibbonTitle() const;

    std::wstring getText(const std::wstring& key) const;
    std::shared_ptr<ResourceBundle> getResourceBundle() const;
    void setLanguage(IDispatch* application);

    bool getVersion(int& a, int& b, int& c, int& d) const;

    void readInstallOptionsFromConfigFile();
    void applyInstallationOptions(const std::wstring& params);
    // Remembers in the per-user key whether the add-in was installed for the
    // current user only, so the next start knows where the machine place is.
    void recordInstallForUser(bool forUser);

    const std::wstring& productName() const { return productName_; }
    // A host program's own product: its settings key, and the add-in's names
    // where they were the product's.
    void setProductName(const std::wstring& name);
    const std::wstring& companyName() const { return companyName_; }
    const std::wstring& addinFriendlyName() const { return addinFriendlyName_; }
    const std::wstring& addinDescription() const { return addinDescription_; }
    int keepTempFilesMinutes() const { return keepTempFilesMinutes_; }
    int maxFiles() const { return maxFiles_; }
    bool installForUser() const { return installForUser_; }

    // "HKCU\Software\<company>\<product>" and its machine counterpart.
    std::wstring userKey() const;
    std::wstring machineKey() const;

    // Where the module's texts and install.cfg are looked for; the module
    // that contains this code unless a host says otherwise.
    void setModule(HMODULE module) { module_ = module; }
    HMODULE module() const { return module_; }

private:
    void loadFromRegistry();
    std::wstring readUserThenMachine(const std::wstring& name) const;
    void makeResourceBundleFor(const std::wstring& language) const;

    std::wstring productName_;
    std::wstring companyName_;
    std::wstring addinFriendlyName_;
    std::wstring addinDescription_;
    std::wstring ribbonInfo_;
    int keepTempFilesMinutes_ = 1440;
    int maxFiles_ = -1;
    bool installForUser_ = false;
    mutable std::shared_ptr<ResourceBundle> resourceBundle_;
    mutable std::mutex resourceBundleLock_;
    HMODULE module_ = nullptr;
};

// The fields of the installer's parameter string: one leading and one
// trailing double quote removed, split at every backslash.
std::vector<std::wstring> installParameterFields(const std::wstring& params);

// The two-letter ISO 639 code of a Windows language id, empty on failure.
std::wstring languageCodeOf(LANGID languageId);

// The tab title that a ribbonInfo text asks for: empty, the localized
// "ribbonTitle", or the text after "2;".
std::wstring ribbonTitleFor(const std::wstring& ribbonInfo, const std::wstring& localizedTitle);
