// The ribbon as Office drives it: GetCustomUI for each window, then the
// callbacks through IDispatch::Invoke by dispatch id, with the settings they
// read and write in the registry and the images they hand back.
#include "addin_host.h"

#include "common/com_variant.h"
#include "core/base64.h"
#include "core/reg_util.h"
#include "e2e_shared/outlook_standin.h"

#include <objidl.h>
#include <gdiplus.h>
#include <msxml2.h>
#include <olectl.h>

#include <gtest/gtest.h>

#include <cstdlib>

using Microsoft::WRL::ComPtr;

namespace {

// A texts file whose every text names its key, so a test sees which key filled what.
constexpr const char* markedTexts =
    "ribbonTitle = T-ribbonTitle\nbuttonGroup = T-buttonGroup\nbuttonActive = T-buttonActive\n"
    "buttonInactive = T-buttonInactive\ngroupOptions = T-groupOptions\nlabelFormat = T-labelFormat\n"
    "labelAlwaysCopy = T-labelAlwaysCopy\nlabelTextAsJson = T-labelTextAsJson\nlabelDecrypt = T-labelDecrypt\n"
    "labelTextAsJsonNone = T-labelTextAsJsonNone\nlabelTextAsJsonTable = T-labelTextAsJsonTable\n"
    "labelTextAsJsonJSON = T-labelTextAsJsonJSON\n";

// A PNG of the given size, encoded by GDI+ in the test's own process.
std::string pngOfSize(int width, int height)
{
    static ULONG_PTR token = [] {
        ULONG_PTR started = 0;
        Gdiplus::GdiplusStartupInput input;
        Gdiplus::GdiplusStartup(&started, &input, nullptr);
        return started;
    }();
    (void)token;
    Gdiplus::GpBitmap* bitmap = nullptr;
    if (Gdiplus::DllExports::GdipCreateBitmapFromScan0(width, height, 0, PixelFormat32bppARGB, nullptr, &bitmap) !=
        Gdiplus::Ok)
        return {};
    Gdiplus::DllExports::GdipBitmapSetPixel(bitmap, 0, 0, 0xFF0000FF);
    ComPtr<IStream> stream;
    CreateStreamOnHGlobal(nullptr, TRUE, &stream);
    const CLSID pngEncoder = {0x557CF406, 0x1A04, 0x11D3, {0x9A, 0x73, 0x00, 0x00, 0xF8, 0x1E, 0xF3, 0x2E}};
    const Gdiplus::Status status = Gdiplus::DllExports::GdipSaveImageToStream(bitmap, stream.Get(), &pngEncoder, nullptr);
    Gdiplus::DllExports::GdipDisposeImage(bitmap);
    if (status != Gdiplus::Ok)
        return {};
    STATSTG stat{};
    stream->Stat(&stat, STATFLAG_NONAME);
    std::string bytes(static_cast<size_t>(stat.cbSize.QuadPart), '\0');
    const LARGE_INTEGER start{};
    stream->Seek(start, STREAM_SEEK_SET, nullptr);
    ULONG read = 0;
    stream->Read(bytes.data(), static_cast<ULONG>(bytes.size()), &read);
    return bytes;
}

struct IconFacts {
    SHORT pictureType = PICTYPE_UNINITIALIZED;
    LONG width = 0;
    LONG height = 0;
    BYTE red = 0, green = 0, blue = 0; // the pixel at (16, 25): the switch's track in the built-in images
};

IconFacts inspectPicture(const UniqueVariant& result)
{
    IconFacts facts;
    ComPtr<IPicture> picture;
    if (result->vt != VT_DISPATCH || !result->pdispVal ||
        FAILED(result->pdispVal->QueryInterface(IID_PPV_ARGS(&picture))))
        return facts;
    picture->get_Type(&facts.pictureType);
    OLE_HANDLE handle = 0;
    picture->get_Handle(&handle);
    ICONINFO info{};
    if (!GetIconInfo(reinterpret_cast<HICON>(static_cast<ULONG_PTR>(handle)), &info))
        return facts;
    BITMAP bitmap{};
    GetObjectW(info.hbmColor, sizeof bitmap, &bitmap);
    facts.width = bitmap.bmWidth;
    facts.height = bitmap.bmHeight;
    if (facts.width > 16 && facts.height > 25) {
        BITMAPINFO format{};
        format.bmiHeader.biSize = sizeof format.bmiHeader;
        format.bmiHeader.biWidth = facts.width;
        format.bmiHeader.biHeight = -facts.height; // top-down
        format.bmiHeader.biPlanes = 1;
        format.bmiHeader.biBitCount = 32;
        format.bmiHeader.biCompression = BI_RGB;
        std::vector<BYTE> pixels(static_cast<size_t>(facts.width) * facts.height * 4);
        HDC dc = CreateCompatibleDC(nullptr);
        GetDIBits(dc, info.hbmColor, 0, facts.height, pixels.data(), &format, DIB_RGB_COLORS);
        DeleteDC(dc);
        const BYTE* pixel = &pixels[(25 * facts.width + 16) * 4]; // blue, green, red, alpha
        facts.blue = pixel[0];
        facts.green = pixel[1];
        facts.red = pixel[2];
    }
    DeleteObject(info.hbmColor);
    DeleteObject(info.hbmMask);
    return facts;
}

class Ribbon : public testing::Test {
protected:
    void SetUp() override
    {
        writeTexts(folder, "en", markedTexts);
        addin = dll.create<IUnknown>();
        ASSERT_NE(addin, nullptr);
        ASSERT_EQ(addin.As(&dispatch), S_OK);
    }

    void TearDown() override
    {
        if (connected) {
            ComPtr<_IDTExtensibility2> connection;
            addin.As(&connection);
            connection->OnBeginShutdown(nullptr);
            connection->OnDisconnection(ext_dm_HostShutdown, nullptr);
        }
    }

    // Settings the add-in reads once must be in place before this.
    void connect()
    {
        ComPtr<_IDTExtensibility2> connection;
        ASSERT_EQ(addin.As(&connection), S_OK);
        ASSERT_EQ(connection->OnConnection(outlook.application(), ext_cm_Startup, nullptr, nullptr), S_OK);
        connected = true;
    }

    HRESULT customUi(const wchar_t* ribbonId, std::wstring& xml, bool& hasXml)
    {
        ComPtr<IRibbonExtensibility> ribbon;
        EXPECT_EQ(addin.As(&ribbon), S_OK);
        BSTR id = SysAllocString(ribbonId);
        BSTR result = nullptr;
        const HRESULT hr = ribbon->GetCustomUI(id, &result);
        SysFreeString(id);
        hasXml = result != nullptr;
        xml = result ? std::wstring(result, SysStringLen(result)) : L"";
        SysFreeString(result);
        return hr;
    }

    std::wstring explorerXml()
    {
        std::wstring xml;
        bool hasXml = false;
        EXPECT_EQ(customUi(L"Microsoft.Outlook.Explorer", xml, hasXml), S_OK);
        EXPECT_TRUE(hasXml);
        return xml;
    }

    // A callback called as Office calls it: by dispatch id, arguments in call order.
    HRESULT call(DISPID id, std::vector<OwnedVariant> args, UniqueVariant& result)
    {
        std::vector<VARIANT> reversed;
        for (auto it = args.rbegin(); it != args.rend(); ++it)
            reversed.push_back(it->get());
        DISPPARAMS params{reversed.data(), nullptr, static_cast<UINT>(reversed.size()), 0};
        return dispatch->Invoke(id, IID_NULL, LOCALE_SYSTEM_DEFAULT, DISPATCH_METHOD, &params, result.put(), nullptr,
                                nullptr);
    }

    std::wstring textOf(DISPID id, std::vector<OwnedVariant> args)
    {
        UniqueVariant result;
        EXPECT_EQ(call(id, std::move(args), result), S_OK);
        EXPECT_EQ(result->vt, VT_BSTR);
        return result.text();
    }

    bool pressed(const wchar_t* controlId)
    {
        UniqueVariant result;
        EXPECT_EQ(call(41, {variant(static_cast<IDispatch*>(ribbonControl(controlId).Get()))}, result), S_OK);
        EXPECT_EQ(result->vt, VT_BOOL);
        return result->boolVal != VARIANT_FALSE;
    }

    void act(const wchar_t* controlId, bool pressedNow)
    {
        UniqueVariant result;
        EXPECT_EQ(call(40, {variant(static_cast<IDispatch*>(ribbonControl(controlId).Get())), variant(pressedNow)},
                       result),
                  S_OK);
    }

    IconFacts image(IDispatch* control, IDispatch* on = nullptr)
    {
        ComPtr<IDispatch> target = on ? on : dispatch.Get();
        OwnedVariant argument = variant(control);
        VARIANT single = argument.get();
        DISPPARAMS params{&single, nullptr, 1, 0};
        UniqueVariant result;
        EXPECT_EQ(target->Invoke(42, IID_NULL, LOCALE_SYSTEM_DEFAULT, DISPATCH_METHOD, &params, result.put(), nullptr,
                                 nullptr),
                  S_OK);
        return inspectPicture(result);
    }

    static OwnedVariant controlArgument(const wchar_t* id, const std::wstring& tag = L"")
    {
        return variant(static_cast<IDispatch*>(ribbonControl(id, tag).Get()));
    }

    ProductSettingsKey settings;
    ScratchFolder folder;
    AddinLog log{folder, settings};
    AddinDll dll{folder};
    OutlookStandIn outlook;
    ComPtr<IUnknown> addin;
    ComPtr<IDispatch> dispatch;
    bool connected = false;
};

bool isWellFormedXml(const std::wstring& xml)
{
    CLSID documentClass{};
    if (FAILED(CLSIDFromProgID(L"Msxml2.DOMDocument.3.0", &documentClass)))
        return false;
    ComPtr<IXMLDOMDocument> document;
    if (FAILED(CoCreateInstance(documentClass, nullptr, CLSCTX_INPROC_SERVER, IID_IXMLDOMDocument,
                                reinterpret_cast<void**>(document.GetAddressOf()))))
        return false;
    BSTR text = SysAllocStringLen(xml.data(), static_cast<UINT>(xml.size()));
    VARIANT_BOOL loaded = VARIANT_FALSE;
    document->loadXML(text, &loaded);
    SysFreeString(text);
    return loaded != VARIANT_FALSE;
}

} // namespace

TEST_F(Ribbon, WithoutRibbonInfoThereIsNoTab)
{
    connect();
    std::wstring xml;
    bool hasXml = true;
    EXPECT_EQ(customUi(L"Microsoft.Outlook.Explorer", xml, hasXml), S_OK);
    EXPECT_FALSE(hasXml);
}

TEST_F(Ribbon, TemplateComesWithEveryPlaceholderReplaced)
{
    settings.set(L"Ribbon.Microsoft.Outlook.Explorer", L"2;Mail tools");
    connect();
    const std::wstring xml = explorerXml();
    EXPECT_EQ(xml.find(L"${"), std::wstring::npos) << xml;
    EXPECT_NE(xml.find(L"label=\"Mail tools\""), std::wstring::npos) << xml;
    for (const wchar_t* key : {L"buttonGroup", L"groupOptions", L"labelFormat", L"labelAlwaysCopy",
                               L"labelTextAsJson", L"labelDecrypt", L"labelTextAsJsonNone", L"labelTextAsJsonTable",
                               L"labelTextAsJsonJSON"})
        EXPECT_NE(xml.find(L"\"T-" + std::wstring(key) + L"\""), std::wstring::npos) << key;
    EXPECT_NE(xml.find(L"onLoad=\"Ribbon_onLoad\""), std::wstring::npos);
    EXPECT_NE(xml.find(L"tag=\"default-button.png\""), std::wstring::npos);
    EXPECT_TRUE(isWellFormedXml(xml));
    EXPECT_GE(log.find("ribbonXml="), 0);
}

// Titles and texts are escaped for XML: Office gets a document it can load
// in every shipped language, and for titles and translations that are markup.
TEST_F(Ribbon, TheXmlLoadsInEveryLanguageAndWithTextsThatAreMarkup)
{
    for (const wchar_t* language : {L"en", L"de", L"fr"}) {
        const std::wstring name = L"\\resource_" + std::wstring(language) + L".txt";
        ASSERT_TRUE(CopyFileW((testProgramFolder() + name).c_str(), (folder.path() + name).c_str(), FALSE));
    }
    const struct {
        LANGID language;
        const wchar_t* title;
        const char* texts; // instead of the shipped English ones
    } runs[] = {
        {MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US), L"1;", nullptr},
        {MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN), L"1;", nullptr},
        {MAKELANGID(LANG_FRENCH, SUBLANG_FRENCH), L"1;", nullptr},
        {MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US), L"2;R&D", nullptr},
        {MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US), L"2;<", nullptr},
        {MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US), L"2;\"Mail\" & 'files' >", nullptr},
        {MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US), L"1;", "ribbonTitle = <b>&\nlabelDecrypt = \"S/MIME\" <off>\n"},
    };
    ComPtr<_IDTExtensibility2> connection;
    ASSERT_EQ(addin.As(&connection), S_OK);
    for (const auto& run : runs) {
        if (run.texts)
            writeTexts(folder, "en", run.texts);
        settings.set(L"Ribbon.Microsoft.Outlook.Explorer", run.title);
        outlook.setLanguageId(run.language);
        ASSERT_EQ(connection->OnConnection(outlook.application(), ext_cm_Startup, nullptr, nullptr), S_OK);
        connected = true;
        const std::wstring xml = explorerXml();
        EXPECT_TRUE(isWellFormedXml(xml)) << testing::PrintToString(run.title) << testing::PrintToString(xml);
    }
    EXPECT_NE(explorerXml().find(L"label=\"&quot;S/MIME&quot; &lt;off&gt;\""), std::wstring::npos);
}

TEST_F(Ribbon, TitleOneTakesTheLocalizedTitle)
{
    settings.set(L"Ribbon.Microsoft.Outlook.Explorer", L"1;ignored");
    connect();
    EXPECT_NE(explorerXml().find(L"label=\"T-ribbonTitle\""), std::wstring::npos);
}

TEST_F(Ribbon, Outlook2013ShowsTheTitleInCapitals)
{
    settings.set(L"Ribbon.Microsoft.Outlook.Explorer", L"2;Mail tools");
    outlook.setVersion(L"15.0.4569.1506");
    connect();
    const std::wstring xml = explorerXml();
    EXPECT_NE(xml.find(L"label=\"MAIL TOOLS\""), std::wstring::npos) << xml;
    // Only the title: the other texts stay as they are.
    EXPECT_NE(xml.find(L"\"T-buttonGroup\""), std::wstring::npos);
}

TEST_F(Ribbon, OtherWindowsGetNoTab)
{
    settings.set(L"Ribbon.Microsoft.Outlook.Explorer", L"2;Mail tools");
    connect();
    for (const wchar_t* id : {L"Microsoft.Outlook.Mail.Read", L"Microsoft.Outlook.Contact", L""}) {
        std::wstring xml;
        bool hasXml = true;
        EXPECT_EQ(customUi(id, xml, hasXml), S_OK);
        EXPECT_FALSE(hasXml) << id;
    }
    ComPtr<IRibbonExtensibility> ribbon;
    ASSERT_EQ(addin.As(&ribbon), S_OK);
    EXPECT_EQ(ribbon->GetCustomUI(nullptr, nullptr), E_POINTER);
}

TEST_F(Ribbon, DefinitionFileBesideTheAddinIsUsedWithItsPlaceholders)
{
    settings.set(L"Ribbon.Microsoft.Outlook.Explorer", L"2;Mail tools");
    writeBytes(folder.file(L"Ribbon.Microsoft.Outlook.Explorer.xml"),
               "\xEF\xBB\xBF<customUI><tab label=\"${ribbonTitle}\"><group label=\"${buttonLabel} \xE2\x82\xAC\"/>"
               "<group label=\"${buttonGroup}${buttonGroup}\"/></tab></customUI>");
    connect();
    EXPECT_EQ(explorerXml(), L"<customUI><tab label=\"Mail tools\"><group label=\"T-buttonActive \u20AC\"/>"
                             L"<group label=\"T-buttonGroupT-buttonGroup\"/></tab></customUI>");
    EXPECT_GE(log.find("Loaded ribbon definition from file="), 0);
}

TEST_F(Ribbon, OnOffButtonWritesLockedAndHasOfficeRedrawIt)
{
    connect();
    auto ribbon = ribbonUi();
    UniqueVariant ignored;
    ASSERT_EQ(call(44, {variant(static_cast<IDispatch*>(ribbon.Get()))}, ignored), S_OK);

    EXPECT_TRUE(pressed(L"bnOnOff"));
    EXPECT_EQ(textOf(43, {controlArgument(L"bnOnOff")}), L"T-buttonActive");

    act(L"bnOnOff", false);
    EXPECT_EQ(settings.get(L"Locked"), L"true");
    ASSERT_EQ(ribbon->callCount(L"InvalidateControl"), 1u);
    EXPECT_EQ(ribbon->lastCall(L"InvalidateControl")->args.at(0).text(), L"bnOnOff");
    EXPECT_FALSE(pressed(L"bnOnOff"));
    EXPECT_EQ(textOf(43, {controlArgument(L"bnOnOff")}), L"T-buttonInactive");

    act(L"bnOnOff", true);
    EXPECT_EQ(settings.get(L"Locked"), L"false");
    EXPECT_EQ(ribbon->callCount(L"InvalidateControl"), 2u);
    EXPECT_GE(log.find("InvalidateControl=0"), 0);
}

TEST_F(Ribbon, CheckBoxesWriteTheirSettingsWithoutRedraw)
{
    connect();
    auto ribbon = ribbonUi();
    UniqueVariant ignored;
    ASSERT_EQ(call(44, {variant(static_cast<IDispatch*>(ribbon.Get()))}, ignored), S_OK);

    EXPECT_TRUE(pressed(L"ckAlwaysCopy"));
    act(L"ckAlwaysCopy", false);
    EXPECT_EQ(settings.get(L"IgnoreTargetEffectIfDroppedIntoOtherApplication"), L"false");
    EXPECT_FALSE(pressed(L"ckAlwaysCopy"));

    EXPECT_TRUE(pressed(L"ckDecrypt"));
    act(L"ckDecrypt", false);
    EXPECT_EQ(settings.get(L"DecryptEnabled"), L"false");
    act(L"ckDecrypt", true);
    EXPECT_EQ(settings.get(L"DecryptEnabled"), L"true");

    EXPECT_FALSE(ribbon->wasCalled(L"InvalidateControl"));
}

TEST_F(Ribbon, UnknownControlsChangeNothing)
{
    connect();
    act(L"somethingElse", true);
    act(L"somethingElse", false);
    EXPECT_FALSE(pressed(L"somethingElse"));
    EXPECT_EQ(settings.get(L"Locked"), L"");
    EXPECT_EQ(settings.get(L"DecryptEnabled"), L"");
    // A call without a control object at all.
    UniqueVariant result;
    EXPECT_EQ(call(41, {OwnedVariant()}, result), S_OK);
    EXPECT_EQ(result->boolVal, VARIANT_FALSE);
}

TEST_F(Ribbon, FormatDropDownShowsAndWritesTheMailFormat)
{
    connect();
    EXPECT_EQ(textOf(45, {controlArgument(L"cbFormat")}), L"msg");
    UniqueVariant ignored;
    ASSERT_EQ(call(46, {controlArgument(L"cbFormat"), variant(L"eml"), variant(1)}, ignored), S_OK);
    EXPECT_EQ(settings.get(L"Format"), L"eml");
    EXPECT_EQ(textOf(45, {controlArgument(L"cbFormat")}), L"eml");

    UniqueVariant count;
    ASSERT_EQ(call(49, {controlArgument(L"cbFormat")}, count), S_OK);
    EXPECT_EQ(count->vt, VT_I4);
    EXPECT_EQ(count->lVal, 2);
    EXPECT_EQ(textOf(47, {controlArgument(L"cbFormat"), variant(5)}), L"EML");
    EXPECT_EQ(textOf(47, {controlArgument(L"cbFormat"), variant(-1)}), L"MSG");
    EXPECT_EQ(textOf(48, {controlArgument(L"cbFormat"), variant(0)}), L"msg");
    EXPECT_EQ(textOf(48, {controlArgument(L"cbFormat"), variant(1)}), L"eml");
}

TEST_F(Ribbon, TextDropDownShowsAndWritesTheTextFormat)
{
    connect();
    EXPECT_EQ(textOf(50, {controlArgument(L"cbTextFormat")}), L"none");
    UniqueVariant ignored;
    ASSERT_EQ(call(51, {controlArgument(L"cbTextFormat"), variant(L"json"), variant(2)}, ignored), S_OK);
    EXPECT_EQ(settings.get(L"TextFormat"), L"json");
    EXPECT_EQ(textOf(50, {controlArgument(L"cbTextFormat")}), L"json");
}

TEST_F(Ribbon, BuiltInImagesShowTheState)
{
    connect();
    const IconFacts on = image(ribbonControl(L"bnOnOff", L"default-button.png").Get());
    EXPECT_EQ(on.pictureType, PICTYPE_ICON);
    EXPECT_EQ(on.width, 32);
    EXPECT_EQ(on.height, 32);
    EXPECT_GT(on.green, on.red + 60) << "interception on is green";

    settings.set(L"Locked", L"true");
    const IconFacts off = image(ribbonControl(L"bnOnOff", L"default-button.png").Get());
    EXPECT_EQ(off.width, 32);
    EXPECT_LT(std::abs(int(off.green) - int(off.red)), 20) << "interception off is grey";
    EXPECT_GE(log.find("assume buttonTag is fileName=default-button.png"), 0);
}

TEST_F(Ribbon, ImageFileNamedByTheTagIsUsedAndKept)
{
    connect();
    const std::string png = pngOfSize(24, 24);
    ASSERT_FALSE(png.empty());
    writeBytes(folder.file(L"my-button.png"), png);
    auto control = ribbonControl(L"bnOnOff", L"my-button.png");
    EXPECT_EQ(image(control.Get()).width, 24);
    // Made once per state, then kept.
    DeleteFileW(folder.file(L"my-button.png").c_str());
    EXPECT_EQ(image(control.Get()).width, 24);
}

TEST_F(Ribbon, ImageInTheRegistryNamedByTheTagIsUsed)
{
    TestSettingsKeys keys;
    const std::string png = pngOfSize(40, 40);
    ASSERT_FALSE(png.empty());
    const std::string text = "base64:" + encodeBase64(png);
    ASSERT_TRUE(RegUtil::setRegValue(keys.userPath(L"ButtonImage"), L"", std::wstring(text.begin(), text.end())));
    connect();
    const IconFacts facts = image(ribbonControl(L"bnOnOff", L"reg:" + keys.userPath(L"ButtonImage")).Get());
    EXPECT_EQ(facts.pictureType, PICTYPE_ICON);
    EXPECT_EQ(facts.width, 40);
}

TEST_F(Ribbon, UnusableTagsFallBackToTheBuiltInImage)
{
    TestSettingsKeys keys;
    ASSERT_TRUE(RegUtil::setRegValue(keys.userPath(L"NotBase64"), L"", L"base64:***not Base64***"));
    ASSERT_TRUE(RegUtil::setRegValue(keys.userPath(L"NotAnImage"), L"", L"base64:aGVsbG8gd29ybGQ="));
    writeBytes(folder.file(L"broken.png"), "this is no PNG");
    connect();
    auto withoutTag = DispatchStandIn::create(L"IRibbonControl");
    withoutTag->property(L"Id", [] { return variant(L"bnOnOff"); });

    const std::vector<ComPtr<IDispatch>> controls = {
        ribbonControl(L"bnOnOff", L"reg:" + keys.userPath(L"NotBase64")),
        ribbonControl(L"bnOnOff", L"reg:" + keys.userPath(L"NotAnImage")),
        ribbonControl(L"bnOnOff", L"reg:" + keys.userPath(L"NoSuchValue")),
        ribbonControl(L"bnOnOff", L"missing.png"),
        ribbonControl(L"bnOnOff", L"broken.png"),
        withoutTag,
        nullptr,
    };
    for (size_t index = 0; index < controls.size(); ++index) {
        // Icons are kept per object: a new object each time.
        auto fresh = dll.create<IDispatch>();
        const IconFacts facts = image(controls[index].Get(), fresh.Get());
        EXPECT_EQ(facts.width, 32) << "control " << index;
    }
    EXPECT_GE(log.find("is not Base64"), 0);
}
