#pragma once

#include "core/fs/ntfs/NTFSAttribute.h"
#include "core/fs/ntfs/NTFSMasterFileTable.h"
#include "core/fs/ntfs/NTFSRecord.h"
#include "core/fs/ntfs/NTFSVolume.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace agent::core::fs {

/// The attributes of a file, in its own record and in the records that its attribute list names.
/// Owns:    the file's own record; everything the volume refers to must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   NTFSError if the list names a missing attribute, or if runs aren't plausible;
///          std::runtime_error if a run list is broken.
class NTFSFileRecord {
public:
    explicit NTFSFileRecord(const NTFSVolume& volume);

    /// False if the file's own record can't be read.
    bool read(std::uint64_t wanted);
    /// The value of the first attribute of this type; nullopt if there is none, or if it isn't resident.
    [[nodiscard]] std::optional<std::vector<std::uint8_t>> value(std::uint32_t type) const;
    /// The runs of all parts of the first attribute of this type; nullopt if there is none, or if it is
    /// resident.
    [[nodiscard]] std::optional<NTFSDataRuns> runs(std::uint32_t type) const;

private:
    /// Where an attribute is, or the part of an attribute that one record has.
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
