// Key paths, reading with the unnamed-then-named rule, writing, deleting.
#include "core/reg_util.h"

#include "support/registry_snapshot.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

namespace {

class Registry : public testing::Test {
protected:
    // Raw API access, to check what RegUtil did without trusting RegUtil.
    HKEY createRaw(const std::wstring& subKey)
    {
        HKEY key = nullptr;
        EXPECT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, subKey.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                                  nullptr),
                  ERROR_SUCCESS);
        return key;
    }
    std::wstring base() const { return L"Software\\" + std::wstring(keys.company) + L"\\" + keys.product(); }

    TestSettingsKeys keys;
};

} // namespace

TEST(KeyPath, RootNamesAreRecognisedCaseSensitively)
{
    EXPECT_EQ(RegUtil::parseKeyPath(L"HKLM\\Software\\X").root, HKEY_LOCAL_MACHINE);
    EXPECT_EQ(RegUtil::parseKeyPath(L"HKEY_LOCAL_MACHINE\\Software\\X").root, HKEY_LOCAL_MACHINE);
    EXPECT_EQ(RegUtil::parseKeyPath(L"HKEY_CURRENT_USER\\Software").root, HKEY_CURRENT_USER);
    EXPECT_EQ(RegUtil::parseKeyPath(L"HKCR\\CLSID").root, HKEY_CLASSES_ROOT);
    EXPECT_EQ(RegUtil::parseKeyPath(L"HKEY_CLASSES_ROOT\\CLSID").root, HKEY_CLASSES_ROOT);
    const RegUtil::KeyPath path = RegUtil::parseKeyPath(L"HKLM\\Software\\X\\Y");
    EXPECT_EQ(path.subKey, L"Software\\X\\Y");

    const RegUtil::KeyPath lowerCase = RegUtil::parseKeyPath(L"hklm\\Software");
    EXPECT_EQ(lowerCase.root, HKEY_CURRENT_USER);
    EXPECT_EQ(lowerCase.subKey, L"hklm\\Software");
    const RegUtil::KeyPath bare = RegUtil::parseKeyPath(L"Software");
    EXPECT_EQ(bare.root, HKEY_CURRENT_USER);
    EXPECT_EQ(bare.subKey, L"Software");
}

TEST_F(Registry, UnnamedValueOfTheKeyComesFirst)
{
    HKEY product = createRaw(base());
    RegSetValueExW(product, L"Format", 0, REG_SZ, reinterpret_cast<const BYTE*>(L"named"), 12);
    HKEY format = createRaw(base() + L"\\Format");
    RegSetValueExW(format, nullptr, 0, REG_SZ, reinterpret_cast<const BYTE*>(L"unnamed"), 16);
    EXPECT_EQ(RegUtil::readString(keys.userPath(L"Format")), L"unnamed");

    // An empty unnamed value counts as nothing: the named value answers.
    RegSetValueExW(format, nullptr, 0, REG_SZ, reinterpret_cast<const BYTE*>(L""), 2);
    EXPECT_EQ(RegUtil::readString(keys.userPath(L"Format")), L"named");
    RegCloseKey(format);
    RegDeleteKeyW(product, L"Format");
    EXPECT_EQ(RegUtil::readString(keys.userPath(L"Format")), L"named");
    RegCloseKey(product);
}

TEST_F(Registry, MissingPlacesReadAsEmpty)
{
    EXPECT_EQ(RegUtil::readString(keys.userPath(L"Nothing")), L"");
    EXPECT_EQ(RegUtil::readString(L"HKLM\\Software\\KorvaneTest\\no\\such\\key"), L"");
}

TEST_F(Registry, WritingCreatesTheKeysOnTheWay)
{
    ASSERT_TRUE(RegUtil::setRegValue(keys.userPath(L"A\\B\\C"), L"", L"deep"));
    EXPECT_TRUE(rawKeyExists(HKEY_CURRENT_USER, base() + L"\\A\\B\\C"));
    wchar_t text[32] = {};
    DWORD size = sizeof text;
    DWORD type = 0;
    ASSERT_EQ(RegGetValueW(HKEY_CURRENT_USER, (base() + L"\\A\\B\\C").c_str(), nullptr, RRF_RT_ANY, &type, text,
                           &size),
              ERROR_SUCCESS);
    EXPECT_EQ(type, static_cast<DWORD>(REG_SZ));
    EXPECT_EQ(size, 10u); // (4 characters + NUL) * 2
    EXPECT_STREQ(text, L"deep");

    ASSERT_TRUE(RegUtil::setRegValue(keys.userPath(L"A"), L"Named", L"value"));
    EXPECT_EQ(RegUtil::readString(keys.userPath(L"A\\Named")), L"value");
}

TEST_F(Registry, LongValuesAreReadWhole)
{
    const std::wstring longText(100000, L'\u00E9');
    ASSERT_TRUE(RegUtil::setRegValue(keys.userPath(L"Long"), L"", longText));
    EXPECT_EQ(RegUtil::readString(keys.userPath(L"Long")), longText);
}

TEST_F(Registry, OtherValueTypesAreConvertedOrIgnored)
{
    HKEY product = createRaw(base());
    const DWORD number = 4711;
    RegSetValueExW(product, L"Dword", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), sizeof number);
    const ULONGLONG big = 1ULL << 40;
    RegSetValueExW(product, L"Qword", 0, REG_QWORD, reinterpret_cast<const BYTE*>(&big), sizeof big);
    const BYTE binary[] = {1, 2, 3};
    RegSetValueExW(product, L"Binary", 0, REG_BINARY, binary, sizeof binary);
    const wchar_t multi[] = L"first\0second\0";
    RegSetValueExW(product, L"Multi", 0, REG_MULTI_SZ, reinterpret_cast<const BYTE*>(multi), sizeof multi);
    const wchar_t expandable[] = L"%SystemRoot%\\x";
    RegSetValueExW(product, L"Expand", 0, REG_EXPAND_SZ, reinterpret_cast<const BYTE*>(expandable),
                   sizeof expandable);
    // A string stored without its terminating NUL, and one of odd byte length.
    RegSetValueExW(product, L"Unterminated", 0, REG_SZ, reinterpret_cast<const BYTE*>(L"abc"), 6);
    RegSetValueExW(product, L"Odd", 0, REG_SZ, reinterpret_cast<const BYTE*>(L"xyz"), 5);
    RegCloseKey(product);

    EXPECT_EQ(RegUtil::readString(keys.userPath(L"Dword")), L"4711");
    EXPECT_EQ(RegUtil::readString(keys.userPath(L"Qword")), L"1099511627776");
    EXPECT_EQ(RegUtil::readString(keys.userPath(L"Binary")), L"");
    EXPECT_EQ(RegUtil::readString(keys.userPath(L"Multi")), L"first");
    const std::wstring expanded = RegUtil::readString(keys.userPath(L"Expand"));
    EXPECT_EQ(expanded.find(L'%'), std::wstring::npos) << testing::PrintToString(expanded);
    EXPECT_EQ(expanded.substr(expanded.size() - 2), L"\\x");
    EXPECT_EQ(RegUtil::readString(keys.userPath(L"Unterminated")), L"abc");
    EXPECT_EQ(RegUtil::readString(keys.userPath(L"Odd")), L"xy");
}

TEST_F(Registry, DeleteRemovesTheWholeTree)
{
    ASSERT_TRUE(RegUtil::setRegValue(keys.userPath(L"Tree\\A\\A1"), L"", L"1"));
    ASSERT_TRUE(RegUtil::setRegValue(keys.userPath(L"Tree\\A\\A2"), L"", L"2"));
    ASSERT_TRUE(RegUtil::setRegValue(keys.userPath(L"Tree\\B"), L"v", L"3"));
    ASSERT_TRUE(RegUtil::setRegValue(keys.userPath(L"Sibling"), L"", L"stays"));
    EXPECT_TRUE(RegUtil::deleteKey(keys.userPath(L"Tree")));
    EXPECT_FALSE(rawKeyExists(HKEY_CURRENT_USER, base() + L"\\Tree"));
    EXPECT_EQ(RegUtil::readString(keys.userPath(L"Sibling")), L"stays");

    EXPECT_FALSE(RegUtil::deleteKey(keys.userPath(L"Tree")));
    EXPECT_TRUE(RegUtil::deleteKeyIfExists(keys.userPath(L"Tree")));
}

TEST_F(Registry, DeleteRefusesABareRoot)
{
    EXPECT_FALSE(RegUtil::deleteKey(L"HKCU\\"));
    EXPECT_FALSE(RegUtil::deleteKey(L"HKLM\\\\"));
    EXPECT_TRUE(rawKeyExists(HKEY_CURRENT_USER, L"Software"));
}

TEST_F(Registry, DeleteNamedValue)
{
    ASSERT_TRUE(RegUtil::setRegValue(keys.userPath(L""), L"Old", L"x"));
    ASSERT_TRUE(RegUtil::setRegValue(keys.userPath(L""), L"Kept", L"y"));
    EXPECT_TRUE(RegUtil::deleteValueIfExists(keys.userPath(L""), L"Old"));
    EXPECT_TRUE(RegUtil::deleteValueIfExists(keys.userPath(L""), L"Old"));
    EXPECT_EQ(RegUtil::readString(keys.userPath(L"Old")), L"");
    EXPECT_EQ(RegUtil::readString(keys.userPath(L"Kept")), L"y");
}
