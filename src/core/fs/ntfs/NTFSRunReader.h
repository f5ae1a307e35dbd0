#pragma once

#include "core/fs/ntfs/NTFSRunList.h"
#include "core/fs/ntfs/NTFSVolume.h"

#include <cstdint>
#include <span>
#include <vector>

namespace agent::core::fs {

/// Reads the content of runs of clusters as one contiguous piece.
/// Owns:    the runs, which must lie on the volume and have no holes.
/// Threads: one at a time; moves the reader's position.
/// Fails:   by return value, after the reader's log lines.
class NTFSRunReader {
public:
    NTFSRunReader(const NTFSVolume& volume, std::vector<NTFSRun> runs);

    /// The size of all runs, in bytes.
    [[nodiscard]] std::uint64_t size() const;
    /// Fills `target` from the byte `offset` on. False if that can't be read, or extends past the runs.
    [[nodiscard]] bool read(std::uint64_t offset, std::span<std::uint8_t> target);

private:
    NTFSVolume volume;
    std::vector<NTFSRun> runs;
};

} // namespace agent::core::fs
