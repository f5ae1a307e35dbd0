#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace restore::view {

/// Something that libblkid recognises at one place of a device. A text is empty if there is none.
struct ProbeResult {
    std::uint64_t offset = 0; ///< bytes
    std::uint64_t bytes = 0;
    std::string kind; ///< as blkid names it: a file system, or a part of something else
    std::string label;
    std::string uuid;
};

/// The state in which the file system was left.
enum class CleanState { unknown, clean, needsReplay, dirty };

/// A file system, according to its own tools.
struct FileSystemFacts {
    std::vector<std::string> features;
    std::optional<std::time_t> mounted; ///< last time
    std::optional<std::time_t> written;
    CleanState cleanState = CleanState::unknown;
    std::string note; ///< why some facts are missing; empty if none are
};

/// The content that begins at the device's first byte. Throws std::runtime_error if the device can't be read.
ProbeResult findWhole(const std::string& device);
/// The entries of the partition table; nothing if there is none. Throws std::runtime_error if it can't be
/// read.
std::vector<ProbeResult> findPartitions(const std::string& device);
/// The facts about a file system that fills the device. If a tool is missing or fails, the note says so.
FileSystemFacts factsOf(const std::string& device, const std::string& kind);

} // namespace restore::view
