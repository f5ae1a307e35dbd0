#include "zephane/wire/PlainText.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace zephane::wire {

namespace {

/// How the first byte of a character determines the number of bytes that follow.
struct Form {
    std::uint8_t mask;
    std::uint8_t mark;
    std::size_t following;
    char32_t smallest; ///< of the characters of that length
};

constexpr std::array<Form, 4> forms{{
    {0x80, 0x00, 0, 0},
    {0xe0, 0xc0, 1, 0x80},
    {0xf0, 0xe0, 2, 0x800},
    {0xf8, 0xf0, 3, 0x10000},
}};

constexpr char32_t lastCharacter = 0x10ffff;

bool isControl(char32_t character) {
    return character < 0x20 || (character >= 0x7f && character < 0xa0);
}

bool isSurrogate(char32_t character) {
    return character >= 0xd800 && character < 0xe000;
}

std::optional<Form> formOf(std::uint8_t first) {
    for (const Form& form : forms) {
        if ((first & form.mask) == form.mark) {
            return form;
        }
    }
    return std::nullopt;
}

/// Removes the first character from `text` and returns it. None if it isn't valid UTF-8.
std::optional<char32_t> takeCharacter(std::string_view& text) {
    const auto first = static_cast<std::uint8_t>(text.front());
    const auto form = formOf(first);
    if (!form || text.size() <= form->following) {
        return std::nullopt;
    }
    char32_t character = first & static_cast<std::uint8_t>(~form->mask);
    for (const char next : text.substr(1, form->following)) {
        const auto byte = static_cast<std::uint8_t>(next);
        if ((byte & 0xc0U) != 0x80U) {
            return std::nullopt;
        }
        character = character << 6U | (byte & 0x3fU);
    }
    text.remove_prefix(1 + form->following);
    if (character < form->smallest || character > lastCharacter || isSurrogate(character)) {
        return std::nullopt;
    }
    return character;
}

} // namespace

bool isPlainText(const std::string& text) {
    std::string_view rest = text;
    while (!rest.empty()) {
        const auto character = takeCharacter(rest);
        if (!character || isControl(*character)) {
            return false;
        }
    }
    return true;
}

} // namespace zephane::wire
