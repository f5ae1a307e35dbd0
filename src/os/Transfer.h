#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

/// Reads and writes that go on after an interruption and after a part, and are safe in a signal handler.
namespace os {

/// How far a transfer has come.
struct Transfer {
    std::size_t bytes = 0;
    int error = 0; ///< a value of `errno`, 0 if the buffer is full or the file has ended
};

/// Reads until `into` is full, the file ends or reading fails.
Transfer readUpTo(int descriptor, std::span<std::byte> into) noexcept;
/// The same from an offset in bytes on; the descriptor's position stays.
Transfer readUpToAt(int descriptor, std::span<std::byte> into, std::uint64_t offset) noexcept;

/// Writes all of `content`. Returns false with `errno` set on failure.
bool writeAll(int descriptor, std::span<const std::byte> content) noexcept;
bool writeAll(int descriptor, std::string_view content) noexcept;
/// The same from an offset in bytes on; the descriptor's position stays.
bool writeAllAt(int descriptor, std::span<const std::byte> content, std::uint64_t offset) noexcept;

} // namespace os
