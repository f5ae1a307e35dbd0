#include "lvm/MetadataText.h"

#include "lvm/Bytes.h"

#include <algorithm>
#include <charconv>
#include <string>
#include <system_error>

namespace tolvubd::lvm {
namespace {

constexpr std::string_view spaces = " \t\n\r\v\f";
constexpr std::string_view marks = "{}[]=,";
constexpr std::string_view bareCharacters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.+-";

/// A token of the text. A mark is a single character with its own meaning; an empty one is the end of the
/// text.
struct Token {
    enum class Kind { mark, bare, quoted } kind = Kind::mark;
    std::string_view text;

    [[nodiscard]] bool is(std::string_view mark) const { return kind == Kind::mark && text == mark; }
    [[nodiscard]] bool isEnd() const { return is(""); }
};

class Tokens {
public:
    explicit Tokens(std::string_view text) : rest(text) {}

    Token next() {
        skipBlanks();
        if (rest.empty()) {
            return {};
        }
        if (rest.front() == '"') {
            return {Token::Kind::quoted, takeQuoted()};
        }
        if (marks.find(rest.front()) != std::string_view::npos) {
            return {Token::Kind::mark, take(1)};
        }
        return {Token::Kind::bare, takeBare()};
    }

private:
    std::string_view take(std::size_t length) {
        const std::string_view taken = rest.substr(0, length);
        rest.remove_prefix(taken.size());
        return taken;
    }

    void skipBlanks() {
        while (!rest.empty()) {
            if (rest.front() == '#') {
                take(std::min(rest.find('\n'), rest.size()));
            } else if (spaces.find(rest.front()) != std::string_view::npos) {
                take(1);
            } else {
                return;
            }
        }
    }

    /// A backslash escapes the next character, such as a quote.
    std::string_view takeQuoted() {
        std::size_t length = 1;
        while (length < rest.size() && rest[length] != '"') {
            length += rest[length] == '\\' ? 2 : 1;
        }
        if (length >= rest.size()) {
            failOn("a string has no end");
        }
        return take(length + 1).substr(1, length - 1);
    }

    std::string_view takeBare() {
        const std::size_t length = std::min(rest.find_first_not_of(bareCharacters), rest.size());
        if (length == 0) {
            failOn("a character that is in no word");
        }
        return take(length);
    }

    std::string_view rest;
};

class Parser {
public:
    explicit Parser(std::string_view text) : tokens(text) {}

    Section parse() {
        Section whole;
        std::vector<Section*> open{&whole};
        for (Token token = tokens.next(); !token.isEnd(); token = tokens.next()) {
            if (!token.is("}")) {
                addTo(open, token);
                continue;
            }
            open.pop_back();
            if (open.empty()) {
                failOn("a section ends that hasn't begun");
            }
        }
        if (open.size() != 1) {
            failOn("a section has no end");
        }
        return whole;
    }

private:
    /// Adds a value to the innermost open section, or opens a new section in it.
    void addTo(std::vector<Section*>& open, const Token& name) {
        if (name.kind != Token::Kind::bare || open.back()->values.contains(name.text) ||
            open.back()->sections.contains(name.text)) {
            failOn("not a new name");
        }
        count();
        const Token sign = tokens.next();
        if (sign.is("=")) {
            open.back()->values.emplace(name.text, takeValue());
        } else if (sign.is("{") && open.size() <= deepestSection) {
            open.push_back(&open.back()->sections[name.text]);
        } else {
            failOn("a name without a value");
        }
    }

    std::vector<Word> takeValue() {
        const Token first = tokens.next();
        return first.is("[") ? takeList() : std::vector{wordOf(first)};
    }

    std::vector<Word> takeList() {
        std::vector<Word> words;
        Token token = tokens.next();
        if (token.is("]")) {
            return words;
        }
        for (;; token = tokens.next()) { // ends: each round takes a token, and the text's end is no word
            words.push_back(wordOf(token));
            const Token behind = tokens.next();
            if (behind.is("]")) {
                return words;
            }
            if (!behind.is(",")) {
                failOn("a list has no end");
            }
        }
    }

    Word wordOf(const Token& token) {
        if (token.kind == Token::Kind::mark) {
            failOn("a value is missing");
        }
        count();
        return {token.text, token.kind == Token::Kind::quoted};
    }

    void count() {
        if (++items > mostItems) {
            failOn("too long");
        }
    }

    Tokens tokens;
    std::size_t items = 0;
};

/// The word of a value that has exactly one; null otherwise.
const Word* wordIn(const Section& section, std::string_view name) {
    const auto found = section.values.find(name);
    return found != section.values.end() && found->second.size() == 1 ? &found->second.front() : nullptr;
}

} // namespace

const Section* Section::find(std::string_view name) const {
    const auto found = sections.find(name);
    return found != sections.end() ? &found->second : nullptr;
}

std::optional<std::string_view> Section::string(std::string_view name) const {
    const Word* const word = wordIn(*this, name);
    return word != nullptr && word->isQuoted ? std::optional(word->text) : std::nullopt;
}

std::optional<std::uint64_t> Section::number(std::string_view name) const {
    const Word* const word = wordIn(*this, name);
    return word != nullptr ? numberOf(*word) : std::nullopt;
}

bool Section::has(std::string_view name, std::string_view word) const {
    const auto found = values.find(name);
    return found != values.end() && std::ranges::find(found->second, Word{word, true}) != found->second.end();
}

std::optional<std::uint64_t> numberOf(const Word& word) {
    std::uint64_t number = 0;
    const char* const end = word.text.data() + word.text.size();
    const auto [rest, error] = std::from_chars(word.text.data(), end, number);
    return !word.isQuoted && error == std::errc() && rest == end ? std::optional(number) : std::nullopt;
}

Section parseMetadata(std::string_view text) {
    return Parser(text).parse();
}

} // namespace tolvubd::lvm
