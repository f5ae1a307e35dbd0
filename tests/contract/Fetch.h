#pragma once

#include "ElementMap.h"
#include "core/fs/IBlockBitmapChunkProvider.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace agent::contract {

/// The result of one call of a provider, together with the map that it should have provided.
class Fetch {
public:
    /// Calls the provider. The map must outlive this object.
    Fetch(core::fs::IBlockBitmapChunkProvider& provider, const ElementMap& map, std::uint64_t startBlock,
          std::size_t bytes);

    /// Whether the call returned at least one element of the map, or failed, or returned nothing at its end.
    /// Elements past the end of the map must be reported as used.
    [[nodiscard]] testing::AssertionResult isValid() const;
    /// Whether the call returned the whole rest of the map from its start.
    [[nodiscard]] testing::AssertionResult isTheRest() const;

    std::int64_t count; ///< as the provider returned it; -1 if it threw

private:
    [[nodiscard]] std::uint64_t elementsLeft() const;
    [[nodiscard]] bool equalsTheMap(std::uint64_t elements) const;
    [[nodiscard]] bool isUsedFrom(std::uint64_t element) const;
    [[nodiscard]] testing::AssertionResult isWrong(const std::string& what) const;

    const ElementMap& map;
    std::uint64_t startBlock;
    std::vector<std::uint8_t> buffer; // bit order as in the map
    bool staysInside;
};

} // namespace agent::contract
