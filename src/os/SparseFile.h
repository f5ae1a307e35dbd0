#pragma once

#include "os/Transfer.h"

/// Tables with few entries are stored in files that are mostly holes, or preallocated space that was never
/// written. Both are known to be zeros: skipping them saves reads and space in the page cache.
namespace os {

/// Returns how many bytes from `offset` on, at most `length`, belong to a hole and so are zeros. Returns 0 if
/// there is data at `offset`, if the file ends there, or if the file system can't report holes. Moves the
/// descriptor's file offset.
std::uint64_t holeLengthAt(int descriptor, std::uint64_t offset, std::uint64_t length) noexcept;

/// Like readUpToAt, but doesn't read a hole at `offset`. Moves the descriptor's file offset.
Transfer readSkippingHoleAt(int descriptor, std::span<std::byte> into, std::uint64_t offset) noexcept;

} // namespace os
