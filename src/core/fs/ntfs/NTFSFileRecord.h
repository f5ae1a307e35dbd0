#pragma once

#include "core/fs/ntfs/NTFSAttribute.h"
#include "core/fs/ntfs/NTFSMasterFileTable.h"
#include "core/fs/ntfs/NTFSRecord.h"
#include "core/fs/ntfs/NTFSVolume.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace agent::core::fs {

/// The attributes of a file, in its own record and in those that its attribute list names.
/// Owns:    the file's own record.
/// Threads: one at a time; moves the reader's position.
/// Fails:   NTFSObjection where the list names what isn't there, or runs are not to be relied on;
///          std::runtime_error where a list of runs is broken.
class NTFSFileRecord {
public:
    explicit NTFSFileRecord(const NTFSVolume& volume);

    /// False if the file's own record can't be read.
    bool read(std::uint64_t wanted);
    /// Of the first attribute of this type; nothing if it isn't there, or isn't resident.
    [[nodiscard]] std::optional<std::vector<std::uint8_t>> value(std::uint32_t type) const;
    /// Of all parts of the first attribute of this type; nothing if it isn't there, or is resident.
    [[nodiscard]] std::optional<NTFSDataRuns> runs(std::uint32_t type) const;

private:
    /// An attribute, or the part of one that a record has.
    struct Part {
        std::uint64_t record;
        std::uint64_t vcn;
        std::uint8_t nameLength;
    };

    [[nodiscard]] std::vector<Part> partsOf(std::uint32_t type) const;
    [[nodiscard]] std::vector<std::uint8_t> listOf(const NTFSAttribute& attribute) const;
    [[nodiscard]] NTFSAttribute attributeOf(const Part& part, std::uint32_t type, NTFSRecord& buffer) const;
    void append(NTFSDataRuns& whole, std::uint64_t& covered, const NTFSAttribute& part) const;

    NTFSVolume volume;
    std::uint64_t number = 0;
    NTFSRecord own;
};

} // namespace agent::core::fs
