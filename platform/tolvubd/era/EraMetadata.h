#pragma once

#include "os/FileDescriptor.h"

#include <cstdint>
#include <vector>

namespace tolvubd {

/// The metadata of a device-mapper "era" target: for each block of a volume, the era in which it was last
/// written. The format is the kernel's (drivers/md/dm-era-target.c and drivers/md/persistent-data): blocks of
/// 4096 bytes, little endian, each with a CRC-32C of its own; a superblock, a tree of arrays that holds a
/// 32-bit era for each block, and a tree of bitsets with what eras not yet entered there have written.
///
/// Owns:    nothing; the descriptor must outlive it.
/// Threads: one at a time.
/// Fails:   std::system_error, with EBADMSG for whatever isn't sound: a checksum, a place outside the device,
///          a tree with a cycle or too deep, a count that doesn't fit.
class EraMetadata {
public:
    enum class View {
        current,  ///< of a target that nobody has active
        snapshot, ///< of the metadata snapshot that an active target holds: what it held when that was taken
    };

    /// `size` of the metadata device in bytes.
    EraMetadata(const os::FileDescriptor& device, std::uint64_t size, View view);

    /// Blocks of the volume, and how large one is in sectors of 512 bytes.
    [[nodiscard]] std::uint64_t blocks() const { return blockCount; }
    [[nodiscard]] std::uint32_t blockSectors() const { return sectorsInBlock; }

    /// One flag for each block: whether it was written in the era `first` or later. Reads each block of the
    /// metadata once, in the order in which they lie on the device as far as that is known.
    [[nodiscard]] std::vector<bool> writtenSince(std::uint32_t first) const;

private:
    const os::FileDescriptor& device;
    std::uint64_t size;
    std::uint64_t blockCount = 0;
    std::uint32_t sectorsInBlock = 0;
    std::uint64_t arrayRoot = 0;
    std::uint64_t writesetRoot = 0;
};

/// How many bytes of metadata a volume of so many blocks needs at most: eras of all blocks twice, as the array
/// is copied while a metadata snapshot is held, and the sets that have not been entered yet. An era target
/// whose metadata is full fails the writes of programs.
std::uint64_t eraMetadataSize(std::uint64_t blocks);

} // namespace tolvubd
