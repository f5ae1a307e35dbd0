#pragma once

#include "Interrupt.h"
#include "tools/restore/IImage.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace audit {

/// The connections of one thread: one to the snapshot and one to the image. Several threads compare in
/// parallel, each with its own pair.
struct ReaderPair {
    std::unique_ptr<restore::IImage> snapshot;
    std::unique_ptr<restore::IImage> image;
};

/// Returns the pages of 4096 bytes that differ, ascending; `pages` must ascend. Pages are read in order, and
/// neighbouring ones in one read. `progress` gets the number of pages done; its calls never overlap. Throws
/// what the reads and `interrupt` throw.
std::vector<std::uint64_t> findDiffering(const std::vector<ReaderPair>& readers,
                                         const std::vector<std::uint64_t>& pages, const Interrupt& interrupt,
                                         const std::function<void(std::uint64_t done)>& progress);

} // namespace audit
