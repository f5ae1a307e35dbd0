#pragma once

#include "ElementMap.h"
#include "core/fs/IBlockBitmapChunkProvider.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace agent::contract {

/// What comes of asking a provider once, beside the map that it should have.
class Fetch {
public:
    /// The map must outlive it.
    Fetch(core::fs::IBlockBitmapChunkProvider& provider, const ElementMap& map, std::uint64_t startBlock,
          std::size_t bytes);

    /// Whether it is a piece of the map, of one element at least, or a failure; at the end it may be nothing.
    /// What it tells of behind the end of the map is used.
    [[nodiscard]] testing::AssertionResult isHonest() const;
    /// Whether it is as much of the map as there is from its start on.
    [[nodiscard]] testing::AssertionResult isTheRest() const;

    std::int64_t count; ///< as the provider says

private:
    [[nodiscard]] std::uint64_t elementsLeft() const;
    [[nodiscard]] bool equalsTheMap(std::uint64_t elements) const;
    [[nodiscard]] bool isUsedFrom(std::uint64_t element) const;
    [[nodiscard]] testing::AssertionResult isWrong(const std::string& what) const;

    const ElementMap& map;
    std::uint64_t startBlock;
    std::vector<std::uint8_t> buffer; // its bits in the order of the map's
    bool staysInside;
};

} // namespace agent::contract
