#pragma once
// Base64 (RFC 4648, standard alphabet, padded) for the file tools and for
// images kept in the registry.
#include <optional>
#include <string>
#include <string_view>

std::string encodeBase64(std::string_view bytes);

// Blanks, tabs and line ends are skipped; any other character outside the
// alphabet, or a truncated group, gives nullopt.
std::optional<std::string> decodeBase64(std::string_view text);
