// Texts from resource_<language>.txt beside the add-in file, with their fallbacks.
#include "core/resource_bundle.h"

#include "support/scratch.h"

#include <gtest/gtest.h>

namespace {

class ResourceFiles : public testing::Test {
protected:
    void SetUp() override
    {
        GetCurrentDirectoryW(MAX_PATH, previousDirectory);
        SetCurrentDirectoryW(elsewhere.path().c_str());
    }
    void TearDown() override { SetCurrentDirectoryW(previousDirectory); }

    std::shared_ptr<ResourceBundle> bundle(const std::wstring& language)
    {
        return makeResourceBundle(nullptr, addin.module(), language);
    }

    ScratchFolder addinFolder;
    ScratchFolder elsewhere; // the current directory during the test
    AddinCopy addin{addinFolder};
    wchar_t previousDirectory[MAX_PATH + 1] = {};
};

// Every key that the ribbon and the notices ask for.
const wchar_t* const usedKeys[] = {
    L"ribbonTitle",         L"buttonGroup",         L"buttonActive",         L"buttonInactive",
    L"groupOptions",        L"labelFormat",         L"labelTextAsJson",      L"labelTextAsJsonNone",
    L"labelTextAsJsonTable", L"labelTextAsJsonJSON", L"labelAlwaysCopy",     L"labelDecrypt",
    L"notifyDecryptionFailed", L"notifyErrorTitle",     L"notifySaveFailed",
};

} // namespace

TEST(ResourceFileName, FollowsTheLanguage)
{
    EXPECT_EQ(resourceFileName(L"de"), L"resource_de.txt");
    EXPECT_EQ(resourceFileName(L""), L"resource.txt");
}

TEST_F(ResourceFiles, LanguageFileBesideTheAddin)
{
    writeBytes(addinFolder.file(L"resource_de.txt"), "buttonGroup = Ziehen\n");
    writeBytes(addinFolder.file(L"resource_en.txt"), "buttonGroup = Drag\n");
    EXPECT_EQ(bundle(L"de")->getString(L"buttonGroup"), L"Ziehen");
}

TEST_F(ResourceFiles, EnglishWhenTheLanguageHasNoFile)
{
    writeBytes(addinFolder.file(L"resource_en.txt"), "buttonGroup = Drag\n");
    EXPECT_EQ(bundle(L"de")->getString(L"buttonGroup"), L"Drag");
}

TEST_F(ResourceFiles, CurrentDirectoryWhenTheAddinFolderHasNone)
{
    writeBytes(elsewhere.file(L"resource_en.txt"), "buttonGroup = From here\n");
    EXPECT_EQ(bundle(L"de")->getString(L"buttonGroup"), L"From here");
    writeBytes(elsewhere.file(L"resource_de.txt"), "buttonGroup = Von hier\n");
    EXPECT_EQ(bundle(L"de")->getString(L"buttonGroup"), L"Von hier");
}

TEST_F(ResourceFiles, AddinFolderEnglishBeatsCurrentDirectoryLanguage)
{
    writeBytes(addinFolder.file(L"resource_en.txt"), "k = addin en\n");
    writeBytes(elsewhere.file(L"resource_de.txt"), "k = cwd de\n");
    EXPECT_EQ(bundle(L"de")->getString(L"k"), L"addin en");
}

TEST_F(ResourceFiles, NoFileAtAllShowsTheKeys)
{
    EXPECT_EQ(bundle(L"de")->getString(L"labelFormat"), L"labelFormat");
}

TEST_F(ResourceFiles, LinesSplitAtTheFirstEqualsAndTrimmed)
{
    writeBytes(addinFolder.file(L"resource_en.txt"),
               "\xEF\xBB\xBF# comment line\r\n"
               "\r\n"
               "labelFormat   =   Format: =MSG=  \r\n"
               "\tlabelDecrypt=Entschl\xC3\xBCsseln\r\n"
               "no equals sign here\r\n"
               "broken = \xFF\xFE tail\r\n"
               "last = without line end");
    const auto texts = bundle(L"en");
    EXPECT_EQ(texts->getString(L"labelFormat"), L"Format: =MSG=");
    EXPECT_EQ(texts->getString(L"labelDecrypt"), L"Entschl\u00FCsseln");
    EXPECT_EQ(texts->getString(L"no equals sign here"), L"no equals sign here");
    EXPECT_NE(texts->getString(L"broken").find(L"tail"), std::wstring::npos);
    EXPECT_EQ(texts->getString(L"last"), L"without line end");
    EXPECT_EQ(texts->getString(L"unknownKey"), L"unknownKey");
}

TEST_F(ResourceFiles, OverlongLineIsCutNotSpilledIntoAnotherEntry)
{
    const std::string text(3000, 'x');
    writeBytes(addinFolder.file(L"resource_en.txt"), "long = " + text + "=tail\nnext = ok\n");
    const auto texts = bundle(L"en");
    EXPECT_EQ(texts->getString(L"long").size(), 999u - 7u);
    EXPECT_EQ(texts->getString(L"next"), L"ok");
}

TEST(ResourceBundleChain, ParentAnswersWhatTheChildLacks)
{
    ScratchFolder folder;
    AddinCopy addin(folder);
    writeBytes(folder.file(L"resource_en.txt"), "a = parent a\nb = parent b\n");
    writeBytes(folder.file(L"resource_fr.txt"), "a = enfant a\n");
    auto parent = makeResourceBundle(nullptr, addin.module(), L"en");
    auto child = makeResourceBundle(parent, addin.module(), L"fr");
    EXPECT_EQ(child->getString(L"a"), L"enfant a");
    EXPECT_EQ(child->getString(L"b"), L"parent b");
    EXPECT_EQ(child->getString(L"c"), L"c");
}

TEST(ShippedTexts, EveryLanguageHasEveryKey)
{
    // The build puts the shipped files beside the DLL and the test programs.
    for (const wchar_t* language : {L"en", L"de", L"fr"}) {
        const auto texts = makeResourceBundle(nullptr, GetModuleHandleW(nullptr), language);
        const auto* impl = dynamic_cast<const ResourceBundleImpl*>(texts.get());
        ASSERT_NE(impl, nullptr);
        EXPECT_NE(impl->sourcePath().find(resourceFileName(language)), std::wstring::npos) << impl->sourcePath();
        for (const wchar_t* key : usedKeys) {
            const std::wstring text = texts->getString(key);
            EXPECT_NE(text, key) << "language " << testing::PrintToString(std::wstring(language)) << " lacks "
                                 << testing::PrintToString(std::wstring(key));
            EXPECT_EQ(text.find(L'\xFFFD'), std::wstring::npos);
        }
    }
    const auto german = makeResourceBundle(nullptr, GetModuleHandleW(nullptr), L"de");
    EXPECT_EQ(german->getString(L"labelDecrypt"), L"Verschl\u00FCsselte Mails entschl\u00FCsseln");
}
