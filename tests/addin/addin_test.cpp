// The add-in as Outlook finds and uses it: registered by regsvr32 on a real
// copy of the DLL and checked with the raw registry API (packages and their
// custom actions: package_tests), created by ProgID, connected in Outlook's order.
#include "addin_host.h"

#include <chrono>

TEST_F(Addin, OutlookFindsAndCreatesTheRegisteredAddin)
{
    const RegistrySnapshot before = registryBeforeInstalling();
    const auto call = [this](const char* name) { return exportOf<HRESULT STDAPICALLTYPE()>(dll.module(), name)(); };
    writeBytes(folder.file(L"install.cfg"), "addinFriendlyName = Korvane under test\naddinDescription = Real files\n");
    ASSERT_EQ(call("DllRegisterServer"), S_OK);
    // Outlook's list of add-ins; a registration shows the tab with its localized title.
    EXPECT_EQ(rawString(HKEY_LOCAL_MACHINE, addinSubKey, L"FriendlyName"), L"Korvane under test");
    EXPECT_EQ(rawString(HKEY_LOCAL_MACHINE, addinSubKey, L"Description"), L"Real files");
    EXPECT_EQ(rawString(HKEY_LOCAL_MACHINE, productKey + L"\\Ribbon.Microsoft.Outlook.Explorer"), L"1;");

    // The ProgID leads to the class, the class to this file.
    CLSID clsid{}, versioned{};
    ASSERT_EQ(CLSIDFromProgID(L"KVDragDropAddin.class", &clsid), S_OK);
    ASSERT_EQ(CLSIDFromProgID(L"KVDragDropAddin.class.1", &versioned), S_OK);
    EXPECT_TRUE(clsid == CLSID_CKVDragDropAddin && versioned == CLSID_CKVDragDropAddin);
    const std::wstring classKey = L"CLSID\\" + guidText(CLSID_CKVDragDropAddin);
    const std::pair<std::wstring, std::wstring> values[] = {
        {L"KVDragDropAddin.class\\CurVer", L"KVDragDropAddin.class.1"},
        {classKey, L"KVDragDropAddin Class"},
        {classKey + L"\\InprocServer32", folder.file(L"addin-copy.dll")},
        {classKey + L"\\ProgID", L"KVDragDropAddin.class.1"},
        {classKey + L"\\VersionIndependentProgID", L"KVDragDropAddin.class"},
        {classKey + L"\\TypeLib", guidText(LIBID_korvaneLib)},
        {classKey + L"\\Version", L"1.0"},
    };
    for (const auto& [key, value] : values)
        EXPECT_EQ(rawString(HKEY_CLASSES_ROOT, key), value);
    EXPECT_EQ(rawString(HKEY_CLASSES_ROOT, classKey + L"\\InprocServer32", L"ThreadingModel"), L"Apartment");
    const auto canUnloadNow = exportOf<HRESULT STDAPICALLTYPE()>(dll.module(), "DllCanUnloadNow");
    {
        // Activation as Outlook does it: by ProgID, in process.
        ComPtr<_IDTExtensibility2> addin;
        ComPtr<IRibbonExtensibility> ribbon;
        ASSERT_EQ(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&addin)), S_OK);
        EXPECT_EQ(addin.As(&ribbon), S_OK);
        EXPECT_EQ(canUnloadNow(), S_FALSE) << "COM loaded this very copy: its objects hold it";
    }
    CoFreeUnusedLibrariesEx(0, 0);
    EXPECT_EQ(canUnloadNow(), S_OK);
    ASSERT_EQ(call("DllUnregisterServer"), S_OK);
    const auto left = registryChanges(before, takeRegistrySnapshot());
    EXPECT_TRUE(left.empty()) << describeChanges(left);

    // An administrator's ribbon info (a policy's named value) stays.
    machine(L"Ribbon.Microsoft.Outlook.Explorer", L"0;");
    ASSERT_EQ(call("DllRegisterServer"), S_OK);
    EXPECT_EQ(rawString(HKEY_LOCAL_MACHINE, productKey + L"\\Ribbon.Microsoft.Outlook.Explorer"), L"<missing>");
    ASSERT_EQ(call("DllUnregisterServer"), S_OK);
}

// Outlook's connection events in its order, as Outlook and the log see them.
TEST_F(Addin, ConnectionsFromStartToDisablingAndClosing)
{
    writeTexts(L"de", "buttonActive = Echte Dateien: an\n");
    user(L"LogAppend", L"true"); // both connections in one log
    outlook.setLanguageId(MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN));
    IDispatch* application = outlook.application();
    const auto referencesOf = [](IUnknown* object) { object->AddRef(); return object->Release(); };
    const ULONG unconnected = referencesOf(application);
    object = create();
    EXPECT_EQ(userValue(L"TextFormat"), L"");
    connect();
    // The version on an INFO line, then the marker of a new connection, then its trace.
    const std::string text = log();
    const size_t version = text.find(" Version " + std::to_string(KORVANE_VERSION_MAJOR) + "." +
                                     std::to_string(KORVANE_VERSION_MINOR) + "." +
                                     std::to_string(KORVANE_VERSION_PATCH) + "." +
                                     std::to_string(KORVANE_VERSION_TWEAK) + "\r\n");
    ASSERT_NE(version, std::string::npos) << text;
    const size_t lineStart = text.rfind('\n', version) + 1;
    EXPECT_NE(text.substr(lineStart, version - lineStart).find(" INFO Globals:"), std::string::npos);
    EXPECT_LT(text.find(" -----------\r\n", version), text.find("OnConnection(application="));
    EXPECT_EQ(userValue(L"TextFormat"), L"none") << "the first start sets the text format";
    EXPECT_GT(referencesOf(application), unconnected);
    UniqueVariant label;
    EXPECT_EQ(invoke(L"Ribbon_getLabel", {ribbonControl(L"bnOnOff")}, label), S_OK);
    EXPECT_EQ(label.text(), L"Echte Dateien: an") << "Office's user-interface language";
    EXPECT_EQ(outlook.languageSettingsObject().lastCall(L"LanguageID")->args.at(0).number(), 2);

    // Interception a few seconds after the add-ins update, off when the user disables the add-in.
    ComPtr<_IDTExtensibility2> connection;
    ASSERT_EQ(object.As(&connection), S_OK);
    const auto updated = std::chrono::steady_clock::now();
    ASSERT_EQ(connection->OnAddInsUpdate(nullptr), S_OK);
    EXPECT_EQ(log().find("EnableDragDrop("), std::string::npos) << "switched on at once";
    while (log().find("EnableDragDrop(enable=1") == std::string::npos &&
           std::chrono::steady_clock::now() - updated < std::chrono::seconds(10))
        Sleep(50);
    EXPECT_GE(std::chrono::steady_clock::now() - updated, std::chrono::milliseconds(2900));
    ASSERT_NE(log().find("EnableDragDrop(enable=1"), std::string::npos) << "never switched on";
    ASSERT_EQ(connection->OnStartupComplete(nullptr), S_OK);
    ASSERT_EQ(connection->OnDisconnection(ext_dm_UserClosed, nullptr), S_OK);
    EXPECT_LT(log().find("OnDisconnection()"), log().find("EnableDragDrop(enable=0"));
    EXPECT_NE(log().find("EnableDragDrop(enable=0"), std::string::npos) << "interception still on";
    EXPECT_EQ(referencesOf(application), unconnected);

    // Outlook closing: nothing is logged after the beginning of the shutdown.
    connect();
    shutdown();
    EXPECT_TRUE(log().ends_with(" OnBeginShutdown()\r\n")) << log().substr(log().size() - 300);
    EXPECT_EQ(referencesOf(application), unconnected);
}
