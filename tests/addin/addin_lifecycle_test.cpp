// Outlook's connection events in the order Outlook sends them, checked in the
// add-in's log and in what it holds of Outlook.
#include "addin_host.h"

#include "e2e_shared/outlook_standin.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using Microsoft::WRL::ComPtr;

namespace {

ULONG referencesOf(IUnknown* object)
{
    object->AddRef();
    return object->Release();
}

class Lifecycle : public testing::Test {
protected:
    void SetUp() override
    {
        writeTexts(folder, "en", "buttonActive = Real files: on\nbuttonInactive = Real files: off\n");
        writeTexts(folder, "de", "buttonActive = Echte Dateien: an\nbuttonInactive = Echte Dateien: aus\n");
        addin = dll.create<_IDTExtensibility2>();
        ASSERT_NE(addin, nullptr);
    }

    std::wstring label()
    {
        ComPtr<IKVDragDropAddin> callbacks;
        EXPECT_EQ(addin.As(&callbacks), S_OK);
        BSTR text = nullptr;
        EXPECT_EQ(callbacks->Ribbon_getLabel(ribbonControl(L"bnOnOff").Get(), &text), S_OK);
        std::wstring result = text ? text : L"";
        SysFreeString(text);
        return result;
    }

    ProductSettingsKey settings;
    ScratchFolder folder;
    AddinLog log{folder, settings};
    AddinDll dll{folder};
    OutlookStandIn outlook;
    ComPtr<_IDTExtensibility2> addin;
};

} // namespace

TEST_F(Lifecycle, ConnectionLogsVersionThenMarkerThenItsTrace)
{
    ASSERT_EQ(addin->OnConnection(outlook.application(), ext_cm_Startup, nullptr, nullptr), S_OK);
    ASSERT_EQ(addin->OnBeginShutdown(nullptr), S_OK);

    const int version = log.find("Version ");
    const int marker = log.find("-----------");
    const int entry = log.find("OnConnection(application=");
    const int exit = log.find(")OnConnection=0");
    ASSERT_GE(version, 0) << log.contents();
    EXPECT_LT(version, marker);
    EXPECT_LT(marker, entry);
    EXPECT_LT(entry, exit);
    EXPECT_NE(log.contents().find(" INFO KVDragDropAddin:"), std::string::npos);
    // Office's user-interface language was asked for.
    EXPECT_TRUE(outlook.languageSettingsObject().wasCalled(L"LanguageID"));
}

TEST_F(Lifecycle, TextsFollowOfficesLanguage)
{
    outlook.setLanguageId(MAKELANGID(LANG_GERMAN, SUBLANG_GERMAN));
    ASSERT_EQ(addin->OnConnection(outlook.application(), ext_cm_Startup, nullptr, nullptr), S_OK);
    EXPECT_EQ(label(), L"Echte Dateien: an");
    settings.set(L"Locked", L"true");
    EXPECT_EQ(label(), L"Echte Dateien: aus");
    addin->OnBeginShutdown(nullptr);
}

TEST_F(Lifecycle, ApplicationIsHeldFromConnectionToDisconnection)
{
    IDispatch* application = outlook.application();
    const ULONG unconnected = referencesOf(application);
    ASSERT_EQ(addin->OnConnection(application, ext_cm_AfterStartup, nullptr, nullptr), S_OK);
    EXPECT_GT(referencesOf(application), unconnected);
    ASSERT_EQ(addin->OnStartupComplete(nullptr), S_OK);
    ASSERT_EQ(addin->OnBeginShutdown(nullptr), S_OK);
    ASSERT_EQ(addin->OnDisconnection(ext_dm_HostShutdown, nullptr), S_OK);
    EXPECT_EQ(referencesOf(application), unconnected);
}

TEST_F(Lifecycle, NothingIsLoggedAfterTheBeginningOfShutdown)
{
    ASSERT_EQ(addin->OnConnection(outlook.application(), ext_cm_Startup, nullptr, nullptr), S_OK);
    ASSERT_EQ(addin->OnStartupComplete(nullptr), S_OK);
    ASSERT_EQ(addin->OnBeginShutdown(nullptr), S_OK);
    ASSERT_EQ(addin->OnDisconnection(ext_dm_HostShutdown, nullptr), S_OK);

    const auto messages = log.messages();
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(messages.back(), "OnBeginShutdown()");
    EXPECT_GE(log.find("OnStartupComplete("), 0);
    EXPECT_LT(log.find("OnDisconnection()"), 0);
}

TEST_F(Lifecycle, ConnectionWithoutOutlookStillSucceeds)
{
    EXPECT_EQ(addin->OnConnection(nullptr, ext_cm_External, nullptr, nullptr), S_OK);
    EXPECT_EQ(label(), L"Real files: on");
    EXPECT_EQ(addin->OnBeginShutdown(nullptr), S_OK);
    EXPECT_EQ(addin->OnDisconnection(ext_dm_UserClosed, nullptr), S_OK);
}

TEST_F(Lifecycle, InterceptionStartsSomeSecondsAfterTheAddinsUpdateAndStopsAtDisconnection)
{
    using Clock = std::chrono::steady_clock;
    ASSERT_EQ(addin->OnConnection(outlook.application(), ext_cm_Startup, nullptr, nullptr), S_OK);
    const auto updated = Clock::now();
    ASSERT_EQ(addin->OnAddInsUpdate(nullptr), S_OK);
    EXPECT_LT(log.find("EnableDragDrop("), 0) << "switched on at once";

    int enabled = -1;
    while (enabled < 0 && Clock::now() - updated < std::chrono::seconds(10)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        enabled = log.find("EnableDragDrop(");
    }
    ASSERT_GE(enabled, 0) << "never switched on";
    EXPECT_GE(Clock::now() - updated, std::chrono::milliseconds(2900));
    EXPECT_EQ(log.messages()[enabled].back(), '1');
    EXPECT_GT(enabled, log.find("OnAddInsUpdate()"));

    ASSERT_EQ(addin->OnDisconnection(ext_dm_HostShutdown, nullptr), S_OK);
    const int disabled = log.find("EnableDragDrop(", enabled + 1);
    ASSERT_GT(disabled, log.find("OnDisconnection()"));
    EXPECT_EQ(log.messages()[disabled].back(), '0');
    addin->OnBeginShutdown(nullptr);
}
