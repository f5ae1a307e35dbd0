#pragma once

#include "era/Superblock.h"
#include "os/FileDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace tolvubd {

/// The metadata of a device-mapper "era" target: for each block of a volume, the era in which it was last
/// written. The format is the kernel's (drivers/md/dm-era-target.c and drivers/md/persistent-data): blocks of
/// 4096 bytes, little endian, each with its own CRC-32C. It has a superblock, an array that holds a 32-bit
/// era for each block of the volume, and a tree of bitsets (writesets) of the blocks written in eras that
/// aren't merged into the array yet.
///
/// Owns:    nothing; the descriptor must outlive it. While a target is active, it must bypass the page cache
///          (O_DIRECT).
/// Threads: one at a time.
/// Fails:   std::system_error, with EBADMSG for invalid metadata: a wrong checksum, a place outside the
///          device, a tree with a cycle or too deep, a wrong count, or no metadata snapshot to read.
class EraMetadata {
public:
    enum class View {
        current,  ///< the metadata itself; only while no target is active on it
        snapshot, ///< the metadata snapshot that an active target holds, as of when it was taken
    };

    /// `size` is that of the metadata device, in bytes.
    EraMetadata(const os::FileDescriptor& device, std::uint64_t size, View view);

    /// The number of blocks of the volume, and the size of one in sectors of 512 bytes.
    [[nodiscard]] std::uint64_t blocks() const { return superblock.blocks; }
    [[nodiscard]] std::uint32_t blockSectors() const { return superblock.blockSectors; }

    /// One flag for each block: whether it was written in the era `first` or later. Reads each block of the
    /// metadata once, mostly in the order of their places.
    [[nodiscard]] std::vector<bool> writtenSince(std::uint32_t first) const;

private:
    /// The writesets, from era `first` on, that aren't merged into the array yet.
    [[nodiscard]] std::vector<era::Writeset> writesetsSince(era::BlockReader& reader,
                                                            std::uint32_t first) const;

    const os::FileDescriptor& device;
    std::uint64_t size;
    era::Superblock superblock;
};

/// Whether the target was shut down cleanly, according to its superblock: a clean shutdown ends the current
/// era, so there is no current writeset any more. A target in use always has one, and so has a target that
/// was running when the power failed. Throws EBADMSG for a block that isn't sound.
bool wasEraShutDown(std::span<const std::byte, era::blockSize> superblock);

/// The era target's block size for a volume of this size, in sectors of 512 bytes. It is 8 (4 KiB) up to 256
/// GiB, and doubles above that to keep the number of blocks within 2^26, whose metadata takes 1 GiB. It is
/// never more than 128, because a write of any size marks its whole block.
std::uint32_t eraBlockSectors(std::uint64_t volumeBytes);

/// The most bytes of metadata that a volume of `blocks` blocks can need, in whole MiB. When an era target's
/// metadata is full, the programs' writes fail, so this assumes the worst case:
///
/// - Three copies of the array of eras: in a metadata snapshot, as last committed, and in the transaction
///   that the kernel is about to commit.
/// - Sixteen writesets. A new one begins whenever the target is resumed or a metadata snapshot is taken, and
///   the kernel merges them into the array one by one, which takes seconds.
/// - The trees above both, with half-full nodes, and 16 MiB for the kernel's space map of the metadata.
std::uint64_t eraMetadataSize(std::uint64_t blocks);

} // namespace tolvubd
