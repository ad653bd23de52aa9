#include "core/globals.h"

#include "core/log.h"
#include "common/module_path.h"
#include "common/strings.h"
#include "core/reg_util.h"

namespace {

Logger logger("Globals");

constexpr const wchar_t* ribbonInfoSetting = L"Ribbon.Microsoft.Outlook.Explorer";
constexpr const wchar_t* installForUserRecord = L"InstallForUser";

} // namespace

Globals& Globals::instance()
{
    static Globals globals(defaultCompanyName, defaultProductName);
    return globals;
}

Globals::Globals(std::wstring companyName, std::wstring productName)
    : productName_(std::move(productName)), companyName_(std::move(companyName)), module_(thisModule())
{
    addinDescription_ = productName_;
    addinFriendlyName_ = addinDescription_;
    loadFromRegistry();
}

void Globals::setProductName(const std::wstring& name)
{
    if (addinDescription_ == productName_)
        addinDescription_ = name;
    if (addinFriendlyName_ == productName_)
        addinFriendlyName_ = name;
    productName_ = name;
    loadFromRegistry();
}

std::wstring Globals::userKey() const
{
    return L"HKCU\\Software\\" + companyName_ + L"\\" + productName_;
}

std::wstring Globals::machineKey() const
{
    return installForUser_ ? userKey() : L"HKLM\\Software\\" + companyName_ + L"\\" + productName_;
}

void Globals::loadFromRegistry()
{
    // The installer leaves this record when it installed for the current user
    // only; the machine place of every setting is then the per-user place.
    installForUser_ = RegUtil::readString(userKey() + L"\\" + installForUserRecord) == L"true";

    const std::wstring maxFiles = readUserThenMachine(L"MaxFiles");
    if (!maxFiles.empty())
        maxFiles_ = parseLeadingInt(maxFiles);
    const std::wstring keepMinutes = readUserThenMachine(L"KeepTempFilesMinutes");
    if (!keepMinutes.empty())
        keepTempFilesMinutes_ = parseLeadingInt(keepMinutes);
    ribbonInfo_ = getString(ribbonInfoSetting, L"");
}

void Globals::migrateTextFormat() const
{
    // TextAsJson was the on/off switch before TextFormat had three choices;
    // whoever had it on keeps JSON output.
    if (getString(L"TextFormat", L"").empty()) {
        setString(L"TextFormat", getBool(L"TextAsJson", false) ? L"json" : L"none");
        RegUtil::deleteKeyIfExists(userKey() + L"\\TextAsJson");
        RegUtil::deleteValueIfExists(userKey(), L"TextAsJson");
    }
}

std::wstring Globals::readUserThenMachine(const std::wstring& name) const
{
    std::wstring value = RegUtil::readString(userKey() + L"\\" + name);
    if (value.empty())
        value = RegUtil::readString(machineKey() + L"\\" + name);
    return value;
}

std::wstring Globals::getString(const std::wstring& name, const std::wstring& defaultValue) const
{
    const std::wstring userPath = userKey() + L"\\" + name;
    std::wstring value = RegUtil::readString(userPath);
    KV_DEBUG(logger) << userPath << "=" << value;
    if (value.empty()) {
        const std::wstring machinePath = machineKey() + L"\\" + name;
        value = RegUtil::readString(machinePath);
        KV_DEBUG(logger) << machinePath << "=" << value;
    }
    return value.empty() ? defaultValue : value;
}

void Globals::setString(const std::wstring& name, const std::wstring& value) const
{
    const std::wstring userPath = userKey() + L"\\" + name;
    KV_DEBUG(logger) << "set " << userPath << "=" << value;
    RegUtil::setRegValue(userPath, L"", value);
}

bool Globals::getBool(const std::wstring& name, bool defaultValue) const
{
    const std::wstring value = getString(name, L"");
    return value.empty() ? defaultValue : value == L"true";
}

void Globals::setBool(const std::wstring& name, bool value) const
{
    setString(name, value ? L"true" : L"false");
}

int Globals::getInt(const std::wstring& name, int defaultValue) const
{
    const std::wstring value = getString(name, L"");
    return value.empty() ? defaultValue : parseLeadingInt(value);
}

void Globals::setInt(const std::wstring& name, int value) const
{
    setString(name, std::to_wstring(value));
}

bool Globals::setRibbonInfo(const std::wstring& text)
{
    ribbonInfo_ = text;
    return RegUtil::setRegValue(ribbonInfoPlace(), L"", text);
}

std::wstring ribbonTitleFor(const std::wstring& ribbonInfo, const std::wstring& localizedTitle)
{
    if (startsWith(ribbonInfo, L"1;"))
        return localizedTitle;
    if (startsWith(ribbonInfo, L"2;")) {
        const std::wstring rest = ribbonInfo.substr(2);
        if (rest == L"1" || rest == L"true" || rest == L"TRUE")
            return localizedTitle;
        return rest;
    }
    return L"";
}

std::wstring Globals::ribbonInfoPlace() const
{
    return machineKey() + L"\\" + ribbonInfoSetting;
}

std::wstring Globals::getRibbonTitle() const
{
    if (!startsWith(ribbonInfo_, L"1;") && !startsWith(ribbonInfo_, L"2;"))
        return L"";
    return ribbonTitleFor(ribbonInfo_, getText(L"ribbonTitle"));
}

void Globals::recordInstallForUser(bool forUser)
{
    installForUser_ = forUser;
    const std::wstring record = userKey() + L"\\" + installForUserRecord;
    if (forUser)
        RegUtil::setRegValue(record, L"", L"true");
    else
        RegUtil::deleteKeyIfExists(record);
}

void Globals::init()
{
    configureLogFromRegistry(userKey());
    // Done at the add-in's start rather than when this object is made:
    // installers and host programs make it too, and must not write a user's
    // settings.
    migrateTextFormat();
    int a = 0, b = 0, c = 0, d = 0;
    getVersion(a, b, c, d);
    KV_INFO(logger) << "Version " << a << "." << b << "." << c << "." << d;
}
