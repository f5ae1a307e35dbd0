#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace restore::view {

/// What is found at one place of a device, by its own words. Empty texts for what there isn't, or isn't said.
struct Found {
    std::uint64_t offset = 0; ///< bytes
    std::uint64_t bytes = 0;
    std::string kind; ///< as blkid names it: a file system, or a part of something else
    std::string label;
    std::string uuid;
};

/// Whether the file system was left in order.
enum class Order { unknown, clean, needsReplay, dirty };

/// What the tools of the file system say of it.
struct FileSystemFacts {
    std::vector<std::string> features;
    std::optional<std::time_t> mounted; ///< for the last time
    std::optional<std::time_t> written;
    Order order = Order::unknown;
    std::string note; ///< why less is known than could be; empty if it isn't
};

/// What begins at the device's first byte. Throws std::runtime_error if it can't be read.
Found findWhole(const std::string& device);
/// What its table of partitions has; nothing without one. Throws std::runtime_error if it can't be read.
std::vector<Found> findPartitions(const std::string& device);
/// Of the file system of a whole device. A tool that is missing, or finds fault, is told of in the note.
FileSystemFacts factsOf(const std::string& device, const std::string& kind);

} // namespace restore::view
