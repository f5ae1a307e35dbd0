#pragma once

#include "Extents.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tolvubd {

/// The path of a capture, and where the files that no backup copies lie in it.
struct CaptureInfo {
    std::string path;
    std::vector<Extent> ownFileExtents;
};

/// Finds the units of a volume that count as changed even if their content is the same, one flag each: those
/// with blocks that have come into use. A backup that copied only the blocks in use before hasn't got them,
/// and they may still have their old content: a file of zeros where nothing was ever written, or a file that
/// was removed and restored.
///
/// The blocks of the own files count as well, as those files were written in between; only those of `closed`
/// don't. All units count if it isn't known which blocks are in use.
std::vector<bool> findFreshUnits(const CaptureInfo& before, const CaptureInfo& after,
                                 const std::vector<Extent>& closed, std::uint64_t size);

} // namespace tolvubd
