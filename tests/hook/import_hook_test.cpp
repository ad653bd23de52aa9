// Rewriting real import slots under Wine: the test program's own (it imports
// DoDragDrop and OleSetClipboard from ole32 by name, as Outlook does), a
// module that imports DoDragDrop by ordinal, and loaded modules whose headers
// are damaged in memory.
#include "hook/import_hook.h"

#include "hook_test_support.h"

#include "core/log.h"
#include "common/module_path.h"
#include "common/strings.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>

namespace {

class ImportHook : public testing::Test {
protected:
    void TearDown() override
    {
        // Whatever a failed test left, the program calls the system again.
        writeProtectedPointer(&programDoDragDropSlot, systemDoDragDrop(), "test");
        writeProtectedPointer(&programOleSetClipboardSlot, systemOleSetClipboard(), "test");
    }

    static ImportHookRequest request(HMODULE module, const char* functionName, void* newFunction)
    {
        ImportHookRequest result;
        result.hModule = module;
        result.functionName = functionName;
        result.newFunction = newFunction;
        return result;
    }

    HookSettings settings;
    LogCapture log{LOG_DEBUG};
    HMODULE program = GetModuleHandleW(nullptr);
};

HRESULT WINAPI otherDoDragDrop(IDataObject*, IDropSource*, DWORD, DWORD*)
{
    return E_NOTIMPL;
}

void* const otherFunction = reinterpret_cast<void*>(&otherDoDragDrop);

// Bytes of a loaded module's headers changed for the length of a test.
class HeaderDamage {
public:
    HeaderDamage(HMODULE module, size_t offset, const void* bytes, size_t length)
        : at_(reinterpret_cast<BYTE*>(module) + offset), saved_(reinterpret_cast<const char*>(at_), length)
    {
        VirtualProtect(at_, length, PAGE_READWRITE, &protection_);
        std::memcpy(at_, bytes, length);
    }
    ~HeaderDamage()
    {
        std::memcpy(at_, saved_.data(), saved_.size());
        DWORD ignored = 0;
        VirtualProtect(at_, saved_.size(), protection_, &ignored);
    }
    HeaderDamage(const HeaderDamage&) = delete;
    HeaderDamage& operator=(const HeaderDamage&) = delete;

private:
    BYTE* at_;
    std::string saved_;
    DWORD protection_ = 0;
};

size_t ntHeadersOffset(HMODULE module)
{
    return static_cast<size_t>(reinterpret_cast<const IMAGE_DOS_HEADER*>(module)->e_lfanew);
}

TEST_F(ImportHook, PatchesTheProgramsOwnSlotAndPutsTheTrueFunctionBack)
{
    ASSERT_EQ(slotValue(&programDoDragDropSlot), systemDoDragDrop());

    ImportHookRequest hook = request(program, "DoDragDrop", reinterpret_cast<void*>(&MyDoDragDrop));
    EXPECT_EQ(HookDllImportFunction(hook), HookDone);
    EXPECT_EQ(hook.oldFunction, systemDoDragDrop());
    EXPECT_EQ(slotValue(&programDoDragDropSlot), reinterpret_cast<void*>(&MyDoDragDrop));

    ImportHookRequest unhook = request(program, "DoDragDrop", reinterpret_cast<void*>(g_DoDragDrop));
    EXPECT_EQ(HookDllImportFunction(unhook), HookDone);
    EXPECT_EQ(unhook.oldFunction, reinterpret_cast<void*>(&MyDoDragDrop));
    EXPECT_EQ(slotValue(&programDoDragDropSlot), systemDoDragDrop());

    const std::string text = log.contents();
    EXPECT_NE(text.find("Function DoDragDrop found in " + wideToUtf8(modulePath(program, 1000))), std::string::npos);
    EXPECT_EQ(occurrences(text, "replace"), 2u);
}

TEST_F(ImportHook, TheProgramsOwnCallOfDoDragDropReachesTheReplacement)
{
    settings->setLocked(true);
    ImportHookRequest hook = request(program, "DoDragDrop", reinterpret_cast<void*>(&MyDoDragDrop));
    ASSERT_EQ(HookDllImportFunction(hook), HookDone);

    RecordedDoDragDrop recorded([](const DragCall&) { return DRAGDROP_S_DROP; });
    auto dropSource = TestDropSource::create();
    DWORD effect = 0;
    // Called by its ordinary name: through the program's import slot.
    const HRESULT result = DoDragDrop(nullptr, dropSource.Get(), DROPEFFECT_COPY, &effect);

    EXPECT_EQ(result, DRAGDROP_S_DROP);
    ASSERT_EQ(recorded.calls(), 1);
    EXPECT_EQ(recorded.last().dropSource, dropSource.Get());
    EXPECT_EQ(recorded.last().effect, &effect);
}

TEST_F(ImportHook, DllAndFunctionNamesMatchIgnoringCase)
{
    ImportHookRequest hook = request(program, "dodragdrop", otherFunction);
    hook.importDll = "OLE32.DLL";
    EXPECT_EQ(HookDllImportFunction(hook), HookDone);
    EXPECT_EQ(hook.oldFunction, systemDoDragDrop());
    EXPECT_EQ(slotValue(&programDoDragDropSlot), otherFunction);
}

TEST_F(ImportHook, ARequestWithoutNewFunctionOnlyReports)
{
    const DWORD protection = pageProtection(&programOleSetClipboardSlot);
    ImportHookRequest report = request(program, "OleSetClipboard", nullptr);
    report.oldFunction = otherFunction; // cleared by the call

    EXPECT_EQ(HookDllImportFunction(report), HookDone);
    EXPECT_EQ(report.oldFunction, systemOleSetClipboard());
    EXPECT_EQ(slotValue(&programOleSetClipboardSlot), systemOleSetClipboard());
    EXPECT_EQ(pageProtection(&programOleSetClipboardSlot), protection);
    EXPECT_EQ(log.contents().find("replace"), std::string::npos);
}

TEST_F(ImportHook, AFunctionTheModuleDoesNotImportIsNotFound)
{
    ImportHookRequest hook = request(program, "OleGetClipboardWithEnterpriseInfo", otherFunction);
    EXPECT_EQ(HookDllImportFunction(hook), HookDone);
    EXPECT_EQ(hook.oldFunction, nullptr);
    EXPECT_EQ(log.contents().find("found in"), std::string::npos);
}

TEST_F(ImportHook, AnImportByOrdinalIsNotPatched)
{
    HMODULE probe = probeModule(L"hook_ordinal_probe.dll");
    ASSERT_NE(probe, nullptr);
    auto slotOf = reinterpret_cast<void** (*)()>(GetProcAddress(probe, "ordinalProbeSlot"));
    ASSERT_NE(slotOf, nullptr);
    void** slot = slotOf();
    // The ordinal really is DoDragDrop's: the loader bound the system's function.
    ASSERT_EQ(slotValue(slot), systemDoDragDrop());

    ImportHookRequest hook = request(probe, "DoDragDrop", otherFunction);
    EXPECT_EQ(HookDllImportFunction(hook), HookDone);
    EXPECT_EQ(hook.oldFunction, nullptr);
    EXPECT_EQ(slotValue(slot), systemDoDragDrop());
    EXPECT_NE(log.contents().find("IMAGE_SNAP_BY_ORDINAL ignored"), std::string::npos);
}

TEST_F(ImportHook, NoModuleGivesSeven)
{
    ImportHookRequest byHandle = request(nullptr, "DoDragDrop", otherFunction);
    EXPECT_EQ(HookDllImportFunction(byHandle), HookNoModule);

    ImportHookRequest byName = request(nullptr, "DoDragDrop", otherFunction);
    byName.moduleName = "korvane-no-such-module.dll";
    EXPECT_EQ(HookDllImportFunction(byName), HookNoModule);
    EXPECT_EQ(byName.oldFunction, nullptr);

    const std::string text = log.contents();
    EXPECT_NE(text.find("LoadLibrary ...korvane-no-such-module.dll"), std::string::npos);
    EXPECT_EQ(occurrences(text, "DLL not found."), 2u);
}

TEST_F(ImportHook, MemoryThatIsNoLoadedModuleGivesTwo)
{
    // A perfect copy of a module's headers, but not a module the loader knows:
    // nothing in it is trusted.
    HMODULE probe = probeModule(L"hook_ordinal_probe.dll");
    ASSERT_NE(probe, nullptr);
    void* copy = VirtualAlloc(nullptr, 0x1000, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    ASSERT_NE(copy, nullptr);
    std::memcpy(copy, probe, 0x1000);

    ImportHookRequest hook = request(static_cast<HMODULE>(copy), "DoDragDrop", otherFunction);
    EXPECT_EQ(HookDllImportFunction(hook), HookNoModuleInformation);
    EXPECT_NE(log.contents().find("GetModuleInformation succ=0"), std::string::npos);
    VirtualFree(copy, 0, MEM_RELEASE);
}

TEST_F(ImportHook, ALoadedModuleWithDamagedHeadersGivesThreeFourOrFive)
{
    HMODULE probe = probeModule(L"hook_ordinal_probe.dll");
    ASSERT_NE(probe, nullptr);
    const size_t nt = ntHeadersOffset(probe);
    const char zeros[4] = {};
    {
        const HeaderDamage damage(probe, 0, "ZM", 2);
        ImportHookRequest hook = request(probe, "DoDragDrop", otherFunction);
        EXPECT_EQ(HookDllImportFunction(hook), HookNoDosSignature);
    }
    {
        const HeaderDamage damage(probe, nt, zeros, 4);
        ImportHookRequest hook = request(probe, "DoDragDrop", otherFunction);
        EXPECT_EQ(HookDllImportFunction(hook), HookNoPeSignature);
    }
    {
        const LONG outside = 0x7FFFFFF0;
        const HeaderDamage damage(probe, offsetof(IMAGE_DOS_HEADER, e_lfanew), &outside, sizeof outside);
        ImportHookRequest hook = request(probe, "DoDragDrop", otherFunction);
        EXPECT_EQ(HookDllImportFunction(hook), HookNoPeSignature);
    }
    {
        const WORD rom = IMAGE_ROM_OPTIONAL_HDR_MAGIC;
        const HeaderDamage damage(probe, nt + offsetof(IMAGE_NT_HEADERS, OptionalHeader.Magic), &rom, sizeof rom);
        ImportHookRequest hook = request(probe, "DoDragDrop", otherFunction);
        EXPECT_EQ(HookDllImportFunction(hook), HookUnknownOptionalHeader);
    }
    EXPECT_EQ(occurrences(log.contents(), "not a module image"), 4u);
}

TEST_F(ImportHook, AnImportDirectoryOutsideTheImageIsReportedNotFollowed)
{
    HMODULE probe = probeModule(L"hook_ordinal_probe.dll");
    ASSERT_NE(probe, nullptr);
    const size_t directory = ntHeadersOffset(probe) +
                             offsetof(IMAGE_NT_HEADERS, OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT]);
    const DWORD outside = 0x7FFFFF00;
    const HeaderDamage damage(probe, directory, &outside, sizeof outside);

    ImportHookRequest hook = request(probe, "DoDragDrop", otherFunction);
    EXPECT_EQ(HookDllImportFunction(hook), HookDone);
    EXPECT_EQ(hook.oldFunction, nullptr);
    EXPECT_NE(log.contents().find("import descriptors leave the image"), std::string::npos);
}

TEST_F(ImportHook, WriteProtectedPointerWritesAReadOnlySlot)
{
    void* page = VirtualAlloc(nullptr, 0x1000, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    ASSERT_NE(page, nullptr);
    DWORD old = 0;
    ASSERT_TRUE(VirtualProtect(page, 0x1000, PAGE_READONLY, &old));

    EXPECT_TRUE(writeProtectedPointer(static_cast<void**>(page), otherFunction, "page"));
    EXPECT_EQ(slotValue(static_cast<void**>(page)), otherFunction);
    EXPECT_EQ(pageProtection(page), static_cast<DWORD>(PAGE_EXECUTE_READWRITE));

    // Memory that isn't there: refused and logged, nothing written.
    VirtualFree(page, 0, MEM_RELEASE);
    EXPECT_FALSE(writeProtectedPointer(static_cast<void**>(page), otherFunction, "freed"));
    const std::string text = log.contents();
    EXPECT_NE(text.find("unprotect page, succ=1, err=0"), std::string::npos);
    EXPECT_NE(text.find("unprotect freed, succ=0, err="), std::string::npos);
}

} // namespace
