#pragma once

#include "core/fs/ByteOrder.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace agent::core::fs {

/// A structure with an update sequence: a record of the master file table, or a block of an index.
/// Owns:    its bytes; those of one that couldn't be read mean nothing.
/// Threads: one at a time.
/// Fails:   nothing fails; a torn record says so.
class NTFSRecord {
public:
    /// Of zeros; at least the head of one.
    explicit NTFSRecord(std::size_t size) : bytes(size) {}

    [[nodiscard]] bool hasMagic(std::uint32_t magic) const;
    /// Puts back the ends of its sectors, in whose place there is a number on the disk that tells whether all
    /// of them have been written. False if they haven't, and then the record is marked as torn.
    bool applyFixups();
    /// Whether it can be the one of this number: old ones don't know theirs.
    [[nodiscard]] bool canBe(std::uint64_t inode) const;
    /// The number of the record that it is a part of, 0 if of none.
    [[nodiscard]] std::uint64_t baseRecord() const;
    /// An offset, which may lie outside.
    [[nodiscard]] std::size_t firstAttribute() const;

    std::vector<std::uint8_t> bytes;

private:
    [[nodiscard]] bool hasUpdateSequence() const;
    [[nodiscard]] std::uint16_t half(std::size_t offset) const;
    void copyHalf(std::size_t target, std::size_t source);
};

} // namespace agent::core::fs
