#pragma once

#include "core/block/IBlockRangeProvider.h"
#include "tools/restore/RestorePlan.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace audit {

/// Why a backup doesn't send a block.
enum class Stratum { unused, unchanged };
inline constexpr std::array strata{Stratum::unused, Stratum::unchanged};
inline constexpr std::size_t strataCount = strata.size();

constexpr std::size_t indexOf(Stratum stratum) {
    return static_cast<std::size_t>(stratum);
}

/// What an INCREMENTAL would leave out of a volume, as the agent's own layers tell it.
/// Owns:    the layers, which are walked anew by each call.
/// Threads: one at a time.
/// Fails:   as the layers do, by std::exception.
class Strata {
public:
    using Layer = std::unique_ptr<agent::core::block::IBlockRangeProvider>;
    /// Pages of 4096 bytes, each with the number of the first.
    using Counts = std::array<std::uint64_t, strataCount>;
    using Numbers = std::array<std::vector<std::uint64_t>, strataCount>;

    struct Layers {
        Layer unused;
        Layer unchanged;          ///< null if that isn't known
        std::vector<Layer> files; ///< the driver's own, which nobody compares
    };

    Strata(Layers layers, std::uint32_t blockSize, std::uint64_t blocks)
        : layers(std::move(layers)), blockSize(blockSize), blocks(blocks) {}

    /// How many whole pages there are of each.
    [[nodiscard]] Counts count() const;
    /// The places of pages on the volume, in pages, which were drawn by their numbers in their stratum; both
    /// ascend.
    [[nodiscard]] Numbers locate(const Numbers& drawn) const;

private:
    using Visit = std::function<void(Stratum stratum, std::uint64_t first, std::uint64_t pages)>;

    void walk(const Visit& visit) const;

    Layers layers;
    std::uint32_t blockSize;
    std::uint64_t blocks;
};

} // namespace audit
