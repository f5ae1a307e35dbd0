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

/// The blocks of a volume that an INCREMENTAL would leave out, according to the agent's own layers.
/// Owns:    the layers; each call walks them from the beginning.
/// Threads: one at a time.
/// Fails:   throws what the layers throw, which is std::exception.
class Strata {
public:
    using Layer = std::unique_ptr<agent::core::block::IBlockRangeProvider>;
    /// Page counts and page numbers of each stratum. A page has 4096 bytes.
    using Counts = std::array<std::uint64_t, strataCount>;
    using Numbers = std::array<std::vector<std::uint64_t>, strataCount>;

    struct Layers {
        Layer unused;
        Layer unchanged;          ///< null if the changes aren't known
        std::vector<Layer> files; ///< the snapshot driver's own files, which are never compared
    };

    Strata(Layers layers, std::uint32_t blockSize, std::uint64_t blocks)
        : layers(std::move(layers)), blockSize(blockSize), blocks(blocks) {}

    /// The number of whole pages in each stratum.
    [[nodiscard]] Counts count() const;
    /// Translates page numbers within each stratum to page numbers on the volume; both ascend.
    [[nodiscard]] Numbers locate(const Numbers& drawn) const;

private:
    using Visit = std::function<void(Stratum stratum, std::uint64_t first, std::uint64_t pages)>;

    void walk(const Visit& visit) const;

    Layers layers;
    std::uint32_t blockSize;
    std::uint64_t blocks;
};

} // namespace audit
