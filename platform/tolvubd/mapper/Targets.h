#pragma once

#include "Extents.h"
#include "Table.h"
#include "dm/Mapper.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// The tables of a tracking's devices, and what their targets say of themselves.
namespace tolvubd {

/// 4096 bytes: what a snapshot preserves at once, as an era block can't be smaller either.
inline constexpr std::uint64_t snapshotChunk = 8;

/// How tables and the kernel name a device: MAJOR:MINOR.
std::string nameOf(const dm::Device& device);
std::uint64_t bytesIn(const std::vector<Extent>& extents);
/// A device that is that part of a file, by where the file lies on `device`. EINVAL where it isn't all there.
dm::Targets piecesOn(const dm::Device& device, const std::vector<Extent>& places, std::uint64_t skip,
                     std::uint64_t length);
/// The era target of a tracking.
dm::Targets eraOn(const dm::Device& meta, const dm::Device& mid, const Layers& layers, std::uint64_t size);

/// The number of the era in an era target's status. EIO when it says that it has failed.
std::uint32_t eraIn(const dm::Targets& status);
/// Whether the metadata of an era target is nearly full. When it is, it fails the writes of programs.
bool isEraNearlyFull(const dm::Targets& status);
/// Bytes that a snapshot has used of its store, and that there are; none when it isn't valid any more.
struct StoreRoom {
    std::uint64_t used = 0;
    std::uint64_t size = 0;
};
std::optional<StoreRoom> roomIn(const dm::Targets& status);

} // namespace tolvubd
