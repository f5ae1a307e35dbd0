#pragma once

#include "tools/usedmap/UsedRanges.h"

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>

namespace usedmap {

/// What is to be printed of a volume.
struct Report {
    std::string device;
    std::uint64_t deviceBytes = 0;
    double seconds = 0; ///< that the map took
    UsedRanges used;    ///< without the files of the snapshot driver, if those could be told
    std::optional<std::uint64_t> driverFileBytes; ///< that were left out; nothing if they count as used
};

/// One range a line: first block, and number of blocks.
void printRanges(std::ostream& out, const Report& report);
/// A few lines for people.
void printSummary(std::ostream& out, const Report& report);
/// An object in one line; its member "ranges" only if asked for.
void printJson(std::ostream& out, const Report& report, bool withRanges);

} // namespace usedmap
