// The import-table reader on images made here byte by byte: both header
// kinds with their thunk widths, and damaged images that must be reported
// without a read past their end.
#include "hook/pe_imports.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

// Where things lie in the crafted image.
constexpr uint32_t imageSize = 0x1000;
constexpr uint32_t peOffset = 0x80;
constexpr uint32_t optionalHeader = peOffset + 24;
constexpr uint32_t descriptors = 0x200;
constexpr uint32_t nameTable = 0x300;
constexpr uint32_t addressTable = 0x340;
constexpr uint32_t kernelNameTable = 0x380;
constexpr uint32_t kernelAddressTable = 0x3A0;
constexpr uint32_t doDragDropName = 0x400;
constexpr uint32_t oleSetClipboardName = 0x420;
constexpr uint32_t sleepName = 0x440;
constexpr uint32_t ole32Name = 0x460;
constexpr uint32_t kernel32Name = 0x470;
constexpr uint32_t delayDescriptors = 0x500;
constexpr uint32_t delayModuleHandle = 0x580;
constexpr uint32_t delayAddressTable = 0x600;
constexpr uint32_t delayNameTable = 0x640;

class CraftedImage {
public:
    explicit CraftedImage(bool pe32Plus, BYTE* memory = nullptr)
        : pe32Plus_(pe32Plus), owned_(memory ? 0 : imageSize), base_(memory ? memory : owned_.data())
    {
        std::memset(base_, 0, imageSize);
        put16(0, 0x5A4D);
        put32(0x3C, peOffset);
        put32(peOffset, 0x00004550);
        put16(peOffset + 4, pe32Plus ? IMAGE_FILE_MACHINE_AMD64 : IMAGE_FILE_MACHINE_I386);
        put16(peOffset + 20, pe32Plus ? 240 : 224);
        put16(optionalHeader, pe32Plus ? 0x20B : 0x10B);
        put32(directoryCountOffset(), 16);
        setDirectory(IMAGE_DIRECTORY_ENTRY_IMPORT, descriptors, 3 * sizeof(IMAGE_IMPORT_DESCRIPTOR));

        putText(doDragDropName + 2, "DoDragDrop");
        putText(oleSetClipboardName + 2, "OleSetClipboard");
        putText(sleepName + 2, "Sleep");
        putText(ole32Name, "OLE32.DLL");
        putText(kernel32Name, "KERNEL32.dll");

        // kernel32 first, so the walk has to go past a descriptor that doesn't match.
        putDescriptor(0, kernelNameTable, kernel32Name, kernelAddressTable);
        putThunk(kernelNameTable, 0, sleepName);
        putThunk(kernelAddressTable, 0, 0x7777);
        putDescriptor(1, nameTable, ole32Name, addressTable);
        // An import by ordinal whose low bits, taken for an offset, would name
        // DoDragDrop: only the ordinal flag of the right width keeps it apart.
        putThunk(nameTable, 0, ordinalFlag() | doDragDropName);
        putThunk(nameTable, 1, oleSetClipboardName);
        putThunk(nameTable, 2, doDragDropName);
        for (unsigned index = 0; index < 3; ++index)
            putThunk(addressTable, index, 0x1000 + index);
    }

    void addDelayImports(bool relative)
    {
        setDirectory(IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT, delayDescriptors, 64);
        const uint32_t bias = relative ? 0 : static_cast<uint32_t>(reinterpret_cast<uintptr_t>(base_));
        put32(delayDescriptors, relative ? 1 : 0);
        put32(delayDescriptors + 4, bias + ole32Name);
        put32(delayDescriptors + 8, bias + delayModuleHandle);
        put32(delayDescriptors + 12, bias + delayAddressTable);
        put32(delayDescriptors + 16, bias + delayNameTable);
        putThunk(delayNameTable, 0, relative ? ordinalFlag() | doDragDropName : ordinalFlag() | 5);
        putThunk(delayNameTable, 1, bias + oleSetClipboardName);
        putThunk(delayNameTable, 2, bias + doDragDropName);
        for (unsigned index = 0; index < 3; ++index)
            putThunk(delayAddressTable, index, 0x2000 + index);
    }

    ImageView view(size_t size = imageSize) const { return ImageView(base_, size); }
    PeLayout layout() const
    {
        PeLayout layout;
        EXPECT_EQ(readPeLayout(view(), layout), 0u);
        return layout;
    }
    BYTE* at(uint32_t offset) const { return base_ + offset; }
    unsigned width() const { return pe32Plus_ ? 8 : 4; }

    void put16(uint32_t offset, uint16_t value) { std::memcpy(base_ + offset, &value, 2); }
    void put32(uint32_t offset, uint32_t value) { std::memcpy(base_ + offset, &value, 4); }
    void putText(uint32_t offset, const char* text) { std::memcpy(base_ + offset, text, std::strlen(text) + 1); }
    void putThunk(uint32_t table, unsigned index, uint64_t value)
    {
        std::memcpy(base_ + table + index * width(), &value, width());
    }
    void setDirectory(unsigned index, uint32_t rva, uint32_t size)
    {
        put32(directoriesOffset() + index * 8, rva);
        put32(directoriesOffset() + index * 8 + 4, size);
    }
    void putDescriptor(unsigned index, uint32_t names, uint32_t dllName, uint32_t addresses)
    {
        const uint32_t at = descriptors + index * sizeof(IMAGE_IMPORT_DESCRIPTOR);
        put32(at, names);
        put32(at + 12, dllName);
        put32(at + 16, addresses);
    }
    uint32_t directoriesOffset() const { return optionalHeader + (pe32Plus_ ? 112 : 96); }
    uint32_t directoryCountOffset() const { return directoriesOffset() - 4; }
    uint64_t ordinalFlag() const { return pe32Plus_ ? 0x8000000000000000ull : 0x80000000ull; }

private:
    bool pe32Plus_;
    std::vector<BYTE> owned_;
    BYTE* base_;
};

class PeImports : public testing::TestWithParam<bool> {
protected:
    CraftedImage image{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(HeaderKinds, PeImports, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& info) { return info.param ? "PE32Plus" : "PE32"; });

TEST_P(PeImports, TheHeaderKindGivesTheThunkWidth)
{
    const PeLayout layout = image.layout();
    EXPECT_EQ(layout.pe32Plus, GetParam());
    EXPECT_EQ(layout.thunkWidth, image.width());
}

TEST_P(PeImports, FindsTheSlotByNameIgnoringCaseAndSkipsOrdinals)
{
    ImportSlot slot;
    ASSERT_TRUE(findImportSlot(image.view(), image.layout(), "ole32.dll", "dodragdrop", slot));
    // The entry by name (index 2), not the ordinal entry at index 0.
    EXPECT_EQ(slot.address, image.at(addressTable + 2 * image.width()));
    EXPECT_EQ(slot.width, image.width());
    EXPECT_EQ(slot.value(), 0x1002u);

    ASSERT_TRUE(findImportSlot(image.view(), image.layout(), "Ole32.Dll", "OLESETCLIPBOARD", slot));
    EXPECT_EQ(slot.address, image.at(addressTable + image.width()));
    EXPECT_EQ(slot.value(), 0x1001u);
}

TEST_P(PeImports, AFunctionOfAnotherDllOrNotImportedIsNotFound)
{
    ImportSlot slot;
    EXPECT_FALSE(findImportSlot(image.view(), image.layout(), "ole32.dll", "Sleep", slot));
    EXPECT_FALSE(findImportSlot(image.view(), image.layout(), "kernel32.dll", "DoDragDrop", slot));
    EXPECT_FALSE(findImportSlot(image.view(), image.layout(), "ole32.dll", "OleGetClipboard", slot));
    EXPECT_EQ(slot.address, nullptr);
}

TEST_P(PeImports, ASecondDescriptorOfTheSameDllIsSearchedToo)
{
    // The first ole32 descriptor has only OleSetClipboard; DoDragDrop comes
    // through a second one, as some linkers write it.
    image.putThunk(nameTable, 2, 0);
    image.putDescriptor(2, kernelNameTable + 0x10, ole32Name, kernelAddressTable + 0x10);
    image.putThunk(kernelNameTable + 0x10, 0, doDragDropName);
    image.putThunk(kernelAddressTable + 0x10, 0, 0x5555);

    ImportSlot slot;
    ASSERT_TRUE(findImportSlot(image.view(), image.layout(), "ole32.dll", "DoDragDrop", slot));
    EXPECT_EQ(slot.address, image.at(kernelAddressTable + 0x10));
    EXPECT_EQ(slot.value(), 0x5555u);
}

TEST_P(PeImports, HeaderChecksGiveTheirCodesInOrder)
{
    PeLayout layout;
    EXPECT_EQ(readPeLayout(image.view(1), layout), 3u) << "too small for a DOS header";

    EXPECT_EQ(readPeLayout(image.view(optionalHeader + 1), layout), 5u) << "magic cut off";
    image.put16(optionalHeader, 0x107);
    EXPECT_EQ(readPeLayout(image.view(), layout), 5u);

    image.put32(peOffset, 0x00004551);
    EXPECT_EQ(readPeLayout(image.view(), layout), 4u);
    image.put32(0x3C, imageSize - 2);
    EXPECT_EQ(readPeLayout(image.view(), layout), 4u) << "signature cut off";
    image.put32(0x3C, 0x80000000u);
    EXPECT_EQ(readPeLayout(image.view(), layout), 4u) << "negative e_lfanew";

    image.put16(0, 0x4D5A);
    EXPECT_EQ(readPeLayout(image.view(), layout), 3u);
}

TEST_P(PeImports, DirectoriesOutsideTheImageAreNotFollowed)
{
    ImportSlot slot;
    image.setDirectory(IMAGE_DIRECTORY_ENTRY_IMPORT, 0xFFFFFFF0u, 20);
    EXPECT_FALSE(findImportSlot(image.view(), image.layout(), "ole32.dll", "DoDragDrop", slot));

    image.setDirectory(IMAGE_DIRECTORY_ENTRY_IMPORT, descriptors, 60);
    image.put32(image.directoryCountOffset(), 1); // the import entry is beyond the count
    EXPECT_FALSE(findImportSlot(image.view(), image.layout(), "ole32.dll", "DoDragDrop", slot));
}

TEST_P(PeImports, DescriptorsThatRunOffTheEndStopTheWalk)
{
    // The array starts so late that the second record is cut by the image end.
    const uint32_t late = imageSize - sizeof(IMAGE_IMPORT_DESCRIPTOR) - 4;
    std::memcpy(image.at(late), image.at(descriptors), sizeof(IMAGE_IMPORT_DESCRIPTOR));
    image.setDirectory(IMAGE_DIRECTORY_ENTRY_IMPORT, late, 40);
    ImportSlot slot;
    EXPECT_FALSE(findImportSlot(image.view(), image.layout(), "ole32.dll", "DoDragDrop", slot));
}

TEST_P(PeImports, BrokenNamesAreSkippedAndTheWalkGoesOn)
{
    // A DLL name outside the image, then a function name record outside it,
    // then one that runs to the image's end without a terminator.
    image.putDescriptor(0, kernelNameTable, 0xFFFFFF00u, kernelAddressTable);
    image.putThunk(nameTable, 1, 0x7FFFFF00u);
    std::memset(image.at(imageSize - 16), 'x', 16);
    image.putThunk(nameTable, 0, imageSize - 16);

    ImportSlot slot;
    ASSERT_TRUE(findImportSlot(image.view(), image.layout(), "ole32.dll", "DoDragDrop", slot));
    EXPECT_EQ(slot.address, image.at(addressTable + 2 * image.width()));
    EXPECT_FALSE(findImportSlot(image.view(), image.layout(), "ole32.dll", "OleSetClipboard", slot));
}

TEST_P(PeImports, ANameTableWithoutItsEndStopsAtTheImageEnd)
{
    const uint32_t late = imageSize - 2 * image.width();
    image.putThunk(late, 0, oleSetClipboardName);
    image.putThunk(late, 1, oleSetClipboardName);
    image.putDescriptor(1, late, ole32Name, addressTable);
    ImportSlot slot;
    EXPECT_FALSE(findImportSlot(image.view(), image.layout(), "ole32.dll", "DoDragDrop", slot));
}

TEST_P(PeImports, TheDelayTableIsSearchedWithTheExactFunctionName)
{
    image.addDelayImports(true);
    ImportSlot slot;
    ASSERT_TRUE(findDelayImportSlot(image.view(), image.layout(), "ole32.dll", "DoDragDrop", slot));
    EXPECT_EQ(slot.address, image.at(delayAddressTable + 2 * image.width()));
    EXPECT_EQ(slot.width, image.width());
    EXPECT_EQ(slot.value(), 0x2002u);

    EXPECT_FALSE(findDelayImportSlot(image.view(), image.layout(), "ole32.dll", "dodragdrop", slot));
    EXPECT_FALSE(findDelayImportSlot(image.view(), image.layout(), "kernel32.dll", "DoDragDrop", slot));
}

TEST_P(PeImports, ADelayDescriptorOutsideTheImageIsNotFollowed)
{
    image.addDelayImports(true);
    ImportSlot slot;
    image.put32(delayDescriptors + 16, 0xFFFFFFF8u); // name table
    EXPECT_FALSE(findDelayImportSlot(image.view(), image.layout(), "ole32.dll", "DoDragDrop", slot));
    image.setDirectory(IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT, imageSize - 8, 64);
    EXPECT_FALSE(findDelayImportSlot(image.view(), image.layout(), "ole32.dll", "DoDragDrop", slot));
}

// The first delay-load helpers wrote addresses instead of offsets; that form
// exists in 32-bit images only and is read there, and ignored in PE32+.
TEST(PeImportsDelayAddresses, AddressFormIsReadInPe32AndIgnoredInPe32Plus)
{
    // The addresses are 32 bits wide, so the image has to lie below 4 GB.
    void* low = VirtualAlloc(reinterpret_cast<void*>(0x30000000), imageSize, MEM_RESERVE | MEM_COMMIT,
                             PAGE_READWRITE);
    if (!low)
        GTEST_SKIP() << "no memory below 4 GB at 0x30000000";

    CraftedImage pe32(false, static_cast<BYTE*>(low));
    pe32.addDelayImports(false);
    ImportSlot slot;
    ASSERT_TRUE(findDelayImportSlot(pe32.view(), pe32.layout(), "ole32.dll", "DoDragDrop", slot));
    EXPECT_EQ(slot.address, pe32.at(delayAddressTable + 8));

    CraftedImage pe32Plus(true, static_cast<BYTE*>(low));
    pe32Plus.addDelayImports(false);
    EXPECT_FALSE(findDelayImportSlot(pe32Plus.view(), pe32Plus.layout(), "ole32.dll", "DoDragDrop", slot));
    VirtualFree(low, 0, MEM_RELEASE);
}

} // namespace
