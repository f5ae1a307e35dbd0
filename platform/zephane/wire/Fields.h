#pragma once

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace zephane::wire {

/// A text as the bytes that it is.
std::span<const std::uint8_t> bytesOf(const std::string& text);

/// Puts a structure together, field by field, big endian.
class FieldWriter {
public:
    template <std::unsigned_integral Number>
    void number(Number value) {
        for (std::size_t left = sizeof(Number); left > 0; --left) {
            written.push_back(static_cast<std::uint8_t>(value >> (8 * (left - 1))));
        }
    }
    void bytes(std::span<const std::uint8_t> value);
    /// A 16-bit length and the text. std::invalid_argument for one that the length can't tell.
    void text(const std::string& value);
    /// 0 or a negative errno. std::invalid_argument for others.
    void code(std::int32_t value);

    /// All of it; nothing is left here.
    std::vector<std::uint8_t> take() { return std::exchange(written, {}); }

private:
    std::vector<std::uint8_t> written;
};

/// Takes a structure apart, field by field, big endian. The bytes have to stay.
/// Fails: ProtocolError where they end before the field does.
class FieldReader {
public:
    explicit FieldReader(std::span<const std::uint8_t> bytes) : rest(bytes) {}

    template <std::unsigned_integral Number>
    Number number() {
        Number value = 0;
        for (const std::uint8_t byte : bytes(sizeof(Number))) {
            value = static_cast<Number>(std::uint64_t{value} << 8U | byte);
        }
        return value;
    }
    std::span<const std::uint8_t> bytes(std::size_t count);
    template <std::size_t count>
    std::array<std::uint8_t, count> array() {
        std::array<std::uint8_t, count> value{};
        std::ranges::copy(bytes(count), value.begin());
        return value;
    }
    std::string text();
    /// ProtocolError for a number that isn't 0 or a negative errno too.
    std::int32_t code();

    [[nodiscard]] std::size_t left() const { return rest.size(); }
    /// ProtocolError if anything is left.
    void end() const;

private:
    std::span<const std::uint8_t> rest;
};

} // namespace zephane::wire
