// The packages under msiexec (install, upgrade, removal in this prefix), the
// add-in loaded by Outlook's stand-in through what they registered, and the
// custom actions in a real installer session.
#include "common/strings.h"
#include "common/unique_resource.h"
#include "korvane_h.h"
#include "support/child_process.h"
#include "support/registry_snapshot.h"
#include "support/scratch.h"

#include "e2e_shared/standin_result.h"

#include <gtest/gtest.h>
#include <msi.h>
#include <msiquery.h>
#include <sddl.h>
#include <shlobj.h>

namespace {

constexpr const wchar_t* addinSubKey = L"Software\\Microsoft\\Office\\Outlook\\Addins\\KVDragDropAddin.class";
constexpr const wchar_t* productSubKey = L"Software\\QUEMBROOK\\Korvane Addin for Microsoft Outlook";
constexpr const wchar_t* upgradeCode = L"{A1F32795-1335-4096-834D-AD4F6DC375A4}";

std::wstring environment(const wchar_t* name)
{
    wchar_t value[1024] = {};
    GetEnvironmentVariableW(name, value, 1024);
    return value;
}

std::wstring knownFolder(REFKNOWNFOLDERID id)
{
    PWSTR path = nullptr;
    SHGetKnownFolderPath(id, 0, nullptr, &path);
    std::wstring text = path ? path : L"";
    CoTaskMemFree(path);
    return text;
}

// Registry entries Windows Installer keeps about the products it installed.
bool installersOwn(const std::wstring& change)
{
    for (const wchar_t* part : {L"\\Installer\\", L"\\Installer|", L"\\Uninstall\\", L"Classes\\Installer"}) {
        if (change.find(part) != std::wstring::npos)
            return true;
    }
    return change.ends_with(L"\\Installer");
}

// What an installation of the scope writes besides the installer's own
// records: the class with its ProgIDs, type library and interface, Outlook's
// add-in key, and the settings the package was given.
std::vector<std::wstring> unexpected(const std::vector<std::wstring>& changes, const std::wstring& root)
{
    const std::wstring names[] = {root + L"\\Software\\Microsoft\\Office\\Outlook", root + L"\\Software\\QUEMBROOK",
                                  L"KVDragDropAddin.class", guidText(CLSID_CKVDragDropAddin),
                                  guidText(LIBID_korvaneLib), guidText(IID_IKVDragDropAddin)};
    std::vector<std::wstring> left;
    for (const std::wstring& change : changes) {
        // Under the root; class containers a fresh user's registry lacks are made on the way.
        bool ours = startsWith(change.substr(2), root + L"\\") &&
                    (change.ends_with(L"\\CLSID") || change.ends_with(L"\\TypeLib") || change.ends_with(L"\\Interface"));
        for (const std::wstring& name : names)
            ours = ours || change.find(name) != std::wstring::npos;
        if (!ours && !installersOwn(change))
            left.push_back(change);
    }
    return left;
}

// A key of HKLM below which nobody may write, as for a user without
// administrator rights; made for the test and removed again.
class DeniedWrites {
public:
    explicit DeniedWrites(const wchar_t* subKey) : subKey_(subKey)
    {
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        // Everyone: no values set, no keys made; all else allowed.
        ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:(D;;0x6;;;WD)(A;;KA;;;WD)", SDDL_REVISION_1,
                                                             &descriptor, nullptr);
        RegCreateKeyExW(HKEY_LOCAL_MACHINE, subKey, 0, nullptr, 0, KEY_READ | WRITE_DAC, nullptr, key_.put(), nullptr);
        EXPECT_EQ(RegSetKeySecurity(key_.get(), DACL_SECURITY_INFORMATION, descriptor), ERROR_SUCCESS);
        LocalFree(descriptor);
    }
    ~DeniedWrites()
    {
        key_.reset();
        std::wstring key = subKey_;
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, key.c_str());
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, key.substr(0, key.rfind(L'\\')).c_str());
    }
    DeniedWrites(const DeniedWrites&) = delete;
    DeniedWrites& operator=(const DeniedWrites&) = delete;

private:
    const wchar_t* subKey_;
    UniqueRegKey key_;
};

class Packages : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(fileExists(package)) << wideToUtf8(package) << ": build it with make package";
        for (HKEY root : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER}) {
            UniqueRegKey office;
            ASSERT_EQ(RegCreateKeyExW(root, L"Software\\Microsoft\\Office", 0, nullptr, 0, KEY_READ, nullptr,
                                      office.put(), nullptr),
                      ERROR_SUCCESS);
        }
        // A user's own choice, which no installation may touch.
        RegSetKeyValueW(HKEY_CURRENT_USER, (std::wstring(productSubKey) + L"\\Format").c_str(), nullptr, REG_SZ,
                        L"eml", 8);
        before = takeRegistrySnapshot();
    }
    void TearDown() override
    {
        RegDeleteTreeW(HKEY_CURRENT_USER, L"Software\\QUEMBROOK");
        RegDeleteKeyW(HKEY_CURRENT_USER, L"Software\\QUEMBROOK");
    }

    DWORD msiexec(const std::wstring& arguments) const
    {
        return runProgram(L"msiexec.exe " + arguments + L" /qn /l*v " + quoted(folder.file(L"msiexec.log")));
    }
    std::string installerLog() const { return readBytes(folder.file(L"msiexec.log")); }
    std::vector<std::wstring> changes() const { return registryChanges(before, takeRegistrySnapshot()); }
    void expectNothingLeft(const std::wstring& installFolder) const
    {
        const auto left = changes();
        // The add-in's first start records the user's text format: a setting of the user's, which stays.
        const std::wstring textFormat = L"+ HKCU\\" + std::wstring(productSubKey) + L"\\TextFormat";
        std::vector<std::wstring> ours;
        std::copy_if(left.begin(), left.end(), std::back_inserter(ours),
                     [&](auto& change) { return !installersOwn(change) && !startsWith(change, textFormat); });
        EXPECT_TRUE(ours.empty()) << describeChanges(ours);
        EXPECT_FALSE(fileExists(installFolder + L"\\korvane64.dll"));
        EXPECT_EQ(GetFileAttributesW(installFolder.c_str()), INVALID_FILE_ATTRIBUTES);
        EXPECT_EQ(rawString(HKEY_CURRENT_USER, std::wstring(productSubKey) + L"\\Format"), L"eml");
    }
    // The ribbon tab Outlook's stand-in gets from the add-in it loaded through the registration.
    std::string loadedTabTitle() const
    {
        const std::wstring result = folder.file(L"standin.txt");
        DeleteFileW(result.c_str());
        const DWORD exit = runProgram(quoted(testProgramFolder() + L"\\outlook_standin.exe") + L" --result " +
                                      quoted(result) + L" connect ribbon shutdown");
        EXPECT_EQ(exit, 0u);
        const auto ribbon = stepsNamed(readStandInResult(result), "ribbon");
        return ribbon.empty() ? "<no ribbon step>" : ribbon.front().value("title");
    }

    const std::wstring package = environment(L"KORVANE_PACKAGE");
    const std::wstring upgrade = environment(L"KORVANE_UPGRADE_PACKAGE");
    ScratchFolder folder;
    RegistrySnapshot before;
};

} // namespace

TEST_F(Packages, PerMachineInstallUpgradeAndRemoval)
{
    const std::wstring installFolder = knownFolder(FOLDERID_ProgramFiles) + L"\\Korvane";
    ASSERT_EQ(msiexec(L"/i " + quoted(package) + L" RIBBONINFO=\"2;Mail tools\" MAXFILES=25"), 0u) << installerLog();
    EXPECT_TRUE(fileExists(installFolder + L"\\korvane64.dll"));
    EXPECT_TRUE(fileExists(installFolder + L"\\resource_de.txt"));
    EXPECT_NE(installerLog().find("Korvane: Registered the COM class"), std::string::npos) << installerLog();
    EXPECT_EQ(rawString(HKEY_LOCAL_MACHINE, addinSubKey, L"FriendlyName"), L"Korvane Addin for Microsoft Outlook");
    EXPECT_EQ(rawString(HKEY_LOCAL_MACHINE, std::wstring(productSubKey) + L"\\MaxFiles"), L"25");
    const auto written = unexpected(changes(), L"HKLM");
    EXPECT_TRUE(written.empty()) << describeChanges(written);
    EXPECT_EQ(loadedTabTitle(), "Mail tools");

    // A newer package replaces the installed one in place.
    ASSERT_EQ(msiexec(L"/i " + quoted(upgrade) + L" RIBBONINFO=\"2;Upgraded\""), 0u) << installerLog();
    std::vector<std::wstring> products;
    wchar_t product[39] = {};
    for (DWORD index = 0; MsiEnumRelatedProductsW(upgradeCode, 0, index, product) == ERROR_SUCCESS; ++index)
        products.push_back(product);
    ASSERT_EQ(products.size(), 1u);
    wchar_t version[32] = {};
    DWORD length = 32;
    MsiGetProductInfoW(products[0].c_str(), INSTALLPROPERTY_VERSIONSTRING, version, &length);
    EXPECT_EQ(std::wstring(version), environment(L"KORVANE_UPGRADE_VERSION"));
    EXPECT_EQ(loadedTabTitle(), "Upgraded");
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, std::wstring(productSubKey) + L"\\Format"), L"eml");

    ASSERT_EQ(msiexec(L"/x " + quoted(upgrade)), 0u) << installerLog();
    expectNothingLeft(installFolder);
}

TEST_F(Packages, PerUserInstallAndRemovalStayInTheUsersPlaces)
{
    // Wine turns ALLUSERS=2 into a per-machine install; an empty ALLUSERS
    // (last: Wine's msiexec swallows the argument after it) is per user on
    // Windows too.
    const std::wstring perUser = L" MSIINSTALLPERUSER=1 ALLUSERS=";
    const std::wstring installFolder = knownFolder(FOLDERID_LocalAppData) + L"\\Programs\\Korvane";
    ASSERT_EQ(msiexec(L"/i " + quoted(package) + L" RIBBONINFO=\"2;Mine\"" + perUser), 0u) << installerLog();
    EXPECT_TRUE(fileExists(installFolder + L"\\korvane64.dll"));
    const auto written = unexpected(changes(), L"HKCU");
    EXPECT_TRUE(written.empty()) << describeChanges(written);
    // COM activation under Wine ignores HKCU\Software\Classes: what was written is the proof.
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, L"Software\\Classes\\CLSID\\" + guidText(CLSID_CKVDragDropAddin) +
                                               L"\\InprocServer32"),
              installFolder + L"\\korvane64.dll");
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, std::wstring(productSubKey) + L"\\Ribbon.Microsoft.Outlook.Explorer"),
              L"2;Mine");
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, addinSubKey, L"FriendlyName"), L"Korvane Addin for Microsoft Outlook");

    ASSERT_EQ(msiexec(L"/x " + quoted(package) + perUser), 0u) << installerLog();
    expectNothingLeft(installFolder);
}

// The custom actions in a real installer session, as a deferred action gets
// them: the parameter string in CustomActionData, lines in the installer's log.
TEST_F(Packages, CustomActionsRunInAnInstallerSession)
{
    std::vector<std::wstring> logged;
    MsiSetInternalUI(INSTALLUILEVEL_NONE, nullptr);
    MsiSetExternalUIW(
        [](void* context, UINT type, LPCWSTR message) -> int {
            if ((type & 0xFF000000) == INSTALLMESSAGE_INFO && message)
                static_cast<std::vector<std::wstring>*>(context)->push_back(message);
            return 0;
        },
        INSTALLLOGMODE_INFO, &logged);
    MSIHANDLE session = 0;
    ASSERT_EQ(MsiOpenPackageExW(package.c_str(), MSIOPENPACKAGEFLAGS_IGNOREMACHINESTATE, &session), ERROR_SUCCESS);
    const AddinCopy dll(folder);
    using CustomAction = UINT WINAPI(MSIHANDLE);
    auto action = [&](const char* name, const wchar_t* data) {
        MsiSetPropertyW(session, L"CustomActionData", data);
        auto* function = reinterpret_cast<CustomAction*>(
            reinterpret_cast<void*>(GetProcAddress(dll.module(), name)));
        return function ? function(session) : ERROR_PROC_NOT_FOUND;
    };

    EXPECT_EQ(action("InstallAddin", L"1.0\\Key only\\\\user\\2;Session"), static_cast<UINT>(ERROR_SUCCESS));
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, addinSubKey, L"FriendlyName"), L"Key only");
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, L"Software\\Classes\\KVDragDropAddin.class"), L"<missing>");
    EXPECT_EQ(action("UninstallAddin", L"1.0\\\\\\user"), static_cast<UINT>(ERROR_SUCCESS));
    EXPECT_EQ(action("Install", L"1.0\\Everything\\\\user"), static_cast<UINT>(ERROR_SUCCESS));
    EXPECT_EQ(rawString(HKEY_CURRENT_USER, L"Software\\Classes\\KVDragDropAddin.class\\CLSID"),
              guidText(CLSID_CKVDragDropAddin));
    EXPECT_EQ(action("Uninstall", L"1.0\\\\\\user"), static_cast<UINT>(ERROR_SUCCESS));

    // Without the right to write Outlook's machine-wide add-in keys, a
    // per-machine installation fails, says why, and takes back what it wrote.
    const RegistrySnapshot withoutRights = takeRegistrySnapshot();
    {
        const DeniedWrites denied(L"Software\\Microsoft\\Office\\Outlook\\Addins");
        EXPECT_EQ(action("Install", L"1.0\\\\\\machine"), static_cast<UINT>(ERROR_INSTALL_FAILURE));
    }
    const auto leftByFailure = registryChanges(withoutRights, takeRegistrySnapshot());
    EXPECT_TRUE(leftByFailure.empty()) << describeChanges(leftByFailure);
    MsiCloseHandle(session);

    const auto left = changes();
    EXPECT_TRUE(left.empty()) << describeChanges(left);
    std::wstring all;
    for (const auto& line : logged)
        all += line + L"\n";
    EXPECT_NE(all.find(L"Korvane: Registered the COM class"), std::wstring::npos) << wideToUtf8(all);
    EXPECT_NE(all.find(L"Korvane: Removed Outlook's add-in key"), std::wstring::npos) << wideToUtf8(all);
    EXPECT_NE(all.find(L"Installing for the machine needs administrator rights"), std::wstring::npos)
        << wideToUtf8(all);
}
