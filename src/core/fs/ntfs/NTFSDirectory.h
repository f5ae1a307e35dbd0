#pragma once

#include "core/fs/ntfs/NTFSFileRecord.h"
#include "core/fs/ntfs/NTFSIndexAllocation.h"
#include "core/fs/ntfs/NTFSIndexNode.h"
#include "core/fs/ntfs/NTFSPathElement.h"
#include "core/fs/ntfs/NTFSVolume.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace agent::core::fs {

/// A directory in which a name is looked for, by the tree of its index: from the root of it down to where the
/// name belongs. The volume has an order of names of its own, which is another one than that of the C library
/// where a name has "_", or letters of some languages. So a name that isn't where it belongs is looked for in
/// all of the tree.
/// Owns:    the record of the directory; what the volume names, and the name, must outlive it.
/// Threads: one at a time, with an NTFSNameLocale; moves the reader's position.
/// Fails:   std::runtime_error; NTFSObjection where an attribute isn't to be relied on.
class NTFSDirectory {
public:
    /// `inode` is the number of the directory's record.
    NTFSDirectory(const NTFSVolume& volume, std::uint64_t inode, const NTFSPathElement& sought);

    /// The number of the record of the file. Throws if there is none of the name.
    [[nodiscard]] std::uint64_t find() const;

private:
    /// Of a descent: the number of the record that was found, or why there is none.
    struct Outcome {
        std::optional<std::uint64_t> record;
        const char* reason = "";
    };

    [[nodiscard]] std::vector<std::uint8_t> findIndexRoot() const;
    [[nodiscard]] std::uint64_t blockSize() const;
    [[nodiscard]] NTFSIndexNode root() const;
    [[nodiscard]] NTFSIndexAllocation blocks() const;
    [[nodiscard]] Outcome descend() const;
    [[nodiscard]] std::optional<std::uint64_t> search() const;
    [[nodiscard]] bool isSought(const NTFSIndexEntry& entry) const;
    [[nodiscard]] NTFSIndexEntry placeIn(const NTFSIndexNode& node) const;
    [[nodiscard]] std::optional<std::uint64_t> searchNode(const NTFSIndexNode& node,
                                                          std::vector<std::uint64_t>& children) const;

    NTFSVolume volume;
    const NTFSPathElement& sought;
    NTFSFileRecord record;
    std::vector<std::uint8_t> indexRoot;
};

} // namespace agent::core::fs
