// The registry helper's 32/64-bit views and Outlook's bitness, checked with
// the raw API; and Base64, which carries button images in the registry.
#include "addin_host.h"

#include "install/base64.h"

namespace {

void removeOutlooksBitness()
{
    for (REGSAM view : {REGSAM(KEY_WOW64_32KEY), REGSAM(KEY_WOW64_64KEY)}) {
        RegUtil::setRegistryView(view);
        RegUtil::deleteKeyIfExists(L"HKLM\\Software\\Microsoft\\Office\\16.0");
    }
    RegUtil::setRegistryView(0);
}

} // namespace

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
        EXPECT_TRUE(rawKeyExists(HKEY_LOCAL_MACHINE, row.rawPlace + name));
        RegUtil::setRegistryView(row.view ^ (KEY_WOW64_32KEY | KEY_WOW64_64KEY));
        EXPECT_EQ(RegUtil::readString(L"HKLM\\" + productKey + L"\\Format"), L"") << "not in the other view";
        RegUtil::setRegistryView(row.view);
        EXPECT_TRUE(RegUtil::deleteKey(path));
        EXPECT_FALSE(rawKeyExists(HKEY_LOCAL_MACHINE, row.rawPlace + name));
    }
    EXPECT_FALSE(RegUtil::deleteKey(L"HKCU\\")) << "never a bare root";
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
