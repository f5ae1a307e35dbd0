#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tolvubd {

/// A range of bytes of a volume.
struct Extent {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;

    [[nodiscard]] std::uint64_t end() const { return offset + length; }
    bool operator==(const Extent&) const = default;
};

/// The extents of a file on its volume; its dirty pages are written first. None when the file system doesn't
/// report the location of the whole file.
std::optional<std::vector<Extent>> extentsOf(const std::string& path);

/// The extents of all files in the root directory whose names begin with ".tolvu": the driver's own files,
/// and those that its callers keep beside them. No caller copies these files from a snapshot. Returns the
/// whole volume if the location of one of them isn't known.
std::vector<Extent> extentsOfOwnFiles(const std::string& mountPoint, std::uint64_t volumeSize);

} // namespace tolvubd
