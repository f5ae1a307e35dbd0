#pragma once

#include <cstddef>
#include <cstdint>

namespace agent::core {

/// A volume's bytes behind a file position, as the file-system parsers need them.
/// Owns:    the descriptor, if it is open.
/// Threads: one at a time; the position is shared by everybody who reads.
/// Fails:   by return value, after a log line.
class IVolumeReader {
public:
    IVolumeReader() = default;
    IVolumeReader(const IVolumeReader&) = delete;
    IVolumeReader& operator=(const IVolumeReader&) = delete;
    IVolumeReader(IVolumeReader&&) = delete;
    IVolumeReader& operator=(IVolumeReader&&) = delete;
    virtual ~IVolumeReader() = default;

    /// Reads at the position, at most `length` bytes in one call to the system; returns the count, which is
    /// less at the end of the device, or -1.
    virtual std::int64_t read(void* buffer, std::size_t length) = 0;
    /// Moves the position by the rules of lseek(2); returns the new one in bytes, or -1.
    virtual std::int64_t seek(std::int64_t offset, int whence) = 0;
};

} // namespace agent::core
