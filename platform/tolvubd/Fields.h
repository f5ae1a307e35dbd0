#pragma once

#include "FileAccess.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

namespace tolvubd {

/// The offset and the width of a number in an on-disk structure, in bytes.
struct Field {
    std::size_t offset;
    std::size_t width;
};

/// Bytes of an image, and access to the numbers in them.
/// Owns:    the bytes.
/// Threads: any, as long as no thread calls `set`.
/// Fails:   the constructor that reads throws std::system_error; access beyond the bytes std::out_of_range.
class Fields {
public:
    Fields(const os::FileDescriptor& image, std::uint64_t offset, std::size_t length)
        : bytes(length), isWhole(readAt(image, bytes, offset) == length) {}
    /// For bytes that were read by other means.
    Fields(std::vector<std::byte> bytes, bool isWhole) : bytes(std::move(bytes)), isWhole(isWhole) {}

    /// False when the image ends before the last of the bytes.
    explicit operator bool() const noexcept { return isWhole; }

    [[nodiscard]] std::size_t size() const { return bytes.size(); }
    [[nodiscard]] std::span<const std::byte> all() const { return bytes; }
    /// These bytes followed by those of `other`.
    [[nodiscard]] Fields followedBy(const Fields& other) const {
        std::vector<std::byte> joined = bytes;
        joined.insert(joined.end(), other.bytes.begin(), other.bytes.end());
        return {std::move(joined), isWhole && other.isWhole};
    }
    void set(std::size_t offset, std::uint8_t value) { bytes.at(offset) = std::byte{value}; }
    [[nodiscard]] std::uint8_t byte(std::size_t offset) const {
        return std::to_integer<std::uint8_t>(bytes.at(offset));
    }
    [[nodiscard]] std::uint64_t little(Field field) const {
        std::uint64_t number = 0;
        for (std::size_t index = field.width; index > 0; --index) {
            number = number << 8U | byte(field.offset + index - 1);
        }
        return number;
    }
    [[nodiscard]] std::uint64_t big(Field field) const {
        std::uint64_t number = 0;
        for (std::size_t index = 0; index < field.width; ++index) {
            number = number << 8U | byte(field.offset + index);
        }
        return number;
    }

private:
    std::vector<std::byte> bytes;
    bool isWhole = false;
};

} // namespace tolvubd
