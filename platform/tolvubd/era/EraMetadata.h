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
/// 4096 bytes, little endian, each with a CRC-32C of its own; a superblock, a tree of arrays that holds a
/// 32-bit era for each block, and a tree of bitsets with what eras not yet entered there have written.
///
/// Owns:    nothing; the descriptor must outlive it. Where a target is active it must be one that reads past
///          the page cache (O_DIRECT).
/// Threads: one at a time.
/// Fails:   std::system_error, with EBADMSG for whatever isn't sound: a checksum, a place outside the device,
///          a tree with a cycle or too deep, a count that doesn't fit, a metadata snapshot that nobody holds.
class EraMetadata {
public:
    enum class View {
        current,  ///< of a target that nobody has active
        snapshot, ///< of the metadata snapshot that an active target holds: what it held when that was taken
    };

    /// `size` of the metadata device in bytes.
    EraMetadata(const os::FileDescriptor& device, std::uint64_t size, View view);

    /// Blocks of the volume, and how large one is in sectors of 512 bytes.
    [[nodiscard]] std::uint64_t blocks() const { return superblock.blocks; }
    [[nodiscard]] std::uint32_t blockSectors() const { return superblock.blockSectors; }

    /// One flag for each block: whether it was written in the era `first` or later. Reads each block of the
    /// metadata once, in the order in which they lie on the device as far as that is known.
    [[nodiscard]] std::vector<bool> writtenSince(std::uint32_t first) const;

private:
    /// The sets of eras that the array doesn't know yet, from `first` on.
    [[nodiscard]] std::vector<era::Writeset> writesetsSince(era::BlockReader& reader,
                                                            std::uint32_t first) const;

    const os::FileDescriptor& device;
    std::uint64_t size;
    era::Superblock superblock;
};

/// Whether the target was stopped in order, by its first block of metadata: each era ends with that, and
/// while the target is in use there always is a current one. What stops with the machine has one too.
/// EBADMSG for a block that isn't sound.
bool wasEraStopped(std::span<const std::byte, era::blockSize> superblock);

/// How large a block of a volume of so many bytes is to be for the era target, in sectors of 512 bytes: 8,
/// which is 4 KiB, up to 256 GiB; above that as much more as keeps it to 2^26 blocks, whose metadata takes 1
/// GiB, but never more than 128, as a program's write counts for all of its block.
std::uint32_t eraBlockSectors(std::uint64_t volumeBytes);

/// How many bytes of metadata a volume of so many blocks needs at most, in whole MiB. An era target whose
/// metadata is full fails the writes of programs, so this is meant for the worst:
///
/// - The eras of all blocks three times: as a metadata snapshot holds them, as they were last committed, and
///   as the kernel is about to commit them.
/// - Sixteen sets of what an era has written. A new one begins whenever the target is resumed or a snapshot
///   of the metadata taken, and the kernel enters one into the array after the other, in seconds.
/// - The trees above both, with nodes half full, and 16 MiB for the kernel's own map of the metadata.
std::uint64_t eraMetadataSize(std::uint64_t blocks);

} // namespace tolvubd
