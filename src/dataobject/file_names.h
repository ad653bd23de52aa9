#pragma once
// The names under which dragged files appear in the drag folder: safe for the
// file system (sanitizeFileName) and unique within one drag (UniqueFileNames).
// Plain strings in and out; nothing but the log is touched.
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

// The nine characters Windows forbids in a file name (\ / " * ? < > : |) are
// dropped at the start and the end of the name and become one blank each
// anywhere else; an empty result becomes "temp<n>.unk" with a process-wide
// counter that starts at 1. No blanks or dots are trimmed.
std::wstring sanitizeFileName(const std::wstring& name);

// A name split the way _wsplitpath_s splits it: drive ("X:") and folder are
// dropped, the extension runs from the last dot after the last separator. A
// stem or extension that does not fit the 256-unit buffers makes both empty,
// as the C runtime clears every buffer when one is too small.
struct StemAndExtension {
    std::wstring stem, extension;
};
StemAndExtension splitStemAndExtension(const std::wstring& name);

// The file name bound that a temp folder leaves: 230 minus its length (may be
// negative for an absurdly long folder; then no name fits).
long long maxFileNameLength(const std::wstring& tempDir);

// The folder, a backslash unless it is empty or ends in one, and the name.
std::wstring joinFolderAndName(const std::wstring& folder, const std::wstring& name);

// Hands out the names of one descriptor block, in order. A name is taken as
// given when it fits `maxLength` and was not handed out yet; otherwise the
// first of "stem (1).ext", "stem (2).ext", ... (the stem cut so the whole is
// at most `maxLength`) that fits and is free, up to 9999, which is taken
// unchecked. Then it is sanitised and remembered.
//
// Names are compared before sanitising but remembered after it, so "a?.txt"
// twice gives "a .txt" twice: the shipped behaviour.
//
// Trying every number from 1 for each descriptor is quadratic when many share
// a name. A number rejected once stays rejected (too long stays too long, the
// set of taken names only grows), and the candidate for a number depends only
// on the cut stem, the extension and the number. So the lowest number still
// worth trying is remembered per (cut stem, extension, digit count), and a
// later search starts there: the same names, found in constant time.
class UniqueFileNames {
public:
    explicit UniqueFileNames(long long maxLength, size_t expectedNames = 0);

    // The sanitised, unique name for the next descriptor's `givenName`;
    // the reference stays valid as long as this object.
    const std::wstring& next(const std::wstring& givenName);

private:
    struct ViewHash {
        using is_transparent = void;
        size_t operator()(std::wstring_view text) const { return std::hash<std::wstring_view>{}(text); }
    };
    using NameSet = std::unordered_set<std::wstring, ViewHash, std::equal_to<>>;
    using NumberMap = std::unordered_map<std::wstring, unsigned, ViewHash, std::equal_to<>>;

    bool acceptable(std::wstring_view candidate) const;
    // The numbered name (a view of candidate_), or the given name when even a
    // cut stem can't make room for the number (logged as an error).
    std::wstring_view numberedCandidate(const std::wstring& givenName);

    long long maxLength_;
    NameSet taken_;          // sanitised names handed out
    NumberMap lowestUntried_; // by cut stem, extension and digit count
    std::wstring candidate_, key_; // reused, so a search allocates nothing
};
