#pragma once

#include "Findings.h"
#include "tools/restore/IImage.h"
#include "tools/restore/RestorePlan.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace restore::check {

/// Called with the bytes compared so far, and the total.
using CompareProgress = std::function<void(std::uint64_t bytes, std::uint64_t all)>;

/// The result of a comparison.
struct Comparison {
    std::uint64_t compared = 0;              ///< bytes that are equal
    std::optional<std::uint64_t> difference; ///< the first byte that differs, where the comparison ends
    std::string unreadable;                  ///< why the image couldn't be read, which ends it too
};

/// Compares the used blocks, except for the ranges in `excluded`, which ascend. Throws std::runtime_error if
/// the snapshot can't be read.
Comparison compareBlocks(IImage& image, IImage& snapshot, const RestorePlan& plan,
                         const std::vector<ByteRange>& excluded, const CompareProgress& progress);

} // namespace restore::check
