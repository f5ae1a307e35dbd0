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

/// Looks up a name in a directory, through the B-tree of its index. The volume's order of names differs from
/// the C library's if a name has "_" or letters of some languages. So a name that isn't found at its place in
/// the tree is searched in the whole tree.
/// Owns:    the record of the directory; the name, and everything the volume refers to, must outlive it.
/// Threads: one at a time, on a thread that has an NTFSNameLocale; moves the reader's position.
/// Fails:   std::runtime_error; NTFSError if an attribute isn't plausible.
class NTFSDirectory {
public:
    /// `inode` is the number of the directory's record.
    NTFSDirectory(const NTFSVolume& volume, std::uint64_t inode, const NTFSPathElement& sought);

    /// The number of the file's record. Throws if the directory doesn't have the name.
    [[nodiscard]] std::uint64_t find() const;

private:
    /// The result of a descent: the number of the record that was found, or why none was found.
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
    [[nodiscard]] NTFSIndexEntry firstEntryNotBefore(const NTFSIndexNode& node) const;
    [[nodiscard]] std::optional<std::uint64_t> searchNode(const NTFSIndexNode& node,
                                                          std::vector<std::uint64_t>& children) const;

    NTFSVolume volume;
    const NTFSPathElement& sought;
    NTFSFileRecord record;
    std::vector<std::uint8_t> indexRoot;
};

} // namespace agent::core::fs
