#pragma once

#include "Extents.h"
#include "Table.h"
#include "dm/Mapper.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// The tables of a tracking's devices, and the status of their targets.
namespace tolvubd {

/// In sectors, so 4096 bytes: the unit in which a snapshot preserves blocks. An era block can't be smaller
/// either.
inline constexpr std::uint64_t snapshotChunk = 8;

/// The name of a device in tables and in the kernel: MAJOR:MINOR.
std::string nameOf(const dm::Device& device);
std::uint64_t bytesIn(const std::vector<Extent>& extents);
/// The linear table that maps a part of a file, which is at `places` on `device`. Throws EINVAL when the file
/// ends before the part does.
dm::Targets piecesOn(const dm::Device& device, const std::vector<Extent>& places, std::uint64_t skip,
                     std::uint64_t length);
/// The era target of a tracking.
dm::Targets eraOn(const dm::Device& meta, const dm::Device& mid, const Layers& layers, std::uint64_t size);

/// The era in an era target's status. Throws EIO when the target has failed.
std::uint32_t eraIn(const dm::Targets& status);
/// Whether the metadata of an era target is nearly full. When it is full, the target fails the programs'
/// writes.
bool isEraNearlyFull(const dm::Targets& status);
/// How many bytes of a snapshot's store are used, and how many there are in all.
struct StoreRoom {
    std::uint64_t used = 0;
    std::uint64_t size = 0;
};
/// None when the snapshot isn't valid any more.
std::optional<StoreRoom> roomIn(const dm::Targets& status);

} // namespace tolvubd
