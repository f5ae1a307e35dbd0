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

/// Told of how many bytes of all have been compared.
using CompareProgress = std::function<void(std::uint64_t bytes, std::uint64_t all)>;

/// How far a comparison has come.
struct Comparison {
    std::uint64_t compared = 0;              ///< bytes that are equal
    std::optional<std::uint64_t> difference; ///< the first byte that isn't, which is the end of it
    std::string unreadable;                  ///< why the image couldn't be read, which is the end of it too
};

/// Compares the blocks that are in use, but for what is in `leftOut`, which ascends. Throws
/// std::runtime_error if the snapshot can't be read.
Comparison compareBlocks(IImage& image, IImage& snapshot, const RestorePlan& plan,
                         const std::vector<ByteRange>& leftOut, const CompareProgress& progress);

} // namespace restore::check
