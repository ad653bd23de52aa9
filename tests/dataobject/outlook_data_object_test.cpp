// The Outlook-shaped data object that the drop-handling and drag tests feed
// to the add-in: it must enumerate and hand out what Outlook does, and keep
// what is set on it.
#include "reader_fixture.h"

#include <algorithm>

namespace {

using Microsoft::WRL::ComPtr;

std::wstring formatName(CLIPFORMAT format)
{
    if (format == CF_UNICODETEXT)
        return L"CF_UNICODETEXT";
    wchar_t name[128] = {};
    const int length = GetClipboardFormatNameW(format, name, 128);
    return std::wstring(name, length > 0 ? length : 0);
}

std::vector<std::wstring> enumeratedNames(IDataObject* dataObject)
{
    std::vector<std::wstring> names;
    ComPtr<IEnumFORMATETC> formats;
    if (FAILED(dataObject->EnumFormatEtc(DATADIR_GET, &formats)))
        return names;
    FORMATETC format{};
    while (formats->Next(1, &format, nullptr) == S_OK)
        names.push_back(formatName(format.cfFormat));
    return names;
}

std::wstring unicodeText(IDataObject* dataObject)
{
    FORMATETC request{CF_UNICODETEXT, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    STGMEDIUM medium{};
    if (FAILED(dataObject->GetData(&request, &medium)))
        return L"<none>";
    const std::string bytes = globalBytes(medium.hGlobal);
    ReleaseStgMedium(&medium);
    return std::wstring(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / 2 - 1);
}

TEST_F(ReaderTest, OutlookShapedObjectOffersOutlooksFormats)
{
    auto object = OutlookDataObject::create({OutlookEntry::mailItem(L"Hello.msg", mailWithSubject(L"Hello")),
                                             OutlookEntry::attachment(L"a.pdf", "pdf")});
    EXPECT_EQ(enumeratedNames(object.Get()),
              (std::vector<std::wstring>{L"RenPrivateSourceFolder", L"RenPrivateMessages", L"RenPrivateItem",
                                         L"FileGroupDescriptor", L"FileGroupDescriptorW", L"FileContents",
                                         L"Object Descriptor", L"CF_UNICODETEXT"}));
    EXPECT_EQ(unicodeText(object.Get()), L"From\tSubject\tReceived\tSize\r\nAnn Lee\tHello\t2023-04-07 10:15\t1 KB\r\n");

    // A mail comes as a new storage each time, holding the message.
    FORMATETC contents{clipboardFormats().fileContents, nullptr, DVASPECT_CONTENT, 0, TYMED_ISTORAGE | TYMED_ISTREAM};
    STGMEDIUM medium{};
    ASSERT_EQ(object->GetData(&contents, &medium), S_OK);
    ASSERT_EQ(medium.tymed, static_cast<DWORD>(TYMED_ISTORAGE));
    EXPECT_EQ(subjectOf(medium.pstg), L"Hello");
    ReleaseStgMedium(&medium);
    EXPECT_EQ(object->getDataCalls(L"FileContents"), 1u);
    EXPECT_EQ(object->getDataCalls(CF_UNICODETEXT), 1u);
}

TEST_F(ReaderTest, OutlookShapedObjectKeepsWhatIsSetOnIt)
{
    auto object = OutlookDataObject::create({OutlookEntry::attachment(L"a.pdf", "pdf")});
    const std::wstring text = L"replaced";
    FORMATETC format{CF_UNICODETEXT, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    STGMEDIUM medium{};
    medium.tymed = TYMED_HGLOBAL;
    medium.hGlobal = globalFromBytes(text.c_str(), (text.size() + 1) * sizeof(wchar_t));
    ASSERT_EQ(object->SetData(&format, &medium, TRUE), S_OK);
    EXPECT_EQ(unicodeText(object.Get()), L"replaced");
    EXPECT_TRUE(object->wasSet(CF_UNICODETEXT));

    const CLIPFORMAT custom = static_cast<CLIPFORMAT>(RegisterClipboardFormatW(L"KorvaneTestFormat"));
    format.cfFormat = custom;
    medium.hGlobal = globalFromBytes("x", 1);
    ASSERT_EQ(object->SetData(&format, &medium, FALSE), S_OK); // copied; ours to free
    GlobalFree(medium.hGlobal);
    const auto names = enumeratedNames(object.Get());
    EXPECT_EQ(std::count(names.begin(), names.end(), L"CF_UNICODETEXT"), 1);
    EXPECT_EQ(std::count(names.begin(), names.end(), L"KorvaneTestFormat"), 1);
    EXPECT_EQ(object->setDataCalls(), 2u);
}

} // namespace
