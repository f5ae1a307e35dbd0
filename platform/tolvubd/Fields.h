#pragma once

#include "FileAccess.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace tolvubd {

/// Bytes of an image, with the numbers that stand in them.
class Fields {
public:
    Fields(const os::FileDescriptor& image, std::uint64_t offset, std::size_t length)
        : bytes(length), isWhole(readAt(image, bytes, offset) == length) {}

    /// False when the image ends before them.
    explicit operator bool() const noexcept { return isWhole; }

    [[nodiscard]] std::uint8_t byte(std::size_t offset) const {
        return std::to_integer<std::uint8_t>(bytes.at(offset));
    }
    [[nodiscard]] std::uint64_t little(std::size_t offset, std::size_t width) const {
        std::uint64_t number = 0;
        for (std::size_t index = width; index > 0; --index) {
            number = number << 8U | byte(offset + index - 1);
        }
        return number;
    }
    [[nodiscard]] std::uint64_t big(std::size_t offset, std::size_t width) const {
        std::uint64_t number = 0;
        for (std::size_t index = 0; index < width; ++index) {
            number = number << 8U | byte(offset + index);
        }
        return number;
    }

private:
    std::vector<std::byte> bytes;
    bool isWhole = false;
};

} // namespace tolvubd
