#include "common/PeerText.h"

#include <algorithm>
#include <array>
#include <optional>

namespace agent {

namespace {

constexpr unsigned char deleteCharacter = 0x7f;

unsigned char byteAt(std::string_view text, std::size_t position) {
    return static_cast<unsigned char>(text[position]);
}

bool isContinuation(unsigned char byte) {
    return (byte & 0xc0U) == 0x80U;
}

/// One of UTF-8's encodings: mask and value of its first byte's fixed bits, its length in bytes, and the
/// lowest code point that needs this length.
struct Utf8Encoding {
    unsigned char mask;
    unsigned char lead;
    std::size_t length;
    char32_t lowest;
};

constexpr std::array encodings = {Utf8Encoding{0x80, 0x00, 1, 0}, Utf8Encoding{0xe0, 0xc0, 2, 0x80},
                                  Utf8Encoding{0xf0, 0xe0, 3, 0x800}, Utf8Encoding{0xf8, 0xf0, 4, 0x10000}};

bool isCharacter(char32_t code) {
    constexpr char32_t highest = 0x10ffff;
    return code <= highest && (code < 0xd800 || code > 0xdfff);
}

/// Whether `code` is in one of the two ranges of control characters. Terminals obey the second range, too.
bool isControl(char32_t code) {
    return code < 0x20 || (code >= deleteCharacter && code < 0xa0);
}

/// The code point of a UTF-8 character, or nothing if `bytes` is not valid UTF-8.
std::optional<char32_t> decoded(const Utf8Encoding& encoding, std::string_view bytes) {
    char32_t code = byteAt(bytes, 0) & static_cast<unsigned char>(~encoding.mask);
    for (std::size_t index = 1; index < bytes.size(); ++index) {
        if (!isContinuation(byteAt(bytes, index))) {
            return std::nullopt;
        }
        code = code << 6U | (byteAt(bytes, index) & 0x3fU);
    }
    return code >= encoding.lowest && isCharacter(code) ? std::optional(code) : std::nullopt;
}

struct Character {
    std::size_t length;
    bool isControl;
};

/// The first character of `text`. A byte that isn't valid UTF-8 counts as one character, and as a control
/// character if a terminal with a single-byte encoding would take it for one.
Character firstCharacter(std::string_view text) {
    const unsigned char first = byteAt(text, 0);
    const auto* const encoding =
        std::find_if(encodings.begin(), encodings.end(), [first](const Utf8Encoding& candidate) {
            return (first & candidate.mask) == candidate.lead;
        });
    if (encoding != encodings.end() && encoding->length <= text.size()) {
        if (const std::optional<char32_t> code = decoded(*encoding, text.substr(0, encoding->length))) {
            return {encoding->length, isControl(*code)};
        }
    }
    return {1, isControl(first)};
}

std::string escaped(unsigned char byte) {
    constexpr std::string_view digits = "0123456789abcdef";
    switch (byte) {
    case '\n':
        return "\\n";
    case '\t':
        return "\\t";
    case '\r':
        return "\\r";
    default:
        return {'\\', 'x', digits[byte >> 4U], digits[byte & 0xfU]};
    }
}

} // namespace

std::string printable(std::string_view text) {
    std::string shown;
    shown.reserve(text.size());
    while (!text.empty()) {
        const Character next = firstCharacter(text);
        for (const char byte : text.substr(0, next.length)) {
            shown += next.isControl ? escaped(static_cast<unsigned char>(byte)) : std::string(1, byte);
        }
        text.remove_prefix(next.length);
    }
    return shown;
}

std::string shortened(std::string_view text, std::size_t maxBytes) {
    if (text.size() <= maxBytes) {
        return std::string(text);
    }
    std::size_t end = maxBytes;
    while (end > 0 && isContinuation(byteAt(text, end))) {
        --end;
    }
    return std::string(text.substr(0, end)) + "... (" + std::to_string(text.size()) + " bytes)";
}

} // namespace agent
