#pragma once

#include "core/fs/ntfs/NTFSRunList.h"
#include "core/fs/ntfs/NTFSVolume.h"

#include <cstdint>
#include <span>
#include <vector>

namespace agent::core::fs {

/// Reads what lies in runs of clusters as if it were in one piece.
/// Owns:    the runs, none of them a hole, all on the volume.
/// Threads: one at a time; moves the reader's position.
/// Fails:   by return value, after what the reader has to say.
class NTFSRunReader {
public:
    NTFSRunReader(const NTFSVolume& volume, std::vector<NTFSRun> runs);

    /// In bytes.
    [[nodiscard]] std::uint64_t size() const;
    /// Fills the target from a byte offset on. False if that can't be read, or isn't all in the runs.
    [[nodiscard]] bool read(std::uint64_t offset, std::span<std::uint8_t> target);

private:
    NTFSVolume volume;
    std::vector<NTFSRun> runs;
};

} // namespace agent::core::fs
