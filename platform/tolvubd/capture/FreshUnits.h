#pragma once

#include "Extents.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tolvubd {

/// The path of a capture, and the extents in it of the files that no backup copies.
struct CaptureInfo {
    std::string path;
    std::vector<Extent> ownFileExtents;
};

/// Finds the units of a volume that count as changed even if their content is the same, one flag each: those
/// with blocks that have come into use. A backup that copied only the blocks that were in use before doesn't
/// have them, and they may still have their old content: a file of zeros where nothing was ever written, or a
/// file that was removed and restored.
///
/// The blocks of the driver's own files count as well, because those files were written in between; only the
/// blocks of `closed` don't. All units count if it isn't known which blocks are in use.
std::vector<bool> findFreshUnits(const CaptureInfo& before, const CaptureInfo& after,
                                 const std::vector<Extent>& closed, std::uint64_t size);

} // namespace tolvubd
