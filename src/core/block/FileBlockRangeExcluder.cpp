#include "core/block/FileBlockRangeExcluder.h"

#include <exception>
#include <optional>
#include <sys/stat.h>
#include <utility>

namespace agent::core::block {

namespace {

/// The file's size in bytes; nullopt if there is no file.
std::optional<std::uint64_t> sizeOf(const std::string& path) {
    struct stat status{};
    if (::lstat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return static_cast<std::uint64_t>(status.st_size);
}

} // namespace

FileBlockRangeExcluder::FileBlockRangeExcluder(info::Logger& logger, std::uint32_t blockSize,
                                               std::string path, const ExtentQuery& query)
    : blockSize(blockSize), path(std::move(path)) {
    try {
        if (sizeOf(this->path)) {
            ranges = getFileExtents(logger, blockSize, this->path, query);
        }
    } catch (const std::exception& error) {
        logger.log(info::level::warning, info::reason("driver-file-copied"),
                   "Failed to get extents of excluded file \"%s\", blocks will not be excluded. Error: %s",
                   this->path.c_str(), error.what());
    }
}

BlockRangeIterator FileBlockRangeExcluder::begin() const {
    return handleOf(iterator(*this, 0));
}

BlockRangeIterator FileBlockRangeExcluder::end() const {
    return handleOf(iterator(*this, ranges.size()));
}

std::uint64_t FileBlockRangeExcluder::size() const {
    const std::uint64_t bytes = sizeOf(path).value_or(0);
    return blockSize == 0 ? 0 : (bytes + blockSize - 1) / blockSize;
}

std::string FileBlockRangeExcluder::name() const {
    return "File Block Range Excluder (\"" + path + "\")";
}

} // namespace agent::core::block
