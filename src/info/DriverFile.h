#pragma once

#include "os/FileDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace agent::info {

/// One of the files that the driver and the agent keep in the root directory of a volume. Any user may be
/// able to create files there (a volume mounted on /tmp), so opening follows no link and blocks on no pipe.
/// Owns:    the open file.
/// Threads: one thread at a time.
/// Fails:   the functions return false, or no length, and set `errno`: to ENODATA if the file ends too early.
///          If the constructor can't open the file, the object converts to false, and `errno` has the reason.
class DriverFile {
public:
    enum class Access {
        read,
        update,  ///< reads and writes an existing file
        replace, ///< truncates the file, or creates it readable by root only
    };

    DriverFile(std::string path, Access access);

    [[nodiscard]] const std::string& path() const noexcept { return location; }
    explicit operator bool() const noexcept { return static_cast<bool>(descriptor); }

    [[nodiscard]] bool seek(std::uint64_t position);
    /// Returns the file's length.
    [[nodiscard]] std::optional<std::uint64_t> seekToEnd();
    /// Fills all of `buffer`.
    [[nodiscard]] bool read(std::span<std::byte> buffer);
    [[nodiscard]] bool write(std::span<const std::byte> buffer);
    /// Reserves space, which reads as zeros until it is written. Not every file system supports this.
    [[nodiscard]] bool reserve(std::uint64_t position, std::uint64_t length);
    /// Whether the whole range is in a hole, and so is known to be zeros. Moves the file offset.
    [[nodiscard]] bool isHole(std::uint64_t position, std::uint64_t length);
    /// Returns when the content is on the disk.
    [[nodiscard]] bool sync();

private:
    std::string location;
    os::FileDescriptor descriptor;
};

} // namespace agent::info
