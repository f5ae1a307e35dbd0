#pragma once

#include "core/block/FileExtents.h"
#include "core/block/IBlockRangeProvider.h"
#include "core/block/RangeIterator.h"
#include "info/log/Logger.h"

#include <cstddef>
#include <string>
#include <vector>

namespace agent::core::block {

/// The blocks of one file of the volume, at the time when the object is constructed.
/// Owns:    the ranges.
/// Threads: one at a time.
/// Fails:   if the file's blocks can't be determined, logs a warning and excludes nothing.
class FileBlockRangeExcluder : public IBlockRangeProvider {
public:
    class iterator;

    FileBlockRangeExcluder(info::Logger& logger, std::uint32_t blockSize, std::string path,
                           const ExtentQuery& query = queryExtents);

    [[nodiscard]] BlockRangeIterator begin() const override;
    [[nodiscard]] BlockRangeIterator end() const override;
    [[nodiscard]] std::uint64_t size() const override;
    [[nodiscard]] std::string name() const override;

private:
    std::uint32_t blockSize;
    std::string path;
    std::vector<BlockRange> ranges; // ascending
};

class FileBlockRangeExcluder::iterator
    : public RangeIterator<FileBlockRangeExcluder::iterator, FileBlockRangeExcluder> {
public:
    iterator(const FileBlockRangeExcluder& excluder, std::size_t position)
        : RangeIterator(excluder), position(position) {}

    bool operator==(const iterator& other) const {
        return provider == other.provider && position == other.position;
    }

private:
    friend RangeIterator;

    [[nodiscard]] bool isAtEnd() const { return position >= provider->ranges.size(); }
    [[nodiscard]] const BlockRange& currentRange() const { return provider->ranges[position]; }
    void advance() { position += isAtEnd() ? 0 : 1; }

    std::size_t position;
};

} // namespace agent::core::block
