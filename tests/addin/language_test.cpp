// The language of the texts and the add-in's version.
#include "core/globals.h"

#include "core/log.h"
#include "core/reg_util.h"
#include "support/scratch.h"

#include <gtest/gtest.h>

namespace {

// Answers what the add-in asks an Office application object for:
// Application.LanguageSettings.LanguageID(msoLanguageIDUI).
class LanguageStandIn final : public IDispatch {
public:
    explicit LanguageStandIn(LONG languageId, bool isSettingsObject = false)
        : languageId_(languageId), isSettings_(isSettingsObject)
    {
    }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        if (iid == IID_IUnknown || iid == IID_IDispatch) {
            *out = static_cast<IDispatch*>(this);
            AddRef();
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++references_; }
    ULONG STDMETHODCALLTYPE Release() override
    {
        const ULONG left = --references_;
        if (left == 0)
            delete this;
        return left;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override
    {
        *count = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) override
    {
        const std::wstring name = names[0];
        if (count != 1)
            return DISP_E_UNKNOWNNAME;
        if (!isSettings_ && name == L"LanguageSettings")
            ids[0] = 1;
        else if (isSettings_ && name == L"LanguageID")
            ids[0] = 2;
        else
            return DISP_E_UNKNOWNNAME;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                                     EXCEPINFO*, UINT*) override
    {
        if (!(flags & DISPATCH_PROPERTYGET) || !result)
            return DISP_E_MEMBERNOTFOUND;
        if (id == 1) {
            result->vt = VT_DISPATCH;
            result->pdispVal = new LanguageStandIn(languageId_, true);
            return S_OK;
        }
        if (id == 2) {
            lastArgument = params->cArgs == 1 ? params->rgvarg[0] : VARIANT{};
            if (languageId_ < 0)
                return DISP_E_EXCEPTION;
            result->vt = VT_I4;
            result->lVal = languageId_;
            return S_OK;
        }
        return DISP_E_MEMBERNOTFOUND;
    }

    static inline VARIANT lastArgument{};

private:
    ULONG references_ = 1;
    LONG languageId_;
    bool isSettings_;
};

class Language : public testing::Test {
protected:
    void SetUp() override
    {
        settings.setModule(addin.module());
        writeBytes(folder.file(L"resource_en.txt"), "buttonGroup = Drag and drop\n");
        writeBytes(folder.file(L"resource_de.txt"), "buttonGroup = Ziehen und Ablegen\n");
    }

    TestSettingsKeys keys;
    ScratchFolder folder;
    AddinCopy addin{folder};
    Globals settings{keys.company, keys.product()};
};

} // namespace

TEST(LanguageCode, TwoLettersOfTheLanguageId)
{
    EXPECT_EQ(languageCodeOf(MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN)), L"de");
    EXPECT_EQ(languageCodeOf(MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US)), L"en");
    EXPECT_EQ(languageCodeOf(0xFFFF), L"");
}

TEST_F(Language, OfficeLanguageChoosesTheTexts)
{
    auto* application = new LanguageStandIn(MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN));
    settings.setLanguage(application);
    application->Release();
    EXPECT_EQ(settings.getText(L"buttonGroup"), L"Ziehen und Ablegen");
    // The user-interface language (msoLanguageIDUI) is what was asked for.
    EXPECT_EQ(LanguageStandIn::lastArgument.vt, VT_UI4);
    EXPECT_EQ(LanguageStandIn::lastArgument.ulVal, 2u);
}

TEST_F(Language, LanguageWithoutTextsFallsBackToEnglish)
{
    auto* application = new LanguageStandIn(MAKELANGID(LANG_JAPANESE, SUBLANG_DEFAULT));
    settings.setLanguage(application);
    application->Release();
    EXPECT_EQ(settings.getText(L"buttonGroup"), L"Drag and drop");
}

TEST_F(Language, FailedQueryKeepsTheCurrentTexts)
{
    auto* german = new LanguageStandIn(MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN));
    settings.setLanguage(german);
    german->Release();
    auto* failing = new LanguageStandIn(-1);
    settings.setLanguage(failing);
    failing->Release();
    settings.setLanguage(nullptr);
    EXPECT_EQ(settings.getText(L"buttonGroup"), L"Ziehen und Ablegen");
}

TEST_F(Language, WithoutOfficeTheWindowsLanguageIsUsed)
{
    // Wine's user-interface language here is English or has no file: English texts.
    EXPECT_FALSE(settings.getText(L"buttonGroup").empty());
    EXPECT_NE(settings.getText(L"buttonGroup"), L"buttonGroup");
    EXPECT_EQ(settings.getText(L"noSuchKey"), L"noSuchKey");
}

TEST(Version, ReadFromTheAddinsOwnResource)
{
    ScratchFolder folder;
    AddinCopy addin(folder);
    TestSettingsKeys keys;
    Globals settings(keys.company, keys.product());
    settings.setModule(addin.module());
    int a = -1, b = -1, c = -1, d = -1;
    ASSERT_TRUE(settings.getVersion(a, b, c, d));
    EXPECT_EQ(a, KORVANE_VERSION_MAJOR);
    EXPECT_EQ(b, KORVANE_VERSION_MINOR);
    EXPECT_EQ(c, KORVANE_VERSION_PATCH);
    EXPECT_EQ(d, KORVANE_VERSION_TWEAK);
}

TEST(Version, ModuleWithoutVersionGivesFalse)
{
    TestSettingsKeys keys;
    Globals settings(keys.company, keys.product());
    settings.setModule(reinterpret_cast<HMODULE>(static_cast<ULONG_PTR>(0x10)));
    int a = 0, b = 0, c = 0, d = 0;
    EXPECT_FALSE(settings.getVersion(a, b, c, d));
    EXPECT_EQ(a + b + c + d, 0);
}

TEST(Version, InitLogsTheVersionLine)
{
    ScratchFolder folder;
    AddinCopy addin(folder);
    TestSettingsKeys keys;
    const std::wstring logPath = folder.file(L"init.log");
    ASSERT_TRUE(RegUtil::setRegValue(keys.userPath(L"LogFile"), L"", logPath));
    Globals settings(keys.company, keys.product());
    settings.setModule(addin.module());
    settings.init();
    LogFile::instance().close();
    const std::string expected = "Version " + std::to_string(KORVANE_VERSION_MAJOR) + "." +
                                 std::to_string(KORVANE_VERSION_MINOR) + "." +
                                 std::to_string(KORVANE_VERSION_PATCH) + "." + std::to_string(KORVANE_VERSION_TWEAK);
    EXPECT_NE(readBytes(logPath).find(" INFO Globals:"), std::string::npos);
    EXPECT_NE(readBytes(logPath).find(expected + "\r\n"), std::string::npos) << readBytes(logPath);
}
