#pragma once

#include "Extents.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tolvubd {

/// A capture, and where the files lay in it that nobody copies.
struct Moment {
    std::string capture;
    std::vector<Extent> own;
};

/// The units of a volume that count as changed whatever they held, one flag each: those with blocks that have
/// come into use. Who copied what was in use before hasn't got them, and they may well hold what lay there
/// all the time: a file of zeros where nothing was ever written, or one that was removed and restored.
///
/// Of the own files only `closed` doesn't count; the others were written meanwhile. All units count where
/// nobody knows what is in use.
std::vector<bool> findFreshUnits(const Moment& before, const Moment& after, const std::vector<Extent>& closed,
                                 std::uint64_t size);

} // namespace tolvubd
