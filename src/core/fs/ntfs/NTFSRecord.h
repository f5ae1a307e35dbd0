#pragma once

#include "core/fs/ByteOrder.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace agent::core::fs {

/// A structure with an update sequence: a record of the master file table, or a block of an index.
/// Owns:    its bytes, which are undefined if the record couldn't be read.
/// Threads: one at a time.
/// Fails:   never, except that `applyFixups` returns false for a torn record.
class NTFSRecord {
public:
    /// Creates a record of `size` zero bytes, at least the size of a header.
    explicit NTFSRecord(std::size_t size) : bytes(size) {}

    [[nodiscard]] bool hasMagic(std::uint32_t magic) const;
    /// Restores the last bytes of each sector. On disk the update sequence number replaces them, which shows
    /// whether all sectors were written. If not, marks the record as torn and returns false.
    bool applyFixups();
    /// Whether the record may have this number. Old records don't store their number.
    [[nodiscard]] bool mayHaveNumber(std::uint64_t inode) const;
    /// The number of the base record that this record extends; 0 if it is a base record.
    [[nodiscard]] std::uint64_t baseRecord() const;
    /// The offset of the first attribute, which may lie outside the record.
    [[nodiscard]] std::size_t firstAttribute() const;

    std::vector<std::uint8_t> bytes;

private:
    [[nodiscard]] bool hasUpdateSequence() const;
    [[nodiscard]] std::uint16_t half(std::size_t offset) const;
    void copyHalf(std::size_t target, std::size_t source);
};

} // namespace agent::core::fs
