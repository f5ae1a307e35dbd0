#pragma once

#include "os/FileDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// Helpers that all parts of LVM's format share.
namespace tolvubd::lvm {

inline constexpr std::size_t sectorSize = 512;

/// Throws std::system_error with EBADMSG, for metadata that isn't as expected.
[[noreturn]] void failOn(const std::string& what);

/// Reads bytes of a device or an image, which may be open for direct I/O. Throws EBADMSG when it ends before
/// the last of the bytes.
std::string readBytes(const os::FileDescriptor& file, std::uint64_t offset, std::size_t length);

/// A little-endian number. `bytes` must hold all of it.
template <typename Number>
Number littleEndian(std::string_view bytes, std::size_t offset) {
    Number number = 0;
    for (std::size_t index = sizeof(Number); index > 0; --index) {
        number = static_cast<Number>(number << 8U | static_cast<unsigned char>(bytes[offset + index - 1]));
    }
    return number;
}

inline constexpr std::uint32_t checksumStart = 0xf597a6cf;
/// LVM's CRC-32: the usual polynomial with an initial value of its own, and not inverted at the end. To
/// checksum data in two parts, pass the first part's checksum as `start` of the second.
std::uint32_t checksum(std::string_view bytes, std::uint32_t start = checksumStart);

} // namespace tolvubd::lvm
