// Finding and rewriting import slots: crafted PE32 and PE32+ images with broken
// tables, damaged loaded modules, the delay-load probe, switching on and off.
#include "hook/import_hook.h"
#include "hook/pe_imports.h"

#include "hook_fixture.h"

#include "common/module_path.h"
#include "common/strings.h"
#include "filedrop/file_drop_state.h"

#include <cstddef>
#include <cstring>
#include <mutex>
#include <thread>

namespace {

// Where things lie in the crafted image.
constexpr uint32_t imageSize = 0x1000, peOffset = 0x80, optionalHeader = peOffset + 24, descriptors = 0x200,
                   nameTable = 0x300, addressTable = 0x340, kernelNames = 0x380, kernelAddresses = 0x3A0,
                   doDragDropName = 0x400, oleSetClipboardName = 0x420, sleepName = 0x440, ole32Name = 0x460,
                   kernel32Name = 0x470, delayDescriptors = 0x500, delayAddressTable = 0x600, delayNames = 0x640;

// An image with kernel32's Sleep, then ole32's DoDragDrop by ordinal (whose
// low bits, read as an offset, would name DoDragDrop), OleSetClipboard and
// DoDragDrop by name. It lies below 4 GB where it can, as 32-bit images do.
class CraftedImage {
public:
    explicit CraftedImage(bool pe32Plus) : pe32Plus_(pe32Plus)
    {
        base_ = static_cast<BYTE*>(VirtualAlloc(reinterpret_cast<void*>(0x30000000), imageSize,
                                                MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
        if (!base_)
            base_ = static_cast<BYTE*>(VirtualAlloc(nullptr, imageSize, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
        put16(0, 0x5A4D);
        put32(0x3C, peOffset);
        put32(peOffset, 0x00004550);
        put16(optionalHeader, pe32Plus ? 0x20B : 0x10B);
        put32(directories() - 4, 16);
        setDirectory(IMAGE_DIRECTORY_ENTRY_IMPORT, descriptors, 3 * sizeof(IMAGE_IMPORT_DESCRIPTOR));
        for (auto [at, text] : {std::pair{doDragDropName + 2, "DoDragDrop"}, {oleSetClipboardName + 2, "OleSetClipboard"},
                                {sleepName + 2, "Sleep"}, {ole32Name, "OLE32.DLL"}, {kernel32Name, "KERNEL32.dll"}})
            std::memcpy(base_ + at, text, std::strlen(text) + 1);
        putDescriptor(0, kernelNames, kernel32Name, kernelAddresses);
        putThunk(kernelNames, 0, sleepName);
        putDescriptor(1, nameTable, ole32Name, addressTable);
        putThunk(nameTable, 0, ordinalFlag() | doDragDropName);
        putThunk(nameTable, 1, oleSetClipboardName);
        putThunk(nameTable, 2, doDragDropName);
    }
    ~CraftedImage() { VirtualFree(base_, 0, MEM_RELEASE); }
    CraftedImage(const CraftedImage&) = delete;
    CraftedImage& operator=(const CraftedImage&) = delete;

    // The delay-import table, with offsets or (the first helpers') addresses.
    void addDelayImports(bool relative)
    {
        setDirectory(IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT, delayDescriptors, 64);
        const uint32_t bias = relative ? 0 : static_cast<uint32_t>(reinterpret_cast<uintptr_t>(base_));
        const uint32_t fields[] = {relative ? 1u : 0u, bias + ole32Name, bias + 0x580, bias + delayAddressTable,
                                   bias + delayNames};
        std::memcpy(base_ + delayDescriptors, fields, sizeof fields);
        putThunk(delayNames, 0, ordinalFlag() | (relative ? doDragDropName : 5));
        putThunk(delayNames, 1, bias + oleSetClipboardName);
        putThunk(delayNames, 2, bias + doDragDropName);
    }

    bool below4Gb() const { return reinterpret_cast<uintptr_t>(base_) < 0x100000000ull; }
    unsigned width() const { return pe32Plus_ ? 8 : 4; }
    ImageView view(size_t size = imageSize) const { return ImageView(base_, size); }
    BYTE* at(uint32_t offset) const { return base_ + offset; }
    uint32_t directories() const { return optionalHeader + (pe32Plus_ ? 112 : 96); }
    uint64_t ordinalFlag() const { return pe32Plus_ ? 0x8000000000000000ull : 0x80000000ull; }

    void put16(uint32_t offset, uint16_t value) { std::memcpy(base_ + offset, &value, 2); }
    void put32(uint32_t offset, uint32_t value) { std::memcpy(base_ + offset, &value, 4); }
    void putThunk(uint32_t table, unsigned index, uint64_t value)
    {
        std::memcpy(base_ + table + index * width(), &value, width());
    }
    void setDirectory(unsigned index, uint32_t rva, uint32_t size)
    {
        put32(directories() + index * 8, rva);
        put32(directories() + index * 8 + 4, size);
    }
    void putDescriptor(unsigned index, uint32_t names, uint32_t dllName, uint32_t addresses)
    {
        const uint32_t at = descriptors + index * sizeof(IMAGE_IMPORT_DESCRIPTOR);
        put32(at, names);
        put32(at + 12, dllName);
        put32(at + 16, addresses);
    }

private:
    bool pe32Plus_;
    BYTE* base_;
};

TEST(PeImports, ImportsAreFoundOnlyWhereTheImageSaysAndNeverPastItsEnd)
{
    struct Case {
        const char* what;
        std::function<void(CraftedImage&)> change; // with a delay table, that one is searched
        const char* dll;
        const char* function;
        uint32_t table; // where the slot is expected (0: not found), at index 2 unless `index` says
        unsigned index = 2;
        bool pe32Only = false;
    };
    const auto delay = [](CraftedImage& i) { i.addDelayImports(true); };
    const Case cases[] = {
        {"by name ignoring case, the ordinal entry skipped", {}, "ole32.dll", "dodragdrop", addressTable},
        {"another function of the DLL", {}, "Ole32.Dll", "OLESETCLIPBOARD", addressTable, 1},
        {"a function of another DLL", {}, "ole32.dll", "Sleep", 0},
        {"not imported from that DLL", {}, "kernel32.dll", "DoDragDrop", 0},
        {"through a second descriptor of the DLL",
         [](CraftedImage& i) {
             i.putThunk(nameTable, 2, 0);
             i.putDescriptor(2, kernelNames + 0x10, ole32Name, kernelAddresses + 0x10);
             i.putThunk(kernelNames + 0x10, 0, doDragDropName);
         },
         "ole32.dll", "DoDragDrop", kernelAddresses + 0x10, 0},
        {"import directory outside the image",
         [](CraftedImage& i) { i.setDirectory(IMAGE_DIRECTORY_ENTRY_IMPORT, 0xFFFFFFF0u, 20); }, "ole32.dll",
         "DoDragDrop", 0},
        {"import entry beyond the directory count", [](CraftedImage& i) { i.put32(i.directories() - 4, 1); },
         "ole32.dll", "DoDragDrop", 0},
        {"descriptors running off the image end",
         [](CraftedImage& i) {
             const uint32_t late = imageSize - sizeof(IMAGE_IMPORT_DESCRIPTOR) - 4;
             std::memcpy(i.at(late), i.at(descriptors), sizeof(IMAGE_IMPORT_DESCRIPTOR));
             i.setDirectory(IMAGE_DIRECTORY_ENTRY_IMPORT, late, 40);
         },
         "ole32.dll", "DoDragDrop", 0},
        {"broken names skipped, the walk goes on",
         [](CraftedImage& i) {
             i.putDescriptor(0, kernelNames, 0xFFFFFF00u, kernelAddresses);
             i.putThunk(nameTable, 1, 0x7FFFFF00u);
             std::memset(i.at(imageSize - 16), 'x', 16);
             i.putThunk(nameTable, 0, imageSize - 16);
         },
         "ole32.dll", "DoDragDrop", addressTable},
        {"a name table without its end",
         [](CraftedImage& i) {
             const uint32_t late = imageSize - 2 * i.width();
             i.putThunk(late, 0, oleSetClipboardName);
             i.putThunk(late, 1, oleSetClipboardName);
             i.putDescriptor(1, late, ole32Name, addressTable);
         },
         "ole32.dll", "DoDragDrop", 0},
        {"delay table, exact name", delay, "OLE32.dll", "DoDragDrop", delayAddressTable},
        {"delay table, another case of the name", delay, "ole32.dll", "dodragdrop", 0},
        {"delay table, another DLL", delay, "kernel32.dll", "DoDragDrop", 0},
        {"delay name table outside the image",
         [](CraftedImage& i) {
             i.addDelayImports(true);
             i.put32(delayDescriptors + 16, 0xFFFFFFF8u);
         },
         "ole32.dll", "DoDragDrop", 0},
        {"delay directory at the image end",
         [](CraftedImage& i) {
             i.addDelayImports(true);
             i.setDirectory(IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT, imageSize - 8, 64);
         },
         "ole32.dll", "DoDragDrop", 0},
        {"delay table of addresses (early helpers), PE32 only",
         [](CraftedImage& i) { i.addDelayImports(false); }, "ole32.dll", "DoDragDrop", delayAddressTable, 2, true},
    };
    for (const bool pe32Plus : {false, true}) {
        for (const Case& c : cases) {
            CraftedImage image(pe32Plus);
            if (c.pe32Only && !image.below4Gb())
                continue;
            if (c.change)
                c.change(image);
            PeLayout layout;
            ASSERT_EQ(readPeLayout(image.view(), layout), 0u);
            ASSERT_EQ(layout.thunkWidth, image.width());
            pe::DataDirectory delayEntry{};
            const bool inDelayTable = dataDirectory(image.view(), layout, IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT, delayEntry);
            ImportSlot slot;
            const bool found = inDelayTable ? findDelayImportSlot(image.view(), layout, c.dll, c.function, slot)
                                            : findImportSlot(image.view(), layout, c.dll, c.function, slot);
            const bool expected = c.table != 0 && !(c.pe32Only && pe32Plus);
            ASSERT_EQ(found, expected) << c.what << ", PE32+ " << pe32Plus;
            EXPECT_EQ(slot.address, expected ? image.at(c.table + c.index * image.width()) : nullptr) << c.what;
        }
    }
}

template <typename T>
std::string bytesOf(T value)
{
    return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

class ImportHook : public HookTest {
protected:
    void TearDown() override { EnableDragDrop(false); }

    static ImportHookRequest request(HMODULE module, const char* function, void* newFunction)
    {
        ImportHookRequest result;
        result.hModule = module;
        result.functionName = function;
        result.newFunction = newFunction;
        return result;
    }

    HMODULE program = GetModuleHandleW(nullptr);
    void* const myDoDragDrop = reinterpret_cast<void*>(&MyDoDragDrop);
    void* const myOleSetClipboard = reinterpret_cast<void*>(&MyOleSetClipboard);
};

TEST_F(ImportHook, DamagedModulesAreReportedAndLeftAlone)
{
    HMODULE probe = delayProbe();
    ASSERT_NE(probe, nullptr);
    const auto ntOf = [](HMODULE module) {
        return static_cast<size_t>(reinterpret_cast<const IMAGE_DOS_HEADER*>(module)->e_lfanew);
    };
    const size_t importEntry = offsetof(IMAGE_NT_HEADERS, OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT]);
    struct Case {
        const char* what;
        HMODULE module;
        size_t offset;
        std::string bytes;
        DWORD code;
    };
    const Case cases[] = {
        {"no MZ", probe, 0, "ZM", HookNoDosSignature},
        {"no PE signature", probe, ntOf(probe), std::string(4, '\0'), HookNoPeSignature},
        {"e_lfanew outside", probe, offsetof(IMAGE_DOS_HEADER, e_lfanew), bytesOf(LONG(0x7FFFFFF0)), HookNoPeSignature},
        {"negative e_lfanew", probe, offsetof(IMAGE_DOS_HEADER, e_lfanew), bytesOf(LONG(0x80000000)), HookNoPeSignature},
        {"ROM optional header", probe, ntOf(probe) + offsetof(IMAGE_NT_HEADERS, OptionalHeader.Magic),
         bytesOf(WORD(IMAGE_ROM_OPTIONAL_HDR_MAGIC)), HookUnknownOptionalHeader},
        {"import directory outside the image", program, ntOf(program) + importEntry, bytesOf(DWORD(0x7FFFFF00)),
         HookDone},
    };
    for (const Case& c : cases) {
        // The loaded module's header bytes changed for the length of the case.
        BYTE* at = reinterpret_cast<BYTE*>(c.module) + c.offset;
        const std::string saved(reinterpret_cast<const char*>(at), c.bytes.size());
        DWORD protection = 0;
        VirtualProtect(at, saved.size(), PAGE_READWRITE, &protection);
        std::memcpy(at, c.bytes.data(), c.bytes.size());
        ImportHookRequest hook = request(c.module, "DoDragDrop", myDoDragDrop);
        EXPECT_EQ(HookDllImportFunction(hook), c.code) << c.what;
        EXPECT_EQ(hook.oldFunction, nullptr) << c.what;
        std::memcpy(at, saved.data(), saved.size());
        VirtualProtect(at, saved.size(), protection, &protection);
    }
    EXPECT_EQ(slotValue(&programDoDragDropSlot), systemFunction("DoDragDrop"));
    EXPECT_EQ(occurrences(log.contents(), "not a module image"), 5u);
    EXPECT_NE(log.contents().find("import descriptors leave the image"), std::string::npos);

    // A perfect copy of a module's headers is no module the loader knows.
    void* copy = VirtualAlloc(nullptr, 0x1000, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    std::memcpy(copy, probe, 0x1000);
    ImportHookRequest unknown = request(static_cast<HMODULE>(copy), "DoDragDrop", myDoDragDrop);
    EXPECT_EQ(HookDllImportFunction(unknown), HookNoModuleInformation);
    VirtualFree(copy, 0, MEM_RELEASE);
    ImportHookRequest none = request(nullptr, "DoDragDrop", myDoDragDrop);
    EXPECT_EQ(HookDllImportFunction(none), HookNoModule);
    none.moduleName = "korvane-no-such-module.dll";
    EXPECT_EQ(HookDllImportFunction(none), HookNoModule);
}

// The probe's DoDragDrop is still unbound (its slot leads into its binding
// thunk); its OleSetClipboard is bound by a first call. Either way the
// replacement goes into the probe's own delay address table.
TEST_F(ImportHook, DelayLoadedImportsAreHookedBoundOrNot)
{
    HMODULE probe = delayProbe();
    ASSERT_NE(probe, nullptr);
    const auto slots = reinterpret_cast<void**>(GetProcAddress(probe, "probeDelayAddressTable"));
    const auto probeDoDragDrop =
        reinterpret_cast<HRESULT (*)(IDataObject*, IDropSource*, DWORD, DWORD*)>(GetProcAddress(probe, "probeDoDragDrop"));
    const auto probeOleSetClipboard =
        reinterpret_cast<HRESULT (*)(IDataObject*)>(GetProcAddress(probe, "probeOleSetClipboard"));
    ASSERT_TRUE(slots && probeDoDragDrop && probeOleSetClipboard);
    void** dragSlot = &slots[0];
    void** clipboardSlot = &slots[1];
    void* const thunk = slotValue(dragSlot);
    ASSERT_NE(thunk, systemFunction("DoDragDrop"));
    probeOleSetClipboard(nullptr);
    ASSERT_EQ(slotValue(clipboardSlot), systemFunction("OleSetClipboard"));

    ImportHookRequest otherCase = request(probe, "dodragdrop", myDoDragDrop);
    EXPECT_EQ(HookDllImportFunction(otherCase), HookDone);
    EXPECT_EQ(otherCase.oldFunction, nullptr) << "a delay table is searched with the exact name";
    EXPECT_EQ(slotValue(dragSlot), thunk);

    settings.setCaptureClipboard(true);
    hookModule(nullptr, probe, true);
    EXPECT_EQ(slotValue(dragSlot), myDoDragDrop);
    EXPECT_EQ(slotValue(clipboardSlot), myOleSetClipboard);
    {
        settings.setLocked(true);
        RecordedDoDragDrop recorded;
        auto source = OutlookDropSource::create();
        DWORD effect = 0;
        probeDoDragDrop(nullptr, source.Get(), DROPEFFECT_COPY, &effect);
        ASSERT_EQ(recorded.calls.size(), 1u) << "the probe's own call reached the replacement";
        EXPECT_EQ(recorded.calls[0].dropSource, source.Get());
    }
    hookModule(nullptr, probe, false);
    EXPECT_EQ(slotValue(dragSlot), systemFunction("DoDragDrop"));
    EXPECT_EQ(slotValue(clipboardSlot), systemFunction("OleSetClipboard"));
    EXPECT_NE(log.contents().find("check delay load table of "), std::string::npos);
}

TEST_F(ImportHook, EnableDragDropSwitchesOnceEachWayAndPutsTheTrueFunctionsBack)
{
    settings.setCaptureClipboard(true);
    EnableDragDrop(true);
    EnableDragDrop(true);
    EXPECT_TRUE(isDragDropEnabled());
    EXPECT_EQ(slotValue(&programDoDragDropSlot), myDoDragDrop);
    EXPECT_EQ(slotValue(&programOleSetClipboardSlot), myOleSetClipboard);
    const std::string text = log.contents();
    EXPECT_EQ(occurrences(text, "Function DoDragDrop found in " + wideToUtf8(modulePath(program, 1000))), 1u);
    EXPECT_EQ(occurrences(text, " init(\r\n"), 1u) << "the file-drop unit starts once";
    for (const char* office : hookedOfficeModules)
        EXPECT_NE(text.find(std::string("LoadLibrary ...") + office), std::string::npos) << office;

    // CaptureClipboard switched off meanwhile: its slot still gets the true function back.
    settings.setCaptureClipboard(false);
    EnableDragDrop(false);
    EnableDragDrop(false);
    EXPECT_FALSE(isDragDropEnabled());
    EXPECT_EQ(slotValue(&programDoDragDropSlot), systemFunction("DoDragDrop"));
    EXPECT_EQ(slotValue(&programOleSetClipboardSlot), systemFunction("OleSetClipboard"));
    EXPECT_EQ(occurrences(log.contents(), " done(\r\n"), 1u);

    EnableDragDrop(true);
    EXPECT_EQ(slotValue(&programOleSetClipboardSlot), systemFunction("OleSetClipboard"))
        << "without CaptureClipboard the clipboard is left alone";
}

// The delayed start switches on from its own thread while Outlook's thread
// switches off (a disconnection) or on (the ribbon). Run against each other
// many times, the flag, the slots and the cleanup worker always agree.
TEST_F(ImportHook, SwitchesFromTwoThreadsAtOnceEndInOneState)
{
    const LogCapture quieter(LOG_ERROR);
    const auto cleanupRunning = [] {
        FileDrop::FileDropState& state = FileDrop::fileDropState();
        const std::lock_guard<std::mutex> guard(state.cleanupLock);
        return state.cleanupWorker.joinable() && !state.stopped;
    };
    for (int round = 0; round < 100; ++round) {
        std::thread delayedStart([] { EnableDragDrop(true); });
        EnableDragDrop(round % 3 == 0);
        delayedStart.join();
        const bool on = isDragDropEnabled();
        ASSERT_EQ(slotValue(&programDoDragDropSlot) == myDoDragDrop, on) << round;
        ASSERT_EQ(cleanupRunning(), on) << round;
        if (round % 2)
            EnableDragDrop(false);
    }
}

} // namespace
