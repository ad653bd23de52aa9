#include "items/json_text.h"

std::wstring jsonIndent(int count)
{
    return std::wstring(count > 0 ? static_cast<size_t>(count) : 0, L' ');
}

std::wstring escapeJson(const std::wstring& value)
{
    std::wstring escaped;
    escaped.reserve(value.size() + 8);
    for (wchar_t c : value) {
        switch (c) {
        case L'\b': escaped += L"\\b"; break;
        case L'\t': escaped += L"\\t"; break;
        case L'\n': escaped += L"\\n"; break;
        case L'\r': escaped += L"\\r"; break;
        case L'"': escaped += L"\\\""; break;
        case L'\\': escaped += L"\\\\"; break;
        default: escaped += c; break;
        }
    }
    return escaped;
}

void writeJsonValue(std::wostream& out, const std::wstring& key, const std::wstring& value, int indent)
{
    out << jsonIndent(indent) << L"\"" << key << L"\" : \"" << escapeJson(value) << L"\"";
}

std::wstring fileNameOfPath(const std::wstring& path)
{
    const size_t separator = path.find_last_of(L"\\/");
    return separator == std::wstring::npos ? path : path.substr(separator + 1);
}
