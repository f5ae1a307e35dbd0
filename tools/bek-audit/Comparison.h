#pragma once

#include "Interrupt.h"
#include "tools/restore/IImage.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace audit {

/// A connection to each of what is compared. Several of them are read at the same time.
struct Lane {
    std::unique_ptr<restore::IImage> snapshot;
    std::unique_ptr<restore::IImage> image;
};

/// Which pages of 4096 bytes differ; `pages` ascend, and so does what is returned. They are read in their
/// order, those that lie close together at once. `progress` is told how many are done, by one thread at a
/// time. Throws what reads and `interrupt` throw.
std::vector<std::uint64_t> findDiffering(const std::vector<Lane>& lanes,
                                         const std::vector<std::uint64_t>& pages, const Interrupt& interrupt,
                                         const std::function<void(std::uint64_t done)>& progress);

} // namespace audit
