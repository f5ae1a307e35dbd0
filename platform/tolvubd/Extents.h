#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tolvubd {

/// A run of bytes of a volume.
struct Extent {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;

    [[nodiscard]] std::uint64_t end() const { return offset + length; }
    bool operator==(const Extent&) const = default;
};

/// Where a file lies on its volume, after what is still in memory of it has been written. None when its file
/// system doesn't say of all of it.
std::optional<std::vector<Extent>> extentsOf(const std::string& path);

/// Where the driver's files lie, and those that its callers keep beside them: all whose names begin with
/// ".tolvu". No caller copies them from a snapshot. All of the volume where it isn't known of one.
std::vector<Extent> extentsOfOwnFiles(const std::string& mountPoint, std::uint64_t volumeSize);

} // namespace tolvubd
