#pragma once

#include "os/FileDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace agent::info {

/// One of the files that the driver and the agent keep at the root of a volume. Everybody may be able to put
/// something there (a volume mounted on /tmp): a link is not followed, and a pipe does not block.
/// Owns:    the open file.
/// Threads: one at a time.
/// Fails:   by false, with `errno` set. A file that ends too early is ENODATA.
class DriverFile {
public:
    enum class Access {
        read,
        update,  ///< reading and writing what is there
        replace, ///< writing from scratch; created, readable by root only, if missing
    };

    DriverFile(std::string path, Access access);

    [[nodiscard]] const std::string& path() const noexcept { return location; }
    explicit operator bool() const noexcept { return static_cast<bool>(descriptor); }

    [[nodiscard]] bool seek(std::uint64_t position);
    /// The file's length.
    [[nodiscard]] std::optional<std::uint64_t> seekToEnd();
    /// Fills all of `buffer`.
    [[nodiscard]] bool read(std::span<std::byte> buffer);
    [[nodiscard]] bool write(std::span<const std::byte> buffer);
    /// Sets space aside, which reads as zeros where nothing was written. Not every file system can.
    [[nodiscard]] bool reserve(std::uint64_t position, std::uint64_t length);
    /// Whether there are zeros from a position on that take no reading to know. Moves the file's position.
    [[nodiscard]] bool isHole(std::uint64_t position, std::uint64_t length);
    /// Returns when the content is on the disk.
    [[nodiscard]] bool sync();

private:
    std::string location;
    os::FileDescriptor descriptor;
};

} // namespace agent::info
