#include "items/ascii_text.h"

bool equalsIgnoreCaseAscii(std::string_view a, std::string_view b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (asciiLower(a[i]) != asciiLower(b[i]))
            return false;
    }
    return true;
}

bool startsWithIgnoreCaseAscii(std::string_view text, std::string_view prefix)
{
    return text.size() >= prefix.size() && equalsIgnoreCaseAscii(text.substr(0, prefix.size()), prefix);
}

std::string_view trimHeaderWhitespace(std::string_view text)
{
    size_t first = 0;
    while (first < text.size() && isHeaderWhitespace(text[first]))
        ++first;
    size_t last = text.size();
    while (last > first && isHeaderWhitespace(text[last - 1]))
        --last;
    return text.substr(first, last - first);
}
