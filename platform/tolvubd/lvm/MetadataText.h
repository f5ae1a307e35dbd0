#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

namespace tolvubd::lvm {

/// A word of a value: a number, or what stands between quotes, with its backslashes.
struct Word {
    std::string_view text;
    bool isQuoted = false;

    bool operator==(const Word&) const = default;
};

/// One section of a text: its values, each one word or a list of them, and the sections in it, by name.
struct Section {
    std::map<std::string_view, std::vector<Word>> values;
    std::map<std::string_view, Section> sections;

    /// None when there is no section of this name.
    [[nodiscard]] const Section* find(std::string_view name) const;
    /// A value that is one word in quotes; none if it is anything else.
    [[nodiscard]] std::optional<std::string_view> string(std::string_view name) const;
    /// A value that is one number, decimal and not negative; none if it is anything else.
    [[nodiscard]] std::optional<std::uint64_t> number(std::string_view name) const;
    /// Whether the word, in quotes, is among those of a value.
    [[nodiscard]] bool has(std::string_view name, std::string_view word) const;
};

std::optional<std::uint64_t> numberOf(const Word& word);

inline constexpr std::size_t deepestSection = 16;
/// Sections, values and words in one text.
inline constexpr std::size_t mostItems = std::size_t{1} << 18U;

/// Reads the language of LVM's metadata (`man lvm.conf`):
///
///     text    = { section | value }
///     section = name "{" text "}"
///     value   = name "=" ( word | "[" [ word { "," word } ] "]" )
///
/// A comment goes from "#" to the end of its line. What is returned points into the text.
///
/// Fails: std::system_error, EBADMSG for anything else, and for a name that comes twice in its section.
Section parseMetadata(std::string_view text);

} // namespace tolvubd::lvm
