// What users and administrators set: the settings in the registry (in the
// view of Outlook's bitness), install.cfg and the installer's parameters, the
// texts of each language; and Base64, which carries button images in the registry.
#include "addin_host.h"

#include "core/resource_bundle.h"
#include "core/base64.h"

#include <filesystem>

namespace {

std::wstring text(bool value) { return value ? L"true" : L"false"; }
std::wstring text(int value) { return std::to_wstring(value); }
std::wstring text(const std::wstring& value) { return value; }
template <auto getter>
std::wstring read(const Globals& settings) { return text((settings.*getter)()); }
} // namespace

TEST_F(Addin, EverySettingComesFromTheUserThenTheMachineThenItsDefault)
{
    // Each setting: its default, a machine and a user value, whether it is read once at the start.
    const struct {
        const wchar_t *name, *defaultValue, *machineValue, *userValue;
        bool readAtStart;
        std::wstring (*get)(const Globals&);
    } rows[] = {
        {L"Locked", L"false", L"true", L"false", false, read<&Globals::getLocked>},
        {L"Format", L"msg", L"eml", L"msg", false, read<&Globals::getFormat>},
        {L"IgnoreTargetEffectIfDroppedIntoOtherApplication", L"true", L"false", L"true", false,
         read<&Globals::getIgnoreTargetEffectIfDroppedIntoOtherApplication>},
        {L"TextFormat", L"none", L"json", L"table", false, read<&Globals::getTextFormat>},
        {L"SaveOnBeginDrag", L"false", L"true", L"false", false, read<&Globals::getSaveOnBeginDrag>},
        {L"ExtractMailAddress", L"false", L"true", L"false", false, read<&Globals::getExtractMailAddress>},
        {L"DecryptEnabled", L"true", L"false", L"true", false, read<&Globals::getDecryptEnabled>},
        {L"DecryptWithRedemption", L"false", L"true", L"false", false, read<&Globals::getDecryptWithRedemption>},
        {L"SaveWithRedemptionFormat", L"-1", L"3", L"5", false, read<&Globals::getSaveWithRedemptionFormat>},
        {L"TempFileReadOnly", L"false", L"true", L"false", false, read<&Globals::getTempFileReadOnly>},
        {L"CaptureClipboard", L"false", L"true", L"false", false, read<&Globals::getCaptureClipboard>},
        {L"MaxFiles", L"-1", L"25", L"3", true, read<&Globals::maxFiles>},
        {L"KeepTempFilesMinutes", L"1440", L"1", L"90", true, read<&Globals::keepTempFilesMinutes>}, // no lower bound
        {L"Ribbon.Microsoft.Outlook.Explorer", L"", L"1;", L"2;Mail tools", true, read<&Globals::getRibbonInfo>},
    };
    globals();
    EXPECT_EQ(userValue(L"TextFormat"), L"") << "a settings object writes nothing (installers make one too)";
    for (const auto& row : rows) {
        SCOPED_TRACE(wideToUtf8(row.name));
        const auto running = globals();
        EXPECT_EQ(row.get(*running), row.defaultValue);
        machine(row.name, row.machineValue);
        EXPECT_EQ(row.get(*globals()), row.machineValue);
        user(row.name, L""); // an empty value is no value
        EXPECT_EQ(row.get(*globals()), row.machineValue);
        user(row.name, row.userValue);
        EXPECT_EQ(row.get(*globals()), row.userValue);
        // Switches count with the next drag; numbers and the ribbon info from the next start.
        EXPECT_EQ(row.get(*running), row.readAtStart ? row.defaultValue : row.userValue);
    }
    for (const wchar_t* notTrue : {L"TRUE", L"1", L"yes", L"True", L" true"}) {
        user(L"DecryptEnabled", notTrue);
        EXPECT_FALSE(globals()->getDecryptEnabled()) << wideToUtf8(notTrue);
    }
    user(L"MaxFiles", L"many");
    EXPECT_EQ(globals()->maxFiles(), 0);
    const DWORD number = 4711; // as a .reg file may give it
    const std::wstring maxFiles = productKey + L"\\MaxFiles";
    ASSERT_EQ(RegSetKeyValueW(HKEY_CURRENT_USER, maxFiles.c_str(), nullptr, REG_DWORD, &number, sizeof number), 0);
    EXPECT_EQ(globals()->maxFiles(), 4711);
    // Installed for the user only: the machine place is the user's.
    ASSERT_TRUE(RegUtil::deleteKey(userPlace(L"Format")));
    globals()->recordInstallForUser(true);
    EXPECT_TRUE(globals()->installForUser());
    EXPECT_EQ(globals()->getFormat(), L"msg");
    globals()->recordInstallForUser(false);
    EXPECT_EQ(globals()->getFormat(), L"eml");
}

// The obsolete TextAsJson switch, a key or a named value, becomes TextFormat
// (at the first start, see the connection test) unless TextFormat is there.
TEST_F(Addin, TextAsJsonBecomesTextFormatAndTheRibbonInfoGivesTheTitle)
{
    const struct {
        const wchar_t *textFormat, *asKey, *asValue, *expected;
    } rows[] = {{nullptr, nullptr, nullptr, L"none"}, {nullptr, L"true", nullptr, L"json"},
                {nullptr, nullptr, L"true", L"json"},  {nullptr, L"false", nullptr, L"none"},
                {L"table", L"true", nullptr, L"table"}};
    for (const auto& row : rows) {
        removeSettingsKeys(Globals::defaultCompanyName, Globals::defaultProductName);
        EXPECT_TRUE(!row.textFormat || RegUtil::setRegValue(userPlace(L"TextFormat"), L"", row.textFormat));
        EXPECT_TRUE(!row.asKey || RegUtil::setRegValue(userPlace(L"TextAsJson"), L"", row.asKey));
        EXPECT_TRUE(!row.asValue || RegUtil::setRegValue(L"HKCU\\" + productKey, L"TextAsJson", row.asValue));
        globals()->migrateTextFormat();
        EXPECT_EQ(userValue(L"TextFormat"), row.expected);
        EXPECT_EQ(userValue(L"TextAsJson"), row.textFormat ? row.asKey : L"");
    }
    const std::pair<const wchar_t*, const wchar_t*> titles[] = {
        {L"", L""},       {L"1;", L"Korvane"},     {L"1;ignored", L"Korvane"}, {L"2;Mail tools", L"Mail tools"},
        {L"2;true", L"Korvane"}, {L"2;TRUE", L"Korvane"}, {L"2;1", L"Korvane"}, {L"2;True", L"True"},
        {L"3;X", L""},    {L"2", L""}};
    for (const auto& [ribbonInfo, title] : titles)
        EXPECT_EQ(ribbonTitleFor(ribbonInfo, L"Korvane"), title) << wideToUtf8(ribbonInfo);
}

// install.cfg beside the add-in gives the base values, the installer's
// parameter string overrides them; an empty field changes nothing.
TEST_F(Addin, InstallOptionsComeFromInstallCfgAndTheInstallersParameters)
{
    const std::wstring product = Globals::defaultProductName;
    const struct {
        std::string config;
        std::wstring params, friendlyName, description;
        int keepMinutes, maxFiles;
        bool forUser;
        std::wstring ribbonInfo;
    } rows[] = {
        {"\xEF\xBB\xBF"
         "addinFriendlyName = Korvane for Mail\r\nADDINDESCRIPTION=Real files\r\nkeeptempfilesminutes = 30\r\n"
         "MaxFiles=12\r\ninstallForUser = TRUE\r\nribbonInfo = 2;Mail tools\r\n",
         L"", L"Korvane for Mail", L"Real files", 30, 12, true, L"2;Mail tools"},
        {"", L"", product, product, 1440, -1, false, L""},
        {"KeepTempFilesMinutes=1\n", L"", product, product, 1440, -1, false, L""},
        {"KeepTempFilesMinutes=soon\n", L"", product, product, 1440, -1, false, L""},
        {"KeepTempFilesMinutes=2\n", L"", product, product, 2, -1, false, L""},
        // An overlong line is cut, so it is no MaxFiles line.
        {"words\n\nunknownKey = 5\n" + std::string(4000, 'M') + "axFiles=7\ninstallForUser = yes\nMaxFiles = 9 = 10\n",
         L"", product, product, 1440, 9, false, L""},
        {"addinFriendlyName=File\naddinDescription=From file\nMaxFiles=4\n", L"\"x\\My Name\\\\user\\2;Mail tools\"",
         L"My Name", L"From file", 1440, 4, true, L"2;Mail tools"},
        {"", L"x\\\\\\User\\\\extra\\more", product, product, 1440, -1, false, L""},
        {"", L"x\\A\\B\\machine\\0;\\removeSettings\\extra", L"A", L"B", 1440, -1, false, L"0;"},
        {"", L"\"\"", product, product, 1440, -1, false, L""},
        {"", L"x\\" + std::wstring(3000, L'n') + L"\\\\user", std::wstring(3000, L'n'), product, 1440, -1, true, L""},
    };
    const LogCapture log(LOG_INFO);
    for (const auto& row : rows) {
        SCOPED_TRACE(wideToUtf8(row.params) + row.config.substr(0, 40));
        removeSettingsKeys(Globals::defaultCompanyName, Globals::defaultProductName);
        writeBytes(folder.file(L"install.cfg"), row.config);
        const auto settings = globals();
        settings->applyInstallationOptions(row.params);
        EXPECT_EQ(settings->addinFriendlyName(), row.friendlyName);
        EXPECT_EQ(settings->addinDescription(), row.description);
        EXPECT_EQ(settings->keepTempFilesMinutes(), row.keepMinutes);
        EXPECT_EQ(settings->maxFiles(), row.maxFiles);
        EXPECT_EQ(settings->installForUser(), row.forUser);
        EXPECT_EQ(settings->getRibbonInfo(), row.ribbonInfo);
    }
    RegUtil::setRegistryView(0);
    EXPECT_NE(log.contents().find("INFO Globals:"), std::string::npos);
    EXPECT_NE(log.contents().find("addinFriendlyName=My Name"), std::string::npos) << log.contents();
}

// resource_<language>.txt beside the add-in, else resource_en.txt there, else
// the same two in the current folder, else the key itself.
TEST_F(Addin, TextsComeFromTheLanguagesFileThenEnglish)
{
    const ScratchFolder current;
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(current.path());
    const struct {
        const char *addinEn, *addinDe, *currentEn, *currentDe;
        const wchar_t* expected;
    } rows[] = {
        {"Drag", "Ziehen", "From here", "Von hier", L"Ziehen"}, {"Drag", nullptr, "From here", "Von hier", L"Drag"},
        {nullptr, nullptr, "From here", nullptr, L"From here"}, {nullptr, nullptr, "Here", "Von hier", L"Von hier"},
        {nullptr, nullptr, nullptr, nullptr, L"buttonGroup"},
    };
    for (const auto& row : rows) {
        for (const auto& [path, text] : {std::pair{folder.file(L"resource_en.txt"), row.addinEn},
                                         std::pair{folder.file(L"resource_de.txt"), row.addinDe},
                                         std::pair{current.file(L"resource_en.txt"), row.currentEn},
                                         std::pair{current.file(L"resource_de.txt"), row.currentDe}}) {
            DeleteFileW(path.c_str());
            if (text)
                writeBytes(path, std::string("buttonGroup = ") + text + "\n");
        }
        EXPECT_EQ(makeResourceBundle(nullptr, dll.module(), L"de")->getString(L"buttonGroup"), row.expected);
    }
    std::filesystem::current_path(previous);

    // A line is split at its first "=", both sides trimmed; lines are cut at 999 characters.
    writeTexts(L"en", "\xEF\xBB\xBF# comment\r\n\r\nlabelFormat   =   Format: =MSG=  \r\n"
                      "\tlabelDecrypt=Entschl\xC3\xBCsseln\r\nno equals sign\r\nbroken = \xFF tail\r\nlong = " +
                          std::string(3000, 'x') +
                          "=tail\nnext = ok \xF0\x9F\x98\x80\nlast = without line end");
    const auto texts = makeResourceBundle(nullptr, dll.module(), L"en");
    const std::pair<const wchar_t*, std::wstring> lines[] = {
        {L"labelFormat", L"Format: =MSG="}, {L"labelDecrypt", L"Entschl\u00FCsseln"},
        {L"no equals sign", L"no equals sign"}, {L"broken", L"\uFFFD tail"}, {L"long", std::wstring(992, L'x')},
        {L"next", L"ok \U0001F600"}, {L"last", L"without line end"}};
    for (const auto& [key, expected] : lines)
        EXPECT_EQ(texts->getString(key), expected) << wideToUtf8(key);

    // The shipped languages have every text (the build puts them beside the test programs).
    for (const wchar_t* language : {L"en", L"de", L"fr"}) {
        const auto shipped = makeResourceBundle(nullptr, GetModuleHandleW(nullptr), language);
        const std::wstring source = dynamic_cast<const ResourceBundleImpl&>(*shipped).sourcePath();
        EXPECT_TRUE(source.ends_with(resourceFileName(language))) << wideToUtf8(source);
        for (const wchar_t* key : {L"ribbonTitle", L"buttonGroup", L"buttonActive", L"buttonInactive", L"groupOptions",
                                   L"labelFormat", L"labelTextAsJson", L"labelTextAsJsonNone", L"labelTextAsJsonTable",
                                   L"labelTextAsJsonJSON", L"labelAlwaysCopy", L"labelDecrypt",
                                   L"notifyDecryptionFailed", L"notifyErrorTitle", L"notifySaveFailed"}) {
            const std::wstring text = shipped->getString(key);
            EXPECT_TRUE(text != key && text.find(L'\xFFFD') == std::wstring::npos) << wideToUtf8(language + text);
        }
    }
}

// In the 32-bit view keys land below Wow6432Node; "(Wow6432Node)" in a path
// names that place in the 32-bit view whatever the flag would do, and drops
// out in the 64-bit view. Outlook's bitness chooses the view.
TEST_F(Addin, RegistryViewsAndOutlooksBitness)
{
    const struct {
        REGSAM view;
        const wchar_t *path, *rawPlace; // below HKLM
    } rows[] = {
        {KEY_WOW64_32KEY, L"Software\\QUEMBROOK\\", L"Software\\Wow6432Node\\QUEMBROOK\\"},
        {KEY_WOW64_32KEY, L"Software\\(Wow6432Node)\\QUEMBROOK\\", L"Software\\Wow6432Node\\QUEMBROOK\\"},
        {KEY_WOW64_64KEY, L"Software\\(Wow6432Node)\\QUEMBROOK\\", L"Software\\QUEMBROOK\\"},
        {KEY_WOW64_64KEY, L"(Wow6432Node)\\Software\\QUEMBROOK\\", L"Software\\QUEMBROOK\\"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(wideToUtf8(row.path));
        RegUtil::setRegistryView(row.view);
        const std::wstring name = L"Korvane Addin for Microsoft Outlook", path = L"HKLM\\" + (row.path + name);
        ASSERT_TRUE(RegUtil::setRegValue(path + L"\\Format", L"", L"eml"));
        EXPECT_EQ(RegUtil::readString(path + L"\\Format"), L"eml");
        EXPECT_EQ(rawString(HKEY_LOCAL_MACHINE, row.rawPlace + name + L"\\Format"), L"eml");
        RegUtil::setRegistryView(row.view ^ (KEY_WOW64_32KEY | KEY_WOW64_64KEY));
        EXPECT_EQ(RegUtil::readString(L"HKLM\\" + productKey + L"\\Format"), L"") << "not in the other view";
        RegUtil::setRegistryView(row.view);
        EXPECT_TRUE(RegUtil::deleteKey(path));
        EXPECT_EQ(rawString(HKEY_LOCAL_MACHINE, row.rawPlace + name + L"\\Format"), L"<missing>");
    }
    EXPECT_FALSE(RegUtil::deleteKey(L"HKCU\\")) << "never a bare root";
    const auto removeOutlooksBitness = [] {
        for (REGSAM view : {REGSAM(KEY_WOW64_32KEY), REGSAM(KEY_WOW64_64KEY), REGSAM(0)}) {
            RegUtil::setRegistryView(view);
            RegUtil::deleteKeyIfExists(L"HKLM\\Software\\Microsoft\\Office\\16.0");
        }
    };
    for (const auto& [view, bitness] : {std::pair{KEY_WOW64_32KEY, L"x86"}, std::pair{KEY_WOW64_64KEY, L"x64"}}) {
        removeOutlooksBitness();
        RegUtil::setRegistryView(view);
        ASSERT_TRUE(RegUtil::setRegValue(L"HKLM\\Software\\Microsoft\\Office\\16.0\\Outlook", L"Bitness", bitness));
        RegUtil::getRegistryViewForOutlooksBitness();
        EXPECT_EQ(RegUtil::registryView(), static_cast<REGSAM>(view)) << wideToUtf8(bitness);
    }
    // No Outlook at all: the add-in's own bitness.
    removeOutlooksBitness();
    const LogCapture log(LOG_INFO);
    EXPECT_EQ(RegUtil::isOutlook64(), sizeof(void*) == 8);
    EXPECT_NE(log.contents().find("WARN RegUtil:"), std::string::npos);
    EXPECT_NE(log.contents().find("Could not detect Outlook bitness, assume Windows bitness="), std::string::npos);
}

TEST(Base64, RfcVectorsBothWaysAndBadTextRefused)
{
    const std::pair<std::string, std::string> vectors[] = {
        {"", ""},             {"f", "Zg=="},         {"fo", "Zm8="},         {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}, {std::string("\xFF\xFE\x00", 3), "//4A"},
    };
    for (const auto& [bytes, text] : vectors) {
        EXPECT_EQ(encodeBase64(bytes), text);
        EXPECT_EQ(decodeBase64(text), bytes);
    }
    EXPECT_EQ(decodeBase64("Zm9v\r\nYmFy"), "foobar");
    EXPECT_EQ(decodeBase64("Zm9vYg"), "foob") << "padding may be left out";
    for (const char* notBase64 : {"Zm9v!", "Z", "Zm9v=Zm9v", "Zg===", "Zm9=="})
        EXPECT_FALSE(decodeBase64(notBase64)) << notBase64;
}
