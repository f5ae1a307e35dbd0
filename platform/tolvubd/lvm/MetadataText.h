#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

namespace tolvubd::lvm {

/// A word of a value: a number, or the text between quotes, with its backslashes.
struct Word {
    std::string_view text;
    bool isQuoted = false;

    bool operator==(const Word&) const = default;
};

/// A section of a text: its values, each one word or a list of words, and its subsections, both by name.
struct Section {
    std::map<std::string_view, std::vector<Word>> values;
    std::map<std::string_view, Section> sections;

    /// None when there is no section of this name.
    [[nodiscard]] const Section* find(std::string_view name) const;
    /// A value that is one word in quotes; none if it is anything else.
    [[nodiscard]] std::optional<std::string_view> string(std::string_view name) const;
    /// A value that is one number, decimal and not negative; none if it is anything else.
    [[nodiscard]] std::optional<std::uint64_t> number(std::string_view name) const;
    /// Whether the words of a value contain `word` in quotes.
    [[nodiscard]] bool has(std::string_view name, std::string_view word) const;
};

std::optional<std::uint64_t> numberOf(const Word& word);

inline constexpr std::size_t deepestSection = 16;
/// How many sections, values and words one text may have.
inline constexpr std::size_t mostItems = std::size_t{1} << 18U;

/// Parses the language of LVM's metadata (`man lvm.conf`):
///
///     text    = { section | value }
///     section = name "{" text "}"
///     value   = name "=" ( word | "[" [ word { "," word } ] "]" )
///
/// A comment goes from "#" to the end of its line. The result points into `text`.
///
/// Fails: std::system_error, EBADMSG for anything else, and when a section has the same name twice.
Section parseMetadata(std::string_view text);

} // namespace tolvubd::lvm
