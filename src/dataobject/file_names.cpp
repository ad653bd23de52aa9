#include "dataobject/file_names.h"

#include "core/log_line.h"

#include <algorithm>
#include <atomic>
#include <string_view>

namespace {

Logger logger("DataObjectHelper");

// Counts the "temp<n>.unk" names for the life of the process.
std::atomic<unsigned> generatedNames{0};

constexpr std::wstring_view forbiddenCharacters = L"\\/\"*?<>:|";

// _wsplitpath_s with buffers of 256 units: a part must leave room for its NUL.
constexpr size_t splitBufferUnits = 256;

// "stem (9999).ext" is the last name built; it is used without a check.
constexpr unsigned lastNumber = 9999;

unsigned digitsOf(unsigned number)
{
    unsigned digits = 1;
    while (number >= 10) {
        number /= 10;
        ++digits;
    }
    return digits;
}

unsigned lastNumberWithDigits(unsigned digits)
{
    unsigned last = 9;
    for (unsigned i = 1; i < digits; ++i)
        last = last * 10 + 9;
    return std::min(last, lastNumber);
}

bool isForbidden(wchar_t c)
{
    return forbiddenCharacters.find(c) != std::wstring_view::npos;
}

// Forbidden characters at either end of the name are dropped, every run of
// them there, so that a name made only of forbidden characters ("???") leaves
// nothing and becomes "temp<n>.unk"; inside, each becomes one blank.
std::wstring sanitized(std::wstring_view name)
{
    size_t first = 0;
    while (first < name.size() && isForbidden(name[first]))
        ++first;
    size_t end = name.size();
    while (end > first && isForbidden(name[end - 1]))
        --end;
    std::wstring result(name.substr(first, end - first));
    for (wchar_t& c : result)
        if (isForbidden(c))
            c = L' ';
    if (result.empty())
        result = L"temp" + std::to_wstring(++generatedNames) + L".unk";
    return result;
}

struct SplitView {
    std::wstring_view stem, extension;
};

SplitView splitView(std::wstring_view rest)
{
    if (rest.size() >= 2 && rest[1] == L':')
        rest.remove_prefix(2);
    const size_t separator = rest.find_last_of(L"\\/");
    if (separator != std::wstring_view::npos)
        rest.remove_prefix(separator + 1);
    const size_t dot = rest.find_last_of(L'.');
    SplitView split{rest, {}};
    if (dot != std::wstring_view::npos)
        split = SplitView{rest.substr(0, dot), rest.substr(dot)};
    if (split.stem.size() >= splitBufferUnits || split.extension.size() >= splitBufferUnits)
        return {};
    return split;
}

void appendDecimal(std::wstring& text, unsigned number)
{
    wchar_t digits[10];
    size_t count = 0;
    do {
        digits[count++] = static_cast<wchar_t>(L'0' + number % 10);
        number /= 10;
    } while (number > 0);
    while (count > 0)
        text.push_back(digits[--count]);
}

} // namespace

std::wstring sanitizeFileName(const std::wstring& name)
{
    return sanitized(name);
}

StemAndExtension splitStemAndExtension(const std::wstring& name)
{
    const SplitView split = splitView(name);
    return StemAndExtension{std::wstring(split.stem), std::wstring(split.extension)};
}

long long maxFileNameLength(const std::wstring& tempDir)
{
    return 230 - static_cast<long long>(tempDir.size());
}

std::wstring joinFolderAndName(const std::wstring& folder, const std::wstring& name)
{
    std::wstring path;
    path.reserve(folder.size() + 1 + name.size());
    path = folder;
    if (!folder.empty() && folder.back() != L'\\')
        path.push_back(L'\\');
    path += name;
    return path;
}

UniqueFileNames::UniqueFileNames(long long maxLength, size_t expectedNames) : maxLength_(maxLength)
{
    taken_.reserve(expectedNames);
}

bool UniqueFileNames::acceptable(std::wstring_view candidate) const
{
    return static_cast<long long>(candidate.size()) <= maxLength_ && taken_.find(candidate) == taken_.end();
}

const std::wstring& UniqueFileNames::next(const std::wstring& givenName)
{
    const std::wstring_view candidate = acceptable(givenName) ? std::wstring_view(givenName) : numberedCandidate(givenName);
    const auto inserted = taken_.insert(sanitized(candidate)).first;
    KV_DEBUG(logger) << "insert fname=" << *inserted;
    return *inserted;
}

std::wstring_view UniqueFileNames::numberedCandidate(const std::wstring& givenName)
{
    KV_DEBUG(logger) << "fname already exists or fname too long";
    const SplitView split = splitView(givenName);
    const long long extensionLength = static_cast<long long>(split.extension.size());

    unsigned number = 1;
    for (;;) {
        // Within one digit count the suffix has one length, so the stem is cut
        // the same way for every number of it.
        const unsigned digits = digitsOf(number);
        const long long suffixLength = 3 + digits; // " (" digits ")"
        const long long stemRoom = maxLength_ - suffixLength - extensionLength;
        if (stemRoom <= 0) {
            // Longer numbers only need more room, so no later one fits either.
            KV_ERROR(logger) << "ERROR path too long for file name=" << split.stem;
            return givenName;
        }
        const std::wstring_view stem = split.stem.substr(0, static_cast<size_t>(stemRoom));

        key_.assign(stem);
        key_.push_back(L'\0');
        key_.append(split.extension);
        key_.push_back(L'\0');
        key_.push_back(static_cast<wchar_t>(L'0' + digits));
        auto found = lowestUntried_.find(std::wstring_view(key_));
        if (found == lowestUntried_.end())
            found = lowestUntried_.emplace(key_, 0u).first;
        unsigned& lowest = found->second;
        number = std::max(number, lowest);

        const unsigned last = lastNumberWithDigits(digits);
        for (; number <= last; ++number) {
            candidate_.assign(stem);
            candidate_.append(L" (");
            appendDecimal(candidate_, number);
            candidate_.push_back(L')');
            candidate_.append(split.extension);
            KV_DEBUG(logger) << "try fname=" << candidate_;
            // A candidate handed out may come back: what is remembered is its
            // sanitised form, which can differ from it.
            if (number == lastNumber || acceptable(candidate_)) {
                lowest = number;
                return candidate_;
            }
            KV_DEBUG(logger) << "fname already exists or fname too long";
        }
        lowest = last + 1;
    }
}
