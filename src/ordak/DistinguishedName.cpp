#include "ordak/DistinguishedName.h"

#include <charconv>
#include <optional>
#include <vector>

namespace agent::ordak {
namespace {

/// The byte that the first two characters denote in hexadecimal, or nothing.
std::optional<char> hexadecimalByte(std::string_view text) {
    if (text.size() < 2) {
        return std::nullopt;
    }
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + 2, value, 16);
    if (error != std::errc() || end != text.data() + 2) {
        return std::nullopt;
    }
    return static_cast<char>(value);
}

/// Splits a name into its pieces and resolves the escapes. Keeps a backslash at the very end.
std::vector<std::string> pieces(std::string_view text) {
    std::vector<std::string> found(1);
    for (std::size_t at = 0; at < text.size(); ++at) {
        const std::string_view rest = text.substr(at + 1);
        if (text[at] == ',' || text[at] == '+') {
            found.emplace_back();
        } else if (text[at] != '\\' || rest.empty()) {
            found.back() += text[at];
        } else if (const std::optional<char> byte = hexadecimalByte(rest)) {
            found.back() += *byte;
            at += 2;
        } else {
            found.back() += rest.front();
            ++at;
        }
    }
    return found;
}

std::int32_t decimalNumber(const std::string& text) {
    std::int32_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && stop == end ? value : -1;
}

} // namespace

DistinguishedName parseDistinguishedName(std::string_view text) {
    DistinguishedName name;
    for (const std::string& piece : pieces(text)) {
        if (piece.starts_with("CN=")) {
            name.commonName = piece.substr(3);
            name.number = decimalNumber(name.commonName);
        } else if (piece.starts_with("O=")) {
            name.organization = piece.substr(2);
        } else if (piece.starts_with("OU=")) {
            name.organizationalUnit = piece.substr(3);
        }
    }
    return name;
}

} // namespace agent::ordak
