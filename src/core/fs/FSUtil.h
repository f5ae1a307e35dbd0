#pragma once

#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstddef>
#include <cstdint>

namespace agent::core::fs {

/// Reads any range of bytes from a device that is opened for direct I/O, which takes aligned ranges only.
/// A range that reaches beyond the device's end is a success that delivers less; `bytesRead` tells.
class FSUtil {
public:
    /// Returns 0, or -1 if the device can't be read. `alignment` is the device's, 0 if it isn't
    /// known. Throws std::bad_alloc: bound a length that comes from the volume first.
    static int readChunk(info::Logger& logger, IVolumeReader& reader, std::size_t alignment,
                         std::uint64_t offset, void* buffer, std::size_t length, std::size_t& bytesRead);

    /// As readChunk, but true only if all of the range has arrived, which `bytesRead` can't tell where the
    /// device ends within an unaligned range. For lengths that one call to the reader can deliver; without a
    /// copy where buffer, offset and length are aligned.
    static bool readExactly(info::Logger& logger, IVolumeReader& reader, std::size_t alignment,
                            std::uint64_t offset, void* buffer, std::size_t length);

    /// As readExactly, but tells how many bytes of the range have arrived; -1 if the device can't be read.
    static std::int64_t readAvailable(info::Logger& logger, IVolumeReader& reader, std::size_t alignment,
                                      std::uint64_t offset, void* buffer, std::size_t length);

    /// Reads from the reader's position on, at most 4 MiB in one call. Returns 0, or -1 at the first failure,
    /// and adds what has arrived to `bytesRead`. What a short read has left out stays as it was.
    static int readFully(IVolumeReader& reader, void* buffer, std::size_t length, std::size_t& bytesRead);
};

} // namespace agent::core::fs
