// The ribbon as Office drives it: GetCustomUI for each window, then the
// callbacks by name, the settings they write and the images they give.
#include "addin_host.h"

#include "core/base64.h"

#include <msxml2.h>
#include <olectl.h>

namespace {

constexpr LANGID english = MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US);

// Texts that name their keys, so that a test sees which key filled what.
constexpr const char* markedTexts =
    "ribbonTitle=T-ribbonTitle\nbuttonGroup=T-buttonGroup\nbuttonActive=T-buttonActive\n"
    "buttonInactive=T-buttonInactive\ngroupOptions=T-groupOptions\nlabelFormat=T-labelFormat\n"
    "labelAlwaysCopy=T-labelAlwaysCopy\nlabelDecrypt=T-labelDecrypt\nlabelTextAsJson=T-labelTextAsJson\n"
    "labelTextAsJsonNone=T-None\nlabelTextAsJsonTable=T-Table\nlabelTextAsJsonJSON=T-JSON\n";

bool isWellFormedXml(const std::wstring& xml)
{
    CLSID documentClass{};
    ComPtr<IXMLDOMDocument> document;
    VARIANT_BOOL loaded = VARIANT_FALSE;
    BSTR text = SysAllocStringLen(xml.data(), static_cast<UINT>(xml.size()));
    if (SUCCEEDED(CLSIDFromProgID(L"Msxml2.DOMDocument.3.0", &documentClass)) &&
        SUCCEEDED(CoCreateInstance(documentClass, nullptr, CLSCTX_INPROC_SERVER, IID_IXMLDOMDocument,
                                   reinterpret_cast<void**>(document.GetAddressOf()))))
        document->loadXML(text, &loaded);
    SysFreeString(text);
    return loaded != VARIANT_FALSE;
}

// Green minus red at (16, 25) of the icon Ribbon_getImage gives: the switch's
// track, green in the built-in "on" image, grey in the "off" one.
int greenness(IDispatch* addin, const OwnedVariant& control)
{
    VARIANT argument = control.get();
    DISPPARAMS params{&argument, nullptr, 1, 0};
    UniqueVariant result;
    ComPtr<IPicture> picture;
    OLE_HANDLE handle = 0;
    ICONINFO icon{};
    if (FAILED(addin->Invoke(42, IID_NULL, 0, DISPATCH_METHOD, &params, result.put(), nullptr, nullptr)) ||
        result->vt != VT_DISPATCH || FAILED(result->pdispVal->QueryInterface(IID_PPV_ARGS(&picture))) ||
        FAILED(picture->get_Handle(&handle)) || !GetIconInfo(reinterpret_cast<HICON>(UINT_PTR(handle)), &icon))
        return 1000;
    BITMAPINFO format{{sizeof(BITMAPINFOHEADER), 32, -32, 1, 32, BI_RGB, 0, 0, 0, 0, 0}, {}};
    std::vector<BYTE> pixels(32 * 32 * 4); // top-down rows of blue, green, red, alpha
    HDC dc = CreateCompatibleDC(nullptr);
    const bool read = GetDIBits(dc, icon.hbmColor, 0, 32, pixels.data(), &format, DIB_RGB_COLORS) == 32;
    DeleteDC(dc);
    DeleteObject(icon.hbmColor);
    DeleteObject(icon.hbmMask);
    return read ? pixels[(25 * 32 + 16) * 4 + 1] - pixels[(25 * 32 + 16) * 4 + 2] : 1000;
}

} // namespace

// The tab in the explorer window only, every text in place and the XML
// well-formed in every language and for titles and translations that are markup.
TEST_F(Addin, CustomUiForEachWindowTitleAndLanguage)
{
    const struct {
        const wchar_t* ribbonInfo;
        const char* texts;                   // nullptr: the shipped ones
        std::vector<std::wstring> contained; // none: no XML at all
        LANGID language = english;
        const wchar_t *window = L"Explorer", *version = L"16.0.0.0";
        const char* definition = nullptr; // Ribbon.Microsoft.Outlook.Explorer.xml beside the add-in
    } rows[] = {
        {L"", markedTexts, {}},
        {L"2;Mail tools", markedTexts, {}, english, L"Mail.Read"},
        {L"2;Mail tools", markedTexts,
         {L"label=\"Mail tools\"", L"\"T-buttonGroup\"", L"\"T-groupOptions\"", L"\"T-labelFormat\"", L"\"T-JSON\"",
          L"\"T-labelAlwaysCopy\"", L"\"T-labelDecrypt\"", L"\"T-labelTextAsJson\"", L"\"T-None\"", L"\"T-Table\"",
          L"onLoad=\"Ribbon_onLoad\"", L"tag=\"default-button.png\""}},
        {L"1;ignored", markedTexts, {L"label=\"T-ribbonTitle\""}},
        {L"2;Mail tools", markedTexts, {L"label=\"MAIL TOOLS\""}, english, L"Explorer", L"15.0.4569.1506"},
        {L"1;", nullptr, {L"label=\"Korvane\""}},
        {L"1;", nullptr, {L"Verschl\u00FCss"}, MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN)},
        {L"1;", nullptr, {L"\"bnOnOff\""}, MAKELANGID(LANG_FRENCH, SUBLANG_FRENCH)},
        {L"2;\"R&D\" <&>", nullptr, {L"label=\"&quot;R&amp;D&quot; &lt;&amp;&gt;\""}},
        {L"1;", "ribbonTitle = <b>&\nlabelDecrypt = \"S/MIME\" <off>\n", {L"label=\"&quot;S/MIME&quot; &lt;off&gt;\""}},
        {L"2;Mail tools", markedTexts,
         {L"<customUI><tab label=\"Mail tools\"><group label=\"T-buttonActive \u20AC T-buttonGroupT-buttonGroup\"/>"
          L"</tab></customUI>"},
         english, L"Explorer", L"16.0.0.0",
         "\xEF\xBB\xBF<customUI><tab label=\"${ribbonTitle}\"><group label=\"${buttonLabel} \xE2\x82\xAC "
         "${buttonGroup}${buttonGroup}\"/></tab></customUI>"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(wideToUtf8(row.ribbonInfo) + " " + wideToUtf8(row.window) + " " + std::to_string(row.language));
        LoadedAddin addin; // a new Outlook: the ribbon info is read at the start
        for (const std::wstring name : {L"\\resource_en.txt", L"\\resource_de.txt", L"\\resource_fr.txt"})
            CopyFileW((testProgramFolder() + name).c_str(), (addin.folder.path() + name).c_str(), FALSE);
        if (row.texts)
            addin.writeTexts(L"en", row.texts);
        if (row.definition)
            writeBytes(addin.folder.file(L"Ribbon.Microsoft.Outlook.Explorer.xml"), row.definition);
        user(L"Ribbon.Microsoft.Outlook.Explorer", row.ribbonInfo);
        addin.outlook.setLanguageId(row.language);
        addin.outlook.setVersion(row.version);
        addin.connect();
        ComPtr<IRibbonExtensibility> ribbon;
        ASSERT_EQ(addin.object.As(&ribbon), S_OK);
        UniqueVariant id(L"Microsoft.Outlook." + std::wstring(row.window)), xml;
        ASSERT_EQ(ribbon->GetCustomUI(id->bstrVal, &xml->bstrVal), S_OK);
        xml->vt = VT_BSTR;
        ASSERT_EQ(xml->bstrVal != nullptr, !row.contained.empty());
        EXPECT_TRUE(!xml->bstrVal || isWellFormedXml(xml.text())) << wideToUtf8(xml.text());
        EXPECT_EQ(xml.text().find(L"${"), std::wstring::npos) << wideToUtf8(xml.text());
        for (const std::wstring& part : row.contained)
            EXPECT_NE(xml.text().find(part), std::wstring::npos) << wideToUtf8(part + L" in " + xml.text());
    }
}

// Every callback, found by name as Office finds it, in the order a user meets
// them; calls that don't fit are refused and change nothing.
TEST_F(Addin, CallbacksShowAndWriteTheSettings)
{
    writeTexts(L"en", markedTexts);
    connect();
    auto ribbonUi = DispatchStandIn::create(L"IRibbonUI");
    ribbonUi->method(L"InvalidateControl", [](const std::vector<VARIANT>&, VARIANT*) { return S_OK; });
    UniqueVariant result;
    ASSERT_EQ(invoke(L"Ribbon_onLoad", {variant(static_cast<IDispatch*>(ribbonUi.Get()))}, result), S_OK);
    const struct {
        const wchar_t *callback, *control; // the name after "Ribbon_"; no control: nullptr
        std::vector<OwnedVariant> more;    // the arguments after the control
        std::wstring answer;               // a bool as "pressed" or "up"
        const wchar_t *setting = nullptr, *value = nullptr;
    } steps[] = {
        {L"getPressed", L"bnOnOff", {}, L"pressed"}, {L"getLabel", L"bnOnOff", {}, L"T-buttonActive"},
        {L"onAction", L"bnOnOff", {variant(false)}, L"", L"Locked", L"true"}, {L"getPressed", L"bnOnOff", {}, L"up"},
        {L"getLabel", L"bnOnOff", {}, L"T-buttonInactive"},
        {L"onAction", L"bnOnOff", {variant(true)}, L"", L"Locked", L"false"},
        {L"getPressed", L"ckAlwaysCopy", {}, L"pressed"},
        {L"onAction", L"ckAlwaysCopy", {variant(false)}, L"", L"IgnoreTargetEffectIfDroppedIntoOtherApplication",
         L"false"},
        {L"getPressed", L"ckAlwaysCopy", {}, L"up"}, {L"getPressed", L"ckDecrypt", {}, L"pressed"},
        {L"onAction", L"ckDecrypt", {variant(false)}, L"", L"DecryptEnabled", L"false"},
        {L"onAction", L"ckDecrypt", {variant(true)}, L"", L"DecryptEnabled", L"true"},
        {L"onAction", L"somethingElse", {variant(false)}, L"", L"Locked", L"false"},
        {L"getPressed", L"somethingElse", {}, L"up"}, {L"getPressed", nullptr, {}, L"up"},
        {L"getSelectedFormatID", L"cbFormat", {}, L"msg"},
        {L"onFormatChanged", L"cbFormat", {variant(L"eml"), variant(1)}, L"", L"Format", L"eml"},
        {L"getSelectedFormatID", L"cbFormat", {}, L"eml"}, {L"getFormatCount", L"cbFormat", {}, L"2"},
        {L"getFormatLabel", L"cbFormat", {variant(5)}, L"EML"}, {L"getFormatLabel", L"cbFormat", {variant(-1)}, L"MSG"},
        {L"getFormatId", L"cbFormat", {variant(0)}, L"msg"}, {L"getFormatId", L"cbFormat", {variant(1)}, L"eml"},
        {L"getSelectedTextFormatID", L"cbTextFormat", {}, L"none"},
        {L"onTextFormatChanged", L"cbTextFormat", {variant(L"json"), variant(2)}, L"", L"TextFormat", L"json"},
        {L"getSelectedTextFormatID", L"cbTextFormat", {}, L"json"},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE("step " + std::to_string(&step - steps));
        std::vector<OwnedVariant> args{step.control ? ribbonControl(step.control) : OwnedVariant()};
        args.insert(args.end(), step.more.begin(), step.more.end());
        ASSERT_EQ(invoke((L"Ribbon_" + std::wstring(step.callback)).c_str(), args, result), S_OK);
        EXPECT_EQ(result->vt == VT_BOOL ? (result->boolVal ? L"pressed" : L"up") : result.text(), step.answer);
        EXPECT_EQ(step.setting ? userValue(step.setting) : L"", step.value ? step.value : L"");
    }
    EXPECT_EQ(invoke(L"ribbon_onaction", {ribbonControl(L"bnOnOff"), variant(false)}, result), DISP_E_MEMBERNOTFOUND);
    EXPECT_EQ(invoke(L"Ribbon_onAction", {ribbonControl(L"bnOnOff")}, result), DISP_E_BADPARAMCOUNT);
    EXPECT_EQ(invoke(L"Ribbon_getFormatId", {ribbonControl(L"cbFormat"), variant(L"x")}, result), DISP_E_TYPEMISMATCH);
    EXPECT_EQ(userValue(L"Locked"), L"false");
    // Only the on/off button is redrawn: Office shows the other controls' state itself.
    EXPECT_EQ(ribbonUi->callCount(L"InvalidateControl"), 2u);
    EXPECT_EQ(ribbonUi->lastCall(L"InvalidateControl")->args.at(0).text(), L"bnOnOff");
}

// The on/off button's image from the tag's file or registry value, else the
// built-in one of the state.
TEST_F(Addin, ButtonImagesFromTagFileRegistryOrResource)
{
    HRSRC resource = FindResourceW(dll.module(), MAKEINTRESOURCEW(204), L"PNG");
    const std::string offImage(static_cast<const char*>(LockResource(LoadResource(dll.module(), resource))),
                               SizeofResource(dll.module(), resource));
    writeBytes(folder.file(L"off.png"), offImage);
    writeBytes(folder.file(L"broken.png"), "this is no PNG");
    const std::string base64 = "base64:" + encodeBase64(offImage);
    user(L"ButtonImage", std::wstring(base64.begin(), base64.end()));
    user(L"NotBase64", L"base64:***not Base64***");
    user(L"NotAnImage", L"base64:aGVsbG8gd29ybGQ=");
    connect();
    const std::pair<std::wstring, bool> tags[] = { // the tag, whether the image is the built-in "on" one
        {L"default-button.png", true}, {L"off.png", false}, {L"reg:" + userPlace(L"ButtonImage"), false},
        {L"reg:" + userPlace(L"NotBase64"), true}, {L"reg:" + userPlace(L"NotAnImage"), true},
        {L"reg:" + userPlace(L"NoSuchValue"), true}, {L"missing.png", true}, {L"broken.png", true}, {L"", true}};
    for (const auto& [tag, builtIn] : tags) {
        const int green = greenness(create<IDispatch>().Get(), ribbonControl(L"bnOnOff", tag)); // nothing kept yet
        EXPECT_TRUE(builtIn ? green > 60 : std::abs(green) < 20) << wideToUtf8(tag) << ": " << green;
    }
    EXPECT_NE(log().find("is not Base64"), std::string::npos);
    user(L"Locked", L"true");
    EXPECT_LT(std::abs(greenness(create<IDispatch>().Get(), ribbonControl(L"bnOnOff"))), 20) << "the built-in off";
}
