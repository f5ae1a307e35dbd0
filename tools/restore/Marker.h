#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace restore {

/// A marker at the beginning of a device while an image is being restored to it, so that a half restored
/// volume is never taken for a file system, and the restore can be resumed. Little-endian numbers, in a page
/// of 4096 bytes:
///     0   8  "BEKREST1"
///     8   8  sequence number, one more each time
///     16  8  position: everything before it is on the disk
///     24  8  bytes of the volume
///     32  4  identity of the image, see RestorePlan
///     36  4  CRC-32C of the 36 bytes before
/// Pages 0 and 1 are written in turn, as a power cut may leave one of them half written.
struct Marker {
    std::uint64_t sequence = 0;
    std::uint64_t position = 0;
    std::uint64_t volumeBytes = 0;
    std::uint32_t identity = 0;

    static constexpr std::size_t pageBytes = 4096;
    static constexpr std::size_t areaBytes = 2 * pageBytes;

    /// The offset of the page that this marker is written to.
    [[nodiscard]] std::uint64_t place() const { return sequence % 2 * pageBytes; }
    [[nodiscard]] std::array<std::byte, pageBytes> bytes() const;
    /// Returns the newer of the two markers; nothing if there is none.
    static std::optional<Marker> find(std::span<const std::byte, areaBytes> area);
};

} // namespace restore
