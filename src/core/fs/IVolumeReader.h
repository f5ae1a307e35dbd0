#pragma once

#include <cstddef>
#include <cstdint>

namespace agent::core {

/// Reads a volume's bytes at a file position, as the file-system parsers need.
/// Owns:    the file descriptor, if it is open.
/// Threads: one at a time; all users of the object share its position.
/// Fails:   by return value, after a log line.
class IVolumeReader {
public:
    IVolumeReader() = default;
    IVolumeReader(const IVolumeReader&) = delete;
    IVolumeReader& operator=(const IVolumeReader&) = delete;
    IVolumeReader(IVolumeReader&&) = delete;
    IVolumeReader& operator=(IVolumeReader&&) = delete;
    virtual ~IVolumeReader() = default;

    /// Reads at most `length` bytes at the position in one system call. Returns the number of bytes, which is
    /// smaller at the end of the device, or -1.
    virtual std::int64_t read(void* buffer, std::size_t length) = 0;
    /// Moves the position like lseek(2); returns the new position in bytes, or -1.
    virtual std::int64_t seek(std::int64_t offset, int whence) = 0;
};

} // namespace agent::core
