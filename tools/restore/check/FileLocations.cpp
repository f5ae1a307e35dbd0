#include "FileLocations.h"

#include "core/block/FileExtents.h"
#include "os/FileDescriptor.h"
#include "tools/restore/view/Entry.h"

#include <algorithm>
#include <fcntl.h>
#include <stdexcept>

namespace restore::check {

namespace {

constexpr std::uint32_t unit = 512; // no file system has smaller blocks
constexpr int deepest = 200;        // levels of directories that are searched

/// Returns nothing for a file without blocks of its own, or if the file system doesn't report extents.
std::vector<ByteRange> locationsOf(agent::info::Logger& logger, int directory, const std::string& name) {
    std::vector<ByteRange> locations;
    try {
        const std::string path = "/proc/self/fd/" + std::to_string(directory) + "/" + name;
        for (const agent::BlockRange& range : agent::core::block::getFileExtents(logger, unit, path)) {
            locations.push_back({range.start * unit, range.length * unit});
        }
    } catch (const std::exception& error) {
        logger.log(agent::info::level::debug, "%s", error.what());
    }
    return locations;
}

// NOLINTNEXTLINE(misc-no-recursion): bounded by `deepest`
std::string ownerBelow(agent::info::Logger& logger, int directory, std::uint64_t byte, int depth) {
    for (const view::Entry& entry : view::entriesOf(directory)) {
        if (S_ISREG(entry.status.st_mode)) {
            const std::vector<ByteRange> locations = locationsOf(logger, directory, entry.name);
            if (std::ranges::any_of(locations, [&](const ByteRange& each) {
                    return each.begin <= byte && byte < each.end();
                })) {
                return "/" + entry.name;
            }
        } else if (S_ISDIR(entry.status.st_mode) && depth < deepest) {
            const os::FileDescriptor below(
                ::openat(directory, entry.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            const std::string found = below ? ownerBelow(logger, below.get(), byte, depth + 1) : "";
            if (!found.empty()) {
                return "/" + entry.name + found;
            }
        }
    }
    return "";
}

} // namespace

std::vector<ByteRange> locationsOfDriverFiles(agent::info::Logger& logger, int root) {
    std::vector<ByteRange> all;
    for (const view::Entry& entry : view::entriesOf(root)) {
        if (view::isDriverFile(entry.name) && S_ISREG(entry.status.st_mode)) {
            const std::vector<ByteRange> locations = locationsOf(logger, root, entry.name);
            all.insert(all.end(), locations.begin(), locations.end());
        }
    }
    std::ranges::sort(all, {}, &ByteRange::begin);
    return all;
}

std::string ownerOf(agent::info::Logger& logger, int root, std::uint64_t byte) {
    try {
        return ownerBelow(logger, root, byte, 0);
    } catch (const std::runtime_error&) {
        return ""; // a directory can't be read
    }
}

} // namespace restore::check
