// Descriptor blocks as bytes: only what lies inside the block is read, names
// end at their NUL or at 260 units, and the ANSI form becomes the wide one
// with every header byte kept.
#include "dataobject/descriptor_block.h"

#include "core/log.h"
#include "support/scratch.h"

#include <windows.h>
#include <shlobj.h>

#include <cstring>

#include <gtest/gtest.h>

namespace {

using namespace descriptor_block;

std::string countBytesOf(uint32_t count)
{
    return std::string(reinterpret_cast<const char*>(&count), sizeof count);
}

std::string wideDescriptor(const std::wstring& name, DWORD flags = 0)
{
    FILEDESCRIPTORW descriptor{};
    descriptor.dwFlags = flags;
    std::memcpy(descriptor.cFileName, name.data(), std::min<size_t>(name.size(), nameUnits) * sizeof(wchar_t));
    return std::string(reinterpret_cast<const char*>(&descriptor), sizeof descriptor);
}

// A header whose every byte differs, so a shifted or dropped byte shows.
FILEDESCRIPTORA ansiDescriptor(const std::string& name, unsigned char seed)
{
    FILEDESCRIPTORA descriptor{};
    auto* bytes = reinterpret_cast<unsigned char*>(&descriptor);
    for (size_t i = 0; i < headerBytes; ++i)
        bytes[i] = static_cast<unsigned char>(seed + i);
    std::memcpy(descriptor.cFileName, name.data(), std::min<size_t>(name.size(), nameUnits));
    return descriptor;
}

std::string bytesOf(const FILEDESCRIPTORA& descriptor)
{
    return std::string(reinterpret_cast<const char*>(&descriptor), sizeof descriptor);
}

Bytes view(const std::string& block)
{
    return {reinterpret_cast<const std::byte*>(block.data()), block.size()};
}

// Latin-1 widening: enough for names made of ASCII in these tests.
size_t widenBytes(std::span<const char> name, std::span<char16_t> out)
{
    const size_t units = std::min(name.size(), out.size());
    for (size_t i = 0; i < units; ++i)
        out[i] = static_cast<unsigned char>(name[i]);
    return units;
}

std::vector<std::byte> convert(const std::string& ansi, const AnsiNameConverter& converter = widenBytes)
{
    std::vector<std::byte> wide(wideSizeForAnsi(view(ansi)));
    convertAnsiToWide(view(ansi), wide, converter);
    return wide;
}

std::string asString(const std::vector<std::byte>& bytes)
{
    return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

TEST(DescriptorBlock, WideNamesAreReadIndexForIndex)
{
    const std::string block = countBytesOf(3) + wideDescriptor(L"a.txt") + wideDescriptor(L"Re: offer?.msg") +
                              wideDescriptor(L"\u00c4rger \u20ac.pdf");
    EXPECT_EQ(readWideNames(view(block)), (std::vector<std::wstring>{L"a.txt", L"Re: offer?.msg", L"\u00c4rger \u20ac.pdf"}));
}

TEST(DescriptorBlock, CountBeyondTheBlockReadsOnlyWholeDescriptorsAndLogsIt)
{
    LogCapture log(LOG_WARN);
    // Two whole descriptors and half of a third.
    std::string block = countBytesOf(1000000) + wideDescriptor(L"one") + wideDescriptor(L"two") +
                        wideDescriptor(L"three").substr(0, 300);
    EXPECT_EQ(readWideNames(view(block)), (std::vector<std::wstring>{L"one", L"two"}));
    EXPECT_EQ(descriptorsPresent(view(block), wideDescriptorBytes), 2u);
    EXPECT_NE(log.contents().find("declares cItems=1000000 but holds only 2"), std::string::npos);
}

TEST(DescriptorBlock, BlocksShorterThanTheCountGiveNothing)
{
    EXPECT_TRUE(readWideNames(view(std::string())).empty());
    EXPECT_TRUE(readWideNames(view(std::string("\x01\x00\x00", 3))).empty());
    EXPECT_EQ(declaredCount(view(std::string("\x01\x00\x00", 3))), 0u);
}

TEST(DescriptorBlock, NameWithoutTerminatorStopsAtItsField)
{
    // The name field is full and the next descriptor's header follows it
    // directly: the name must not run on into it.
    const std::wstring full(nameUnits, L'n');
    const std::string block = countBytesOf(2) + wideDescriptor(full) + wideDescriptor(L"next", 0x41414141);
    const auto names = readWideNames(view(block));
    ASSERT_EQ(names.size(), 2u);
    EXPECT_EQ(names[0], full);
    EXPECT_EQ(names[1], L"next");
}

TEST(DescriptorBlock, AnsiBecomesWideWithHeadersByteForByte)
{
    const std::string ansi = countBytesOf(2) + bytesOf(ansiDescriptor("Report.pdf", 1)) +
                             bytesOf(ansiDescriptor("Re: offer?.msg", 101));
    const std::vector<std::byte> wide = convert(ansi);
    ASSERT_EQ(wide.size(), countBytes + 3 * wideDescriptorBytes); // two and the spare one
    const std::string wideText = asString(wide);
    EXPECT_EQ(wideText.substr(0, 4), countBytesOf(2));
    for (size_t i = 0; i < 2; ++i)
        EXPECT_EQ(wideText.substr(countBytes + i * wideDescriptorBytes, headerBytes),
                  ansi.substr(countBytes + i * ansiDescriptorBytes, headerBytes))
            << "descriptor " << i;
    EXPECT_EQ(readWideNames(view(wideText)), (std::vector<std::wstring>{L"Report.pdf", L"Re: offer?.msg"}));
    // The spare descriptor stays zero.
    EXPECT_EQ(wideText.substr(countBytes + 2 * wideDescriptorBytes), std::string(wideDescriptorBytes, '\0'));
}

TEST(DescriptorBlock, AnsiConversionIsSizedByWhatTheBlockHolds)
{
    LogCapture log(LOG_WARN);
    // A count of four billion over one real descriptor must not ask for
    // four billion descriptors' worth of memory.
    const std::string ansi = countBytesOf(0xFFFFFFFF) + bytesOf(ansiDescriptor("only.txt", 7));
    EXPECT_EQ(wideSizeForAnsi(view(ansi)), countBytes + 2 * wideDescriptorBytes);
    const std::string wide = asString(convert(ansi));
    EXPECT_EQ(wide.substr(0, 4), countBytesOf(1));
    EXPECT_EQ(readWideNames(view(wide)), std::vector<std::wstring>{L"only.txt"});
    EXPECT_NE(log.contents().find("declares cItems=4294967295 but holds only 1"), std::string::npos);
}

TEST(DescriptorBlock, AnsiBlockShorterThanItsCountBecomesAnEmptyWideBlock)
{
    for (const std::string& ansi : {std::string(), std::string("\x05\x00", 2)}) {
        const std::vector<std::byte> wide = convert(ansi);
        EXPECT_EQ(wide.size(), countBytes + wideDescriptorBytes);
        EXPECT_EQ(declaredCount(Bytes(wide)), 0u);
        EXPECT_TRUE(readWideNames(Bytes(wide)).empty());
    }
}

TEST(DescriptorBlock, AnsiNameFillingItsFieldKeepsAll260Units)
{
    const std::string full(nameUnits, 'z'); // no NUL anywhere in the field
    const std::string ansi = countBytesOf(2) + bytesOf(ansiDescriptor(full, 0)) + bytesOf(ansiDescriptor("b", 0xF0));
    const std::string wide = asString(convert(ansi));
    EXPECT_EQ(readWideNames(view(wide)), (std::vector<std::wstring>{std::wstring(nameUnits, L'z'), L"b"}));
    // The second header was not overwritten by a terminator of the first name.
    EXPECT_EQ(wide.substr(countBytes + wideDescriptorBytes, headerBytes),
              ansi.substr(countBytes + ansiDescriptorBytes, headerBytes));
}

TEST(DescriptorBlock, ConverterThatFailsGivesAnEmptyName)
{
    const std::string ansi = countBytesOf(1) + bytesOf(ansiDescriptor("lost.txt", 0));
    const auto failing = [](std::span<const char>, std::span<char16_t>) { return size_t{0}; };
    EXPECT_EQ(readWideNames(view(asString(convert(ansi, failing)))), std::vector<std::wstring>{L""});
}

TEST(DescriptorBlock, ConverterClaimingMoreThanTheFieldIsBounded)
{
    const std::string ansi = countBytesOf(1) + bytesOf(ansiDescriptor("x", 0));
    const auto boastful = [](std::span<const char>, std::span<char16_t> out) {
        std::fill(out.begin(), out.end(), u'q');
        return size_t{100000};
    };
    const std::vector<std::byte> wide = convert(ansi, boastful);
    EXPECT_EQ(readWideNames(Bytes(wide)), std::vector<std::wstring>{std::wstring(nameUnits, L'q')});
}

} // namespace
