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

std::span<const std::uint8_t> bytesOf(const std::string& text);

/// Encodes a structure field by field, big endian.
/// Owns:    the bytes written so far.
/// Threads: one at a time.
/// Fails:   `text` and `code` throw std::invalid_argument for a value that the format can't express.
class FieldWriter {
public:
    template <std::unsigned_integral Number>
    void number(Number value) {
        for (std::size_t left = sizeof(Number); left > 0; --left) {
            written.push_back(static_cast<std::uint8_t>(value >> (8 * (left - 1))));
        }
    }
    void bytes(std::span<const std::uint8_t> value);
    /// Writes a 16-bit length and the text. Throws std::invalid_argument for a text too long for the length
    /// field.
    void text(const std::string& value);
    /// Writes 0 or a negative errno. Throws std::invalid_argument for any other number.
    void code(std::int32_t value);

    /// Returns the bytes written so far and leaves the writer empty.
    std::vector<std::uint8_t> take() { return std::exchange(written, {}); }

private:
    std::vector<std::uint8_t> written;
};

/// Decodes a structure field by field, big endian.
/// Owns:    nothing; the bytes must outlive the reader.
/// Threads: one at a time.
/// Fails:   ProtocolError when the bytes end before the field does.
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
    /// Also throws ProtocolError for a number that is neither 0 nor a negative errno.
    std::int32_t code();

    [[nodiscard]] std::size_t left() const { return rest.size(); }
    /// Throws ProtocolError if any bytes are left.
    void end() const;

private:
    std::span<const std::uint8_t> rest;
};

} // namespace zephane::wire
