#pragma once

#include "Extents.h"
#include "Table.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tolvubd {

/// Which units of 4096 bytes of a volume have changed, one flag each. `written` has one flag for each era
/// block; `fresh` counts as changed even if it wasn't written.
std::vector<bool> changedUnits(const std::vector<bool>& written, std::uint32_t blockSectors,
                               const std::vector<Extent>& fresh, std::uint64_t volumeSize);

/// Writes the flags as the table of a CoW file, and then their count. Fails as CowTable does.
void writeRecord(const std::string& cowFile, const std::string& snapshot, const std::vector<bool>& changed,
                 std::uint64_t volumeSize);

} // namespace tolvubd
