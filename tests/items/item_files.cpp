#include "item_files.h"

#include "common/com_ptr.h"
#include "common/strings.h"

#include <shlwapi.h>

#include <cstring>
#include <functional>
#include <map>
#include <sstream>
#include <vector>

using Microsoft::WRL::ComPtr;

std::unique_ptr<MailItem> ItemFiles::mailItem(const MsgContent& content, const std::wstring& name, IStorage* source)
{
    storage = source ? ComPtr<IStorage>(source) : makeMsgInMemory(content);
    EXPECT_TRUE(storage);
    return std::make_unique<MailItem>(folder.file(name), storage.Get(), settings);
}

MsgContent sampleMail()
{
    MsgContent mail;
    mail.subject = L"Angebot \u00FCber 5\u20AC \U0001F600";
    mail.deliveryTime = utcFileTime(2024, 3, 5, 7, 8, 9);
    mail.submitTime = utcFileTime(2024, 3, 5, 7, 0, 0);
    mail.senderName = L"Anna Sender";
    mail.senderAddress = L"anna@example.org";
    mail.senderAddrType = L"SMTP";
    mail.body = L"Hello Bob,\nthe figures are attached.\n\nGr\u00FC\u00DFe, Anna";
    mail.internetMessageId = L"<offer-2024@example.org>";
    mail.inReplyTo = L"<request-2024@example.org>";
    mail.recipients = {
        {1, L"Bob To", L"bob@example.org", L"SMTP", "\x01\x02"},
        {2, L"Carl Cc", L"carl@example.org", L"SMTP", ""},
        {3, L"Dora Bcc", L"dora@example.org", L"SMTP", ""},
        {1, L"Eve \"Second\" To", L"eve@example.org", L"SMTP", ""},
        {0x10000000, L"Room", L"room@example.org", L"SMTP", ""}, // a type of its own: in no list
    };
    return mail;
}

ULONGLONG timeNumber(const FILETIME& time)
{
    return (ULONGLONG(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

ULONGLONG lastWriteTime(const std::wstring& path)
{
    WIN32_FILE_ATTRIBUTE_DATA data{};
    GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data);
    return timeNumber(data.ftLastWriteTime);
}

ComPtr<IStream> memoryStream(const std::string& bytes)
{
    ComPtr<IStream> stream;
    stream = adoptCom(SHCreateMemStream(reinterpret_cast<const BYTE*>(bytes.data()), static_cast<UINT>(bytes.size())));
    return stream;
}

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

namespace {

constexpr uint32_t endOfChain = 0xFFFFFFFE, noEntry = 0xFFFFFFFF;

class LayoutCheck {
public:
    explicit LayoutCheck(const std::string& bytes) : bytes_(bytes) {}

    std::string run()
    {
        if (bytes_.size() < 3 * 512 || bytes_.size() % 512 || std::memcmp(bytes_.data(), "\xD0\xCF\x11\xE0", 4))
            return "not a header and whole sectors\n";
        if (le(24, 2) != 0x3E || le(26, 2) != 3 || le(28, 2) != 0xFFFE || le(30, 2) != 9 || le(32, 2) != 6 ||
            le(40, 4) != 0 || le(56, 4) != 4096)
            problem("header: version, byte order, sector shifts or mini stream cutoff wrong");
        owner_.assign(bytes_.size() / 512 - 1, "");
        // The FAT sectors: 109 in the header, the rest in the DIFAT chain.
        std::vector<uint32_t> fatSectors;
        for (uint32_t slot = 0; slot < 109 && fatSectors.size() < le(44, 4); ++slot)
            fatSectors.push_back(le(76 + 4 * slot, 4));
        for (uint32_t difat = le(68, 4); difat != endOfChain && fatSectors.size() < le(44, 4);) {
            if (!claim(difat, "DIFAT"))
                return problems_.str();
            for (uint32_t slot = 0; slot < 127 && fatSectors.size() < le(44, 4); ++slot)
                fatSectors.push_back(le(at(difat) + 4 * slot, 4));
            difat = le(at(difat) + 508, 4);
        }
        for (uint32_t sector : fatSectors) {
            if (!claim(sector, "FAT"))
                return problems_.str();
            for (uint32_t i = 0; i < 128; ++i)
                fat_.push_back(le(at(sector) + 4 * i, 4));
        }
        if (fat_.size() < owner_.size())
            return problems_.str() + "FAT shorter than the file\n";
        for (uint32_t sector : chain(le(48, 4), "directory"))
            for (int i = 0; i < 4; ++i)
                entries_.push_back(at(sector) + 128 * i);
        for (uint32_t sector : chain(le(60, 4), "mini FAT"))
            for (uint32_t i = 0; i < 128; ++i)
                miniFat_.push_back(le(at(sector) + 4 * i, 4));
        if (entries_.empty() || bytes_[entries_[0] + 66] != 5)
            return problems_.str() + "no root entry\n";
        miniOwned_.assign(le(entries_[0] + 120, 4) / 64, false);
        chain(le(entries_[0] + 116, 4), "mini stream");
        reached_.assign(entries_.size(), false);
        checkChildren(0, 0);
        for (size_t s = 0; s < owner_.size(); ++s) {
            if (owner_[s].empty())
                problem("sector " + std::to_string(s) + " belongs to nothing");
        }
        return problems_.str();
    }

private:
    uint32_t le(size_t offset, int size) const
    {
        uint32_t value = 0;
        std::memcpy(&value, bytes_.data() + offset, size);
        return value;
    }
    size_t at(uint32_t sector) const { return 512 + size_t(sector) * 512; }
    void problem(const std::string& text) { problems_ << text << "\n"; }
    std::string nameOf(uint32_t entry) const
    {
        const size_t units = std::min<uint32_t>(le(entries_[entry] + 64, 2) / 2, 32);
        return wideToUtf8(std::wstring(reinterpret_cast<const wchar_t*>(bytes_.data() + entries_[entry]),
                                       units ? units - 1 : 0));
    }

    bool claim(uint32_t sector, const std::string& what)
    {
        if (sector >= owner_.size() || !owner_[sector].empty()) {
            problem(what + ": sector " + std::to_string(sector) + " beyond the file or already " +
                    (sector < owner_.size() ? owner_[sector] : ""));
            return false;
        }
        owner_[sector] = what;
        return true;
    }
    std::vector<uint32_t> chain(uint32_t start, const std::string& what)
    {
        std::vector<uint32_t> sectors;
        for (uint32_t sector = start; sector != endOfChain && claim(sector, what); sector = fat_[sector])
            sectors.push_back(sector);
        return sectors;
    }

    // The children of `storage` form one red-black tree in the documented
    // order (shorter names first, then upper-cased); each stream's chain
    // fits its size.
    void checkChildren(uint32_t storage, int depth)
    {
        std::vector<uint32_t> inOrder;
        walk(le(entries_[storage] + 76, 4), false, inOrder);
        for (size_t i = 1; i < inOrder.size(); ++i) {
            const std::wstring a = utf8ToWide(nameOf(inOrder[i - 1])), b = utf8ToWide(nameOf(inOrder[i]));
            if (a.size() > b.size() ||
                (a.size() == b.size() && CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(),
                                                              static_cast<int>(b.size()), TRUE) != CSTR_LESS_THAN))
                problem("siblings out of order: " + nameOf(inOrder[i - 1]) + " before " + nameOf(inOrder[i]));
        }
        for (uint32_t child : inOrder) {
            const size_t entry = entries_[child];
            const uint32_t size = le(entry + 120, 4);
            if (bytes_[entry + 66] == 1 && depth < 100) {
                checkChildren(child, depth + 1);
            } else if (size >= 4096) {
                if (chain(le(entry + 116, 4), nameOf(child)).size() != (size + 511) / 512)
                    problem(nameOf(child) + ": chain doesn't fit the size");
            } else {
                size_t count = 0;
                for (uint32_t mini = size ? le(entry + 116, 4) : endOfChain; mini != endOfChain; mini = miniFat_[mini]) {
                    if (mini >= miniOwned_.size() || miniOwned_[mini] || mini >= miniFat_.size())
                        return problem(nameOf(child) + ": mini chain broken");
                    miniOwned_[mini] = true;
                    ++count;
                }
                if (count != (size + 63) / 64)
                    problem(nameOf(child) + ": mini chain doesn't fit the size");
            }
        }
    }
    // The black height of the subtree, -1 when it's broken.
    int walk(uint32_t node, bool parentRed, std::vector<uint32_t>& inOrder)
    {
        if (node == noEntry)
            return 0;
        if (node >= entries_.size() || reached_[node] || bytes_[entries_[node] + 66] == 0) {
            problem("tree link to entry " + std::to_string(node) + " is invalid or repeated");
            return -1;
        }
        reached_[node] = true;
        const bool red = bytes_[entries_[node] + 67] == 0;
        if (red && parentRed)
            problem("red " + nameOf(node) + " under a red parent");
        const int left = walk(le(entries_[node] + 68, 4), red, inOrder);
        inOrder.push_back(node);
        const int right = walk(le(entries_[node] + 72, 4), red, inOrder);
        if (left != right)
            problem("black heights differ under " + nameOf(node));
        return left < 0 || right < 0 ? -1 : left + (red ? 0 : 1);
    }

    const std::string& bytes_;
    std::ostringstream problems_;
    std::vector<std::string> owner_;
    std::vector<uint32_t> fat_, miniFat_;
    std::vector<size_t> entries_; // offsets of the directory entries
    std::vector<bool> reached_, miniOwned_;
};

} // namespace

std::string compoundFileProblems(const std::string& bytes)
{
    return LayoutCheck(bytes).run();
}
