#pragma once

#include "core/block/FileExtents.h"
#include "core/block/IBlockRangeProvider.h"
#include "info/log/Logger.h"

#include <cstddef>
#include <iterator>
#include <string>
#include <vector>

namespace agent::core::block {

/// The blocks of one file of the volume, as they are when the object is made.
/// Owns:    the ranges.
/// Threads: one at a time.
/// Fails:   a file whose blocks can't be found excludes nothing, after a warning.
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

class FileBlockRangeExcluder::iterator {
public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = const BlockRange;
    using difference_type = std::ptrdiff_t;
    using pointer = const BlockRange*;
    using reference = const BlockRange&;

    iterator(const FileBlockRangeExcluder& excluder, std::size_t position)
        : excluder(&excluder), position(position) {}

    const BlockRange& operator*() const;
    iterator& operator++();
    iterator operator++(int);
    bool operator==(const iterator& other) const = default;

private:
    const FileBlockRangeExcluder* excluder;
    std::size_t position;
};

} // namespace agent::core::block
