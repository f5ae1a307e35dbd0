#pragma once

#include "tools/usedmap/UsedRanges.h"

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>

namespace usedmap {

/// The report about a volume.
struct Report {
    std::string device;
    std::uint64_t deviceBytes = 0;
    double seconds = 0; ///< to read the map
    UsedRanges used;    ///< without the snapshot driver's files, if their places are known
    std::optional<std::uint64_t> driverFileBytes; ///< left out; not set if they count as used
};

/// One range per line: first block, and number of blocks.
void printRanges(std::ostream& out, const Report& report);
/// A summary of a few lines.
void printSummary(std::ostream& out, const Report& report);
/// One JSON object in one line; it has the member "ranges" only if `withRanges` is set.
void printJson(std::ostream& out, const Report& report, bool withRanges);

} // namespace usedmap
