#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

/// Reads and writes that continue after EINTR and after a partial transfer. They are async-signal-safe.
namespace os {

/// The result of a transfer.
struct Transfer {
    std::size_t bytes = 0;
    int error = 0; ///< an `errno` value; 0 if the buffer is full or the file has ended
};

/// Reads until `into` is full, the file ends or reading fails.
Transfer readUpTo(int descriptor, std::span<std::byte> into) noexcept;
/// Like readUpTo, but reads from `offset` (in bytes) on and doesn't move the descriptor's file offset.
Transfer readUpToAt(int descriptor, std::span<std::byte> into, std::uint64_t offset) noexcept;

/// Writes all of `content`. Returns false with `errno` set on failure.
bool writeAll(int descriptor, std::span<const std::byte> content) noexcept;
bool writeAll(int descriptor, std::string_view content) noexcept;
/// Like writeAll, but writes from `offset` (in bytes) on and doesn't move the descriptor's file offset.
bool writeAllAt(int descriptor, std::span<const std::byte> content, std::uint64_t offset) noexcept;

} // namespace os
