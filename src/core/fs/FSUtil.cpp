#include "core/fs/FSUtil.h"

#include "core/fs/LoggedBuffer.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <memory>
#include <utility>

namespace agent::core::fs {

namespace {

constexpr std::size_t maxReadBytes = 0x400000;
constexpr std::size_t pageSize = 4096;

/// If the device's sector size isn't known, reads are aligned to pages, which works for every device.
std::size_t alignmentOrPage(std::size_t alignment) {
    return alignment == 0 ? pageSize : alignment;
}

/// The aligned range around the requested one; `alignment` isn't 0.
struct AlignedRange {
    AlignedRange(std::size_t alignment, std::uint64_t offset, std::size_t length)
        : first(offset / alignment * alignment),
          skip(static_cast<std::size_t>(offset % alignment)),
          length(((skip + length - 1) / alignment + 1) * alignment) {}

    std::uint64_t first;
    std::size_t skip; ///< bytes from `first` to the requested range
    std::size_t length;
};

/// Fills `buffer` with the range, up to the device's end. Returns 0, or -1.
int readRange(info::Logger& logger, IVolumeReader& reader, const AlignedRange& range, void* buffer,
              std::size_t& arrived) {
    const auto first = static_cast<std::int64_t>(range.first);
    if (reader.seek(first, SEEK_SET) == -1) {
        return -1;
    }
    if (FSUtil::readFully(reader, buffer, range.length, arrived) != 0) {
        logger.log(info::level::debug, "CHUNK READ FILE FAILED: OFFSET: %ld - %lu BYTES", first,
                   range.length);
        return -1;
    }
    return 0;
}

/// Whether the device can read directly into the buffer.
bool canReadDirectly(const AlignedRange& range, std::size_t alignment, std::size_t length, void* buffer) {
    void* aligned = buffer;
    std::size_t space = length;
    return range.skip == 0 && range.length == length && std::has_single_bit(alignment) &&
           std::align(alignment, length, aligned, space) == buffer;
}

} // namespace

int FSUtil::readChunk(info::Logger& logger, IVolumeReader& reader, std::size_t alignment,
                      std::uint64_t offset, void* buffer, std::size_t length, std::size_t& bytesRead) {
    alignment = alignmentOrPage(alignment);
    const AlignedRange range(alignment, offset, length);
    bytesRead = 0;
    AlignedBuffer aligned = createLoggedBuffer(range.length, alignment, logger);
    std::size_t arrived = 0;
    if (readRange(logger, reader, range, aligned.data(), arrived) != 0) {
        return -1;
    }
    bytesRead = std::min(arrived, length);
    std::copy_n(aligned.data() + range.skip, bytesRead, static_cast<std::byte*>(buffer));
    return 0;
}

bool FSUtil::readExactly(info::Logger& logger, IVolumeReader& reader, std::size_t alignment,
                         std::uint64_t offset, void* buffer, std::size_t length) {
    return std::cmp_equal(readAvailable(logger, reader, alignment, offset, buffer, length), length);
}

std::int64_t FSUtil::readAvailable(info::Logger& logger, IVolumeReader& reader, std::size_t alignment,
                                   std::uint64_t offset, void* buffer, std::size_t length) {
    alignment = alignmentOrPage(alignment);
    const AlignedRange range(alignment, offset, length);
    std::size_t arrived = 0;
    if (canReadDirectly(range, alignment, length, buffer)) {
        const bool isRead = readRange(logger, reader, range, buffer, arrived) == 0;
        return isRead ? static_cast<std::int64_t>(arrived) : -1;
    }
    AlignedBuffer aligned = createLoggedBuffer(range.length, alignment, logger);
    if (readRange(logger, reader, range, aligned.data(), arrived) != 0) {
        return -1;
    }
    const std::size_t count = std::min(arrived - std::min(arrived, range.skip), length);
    std::copy_n(aligned.data() + range.skip, count, static_cast<std::byte*>(buffer));
    return static_cast<std::int64_t>(count);
}

int FSUtil::readFully(IVolumeReader& reader, void* buffer, std::size_t length, std::size_t& bytesRead) {
    auto* position = static_cast<std::byte*>(buffer);
    while (length > 0) {
        const std::size_t part = std::min(length, maxReadBytes);
        const std::int64_t count = reader.read(position, part);
        if (count < 0) {
            return -1;
        }
        bytesRead += static_cast<std::size_t>(count);
        position += part;
        length -= part;
    }
    return 0;
}

} // namespace agent::core::fs
