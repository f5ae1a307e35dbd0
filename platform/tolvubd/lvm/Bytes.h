#pragma once

#include "os/FileDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// What the parts of LVM's format have in common.
namespace tolvubd::lvm {

inline constexpr std::size_t sectorSize = 512;

/// LVM's metadata is not what was expected: throws std::system_error, EBADMSG.
[[noreturn]] void failOn(const std::string& what);

/// Bytes of a device or an image, which may be open for direct I/O. Fails with EBADMSG when it ends before
/// them.
std::string readBytes(const os::FileDescriptor& file, std::uint64_t offset, std::size_t length);

/// A number whose lowest byte comes first. The bytes must be there.
template <typename Number>
Number littleEndian(std::string_view bytes, std::size_t offset) {
    Number number = 0;
    for (std::size_t index = sizeof(Number); index > 0; --index) {
        number = static_cast<Number>(number << 8U | static_cast<unsigned char>(bytes[offset + index - 1]));
    }
    return number;
}

inline constexpr std::uint32_t checksumStart = 0xf597a6cf;
/// LVM's CRC-32: the usual polynomial with a start of its own, and not inverted at the end. Of bytes in two
/// parts it is that of the second one, begun with that of the first.
std::uint32_t checksum(std::string_view bytes, std::uint32_t start = checksumStart);

} // namespace tolvubd::lvm
