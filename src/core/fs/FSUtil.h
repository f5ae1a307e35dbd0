#pragma once

#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstddef>
#include <cstdint>

namespace agent::core::fs {

/// Reads any range of bytes from a device that is open for direct I/O, which accepts aligned ranges only. A
/// range past the device's end succeeds with fewer bytes, as `bytesRead` says.
/// Owns:    nothing.
/// Threads: one at a time for each reader, whose position the functions move.
/// Fails:   by return value; a failed read is logged, except by `readFully`.
class FSUtil {
public:
    /// Returns 0, or -1 if the device can't be read. `alignment` is the device's sector size, 0 if it isn't
    /// known. Throws std::bad_alloc, so check a length that comes from the volume first.
    static int readChunk(info::Logger& logger, IVolumeReader& reader, std::size_t alignment,
                         std::uint64_t offset, void* buffer, std::size_t length, std::size_t& bytesRead);

    /// Like readChunk, but returns true only if the whole range was read. (The `bytesRead` of readChunk
    /// doesn't show that if the device ends within an unaligned range.) `length` must be small enough for one
    /// read. Doesn't copy if buffer, offset and length are aligned.
    static bool readExactly(info::Logger& logger, IVolumeReader& reader, std::size_t alignment,
                            std::uint64_t offset, void* buffer, std::size_t length);

    /// Like readExactly, but returns the number of bytes read; -1 if the device can't be read.
    static std::int64_t readAvailable(info::Logger& logger, IVolumeReader& reader, std::size_t alignment,
                                      std::uint64_t offset, void* buffer, std::size_t length);

    /// Reads from the reader's position on, at most 4 MiB per call. Returns 0, or -1 at the first failure,
    /// and adds the number of bytes read to `bytesRead`. After a short read, the missing part of the buffer
    /// is left unchanged.
    static int readFully(IVolumeReader& reader, void* buffer, std::size_t length, std::size_t& bytesRead);
};

} // namespace agent::core::fs
