#pragma once

#include "os/Transfer.h"

/// Tables with few entries lie in files that are mostly holes, or space that was never written. Those are
/// zeros, which takes no reading to know, and no place in the page cache.
namespace os {

/// How many of the `length` bytes from an offset on are zeros since nothing was ever written there. 0 where
/// there is data, where the file ends, and on a file system that can't tell. Moves the position in the file.
std::uint64_t holeAt(int descriptor, std::uint64_t offset, std::uint64_t length) noexcept;

/// Does what readUpToAt does, but doesn't read a hole at the offset. Moves the position in the file.
Transfer readBehindHoleAt(int descriptor, std::span<std::byte> into, std::uint64_t offset) noexcept;

} // namespace os
