#pragma once

#include "core/fs/ByteOrder.h"

#include <cstdint>

namespace agent::core::fs {

/// An attribute of a file record.
/// Owns:    nothing; the record must outlive it.
/// Threads: a value.
/// Fails:   NTFSObjection where its parts lie outside of it.
class NTFSAttribute {
public:
    /// All of its bytes, at least the smallest header of one.
    explicit NTFSAttribute(Bytes bytes) : bytes(bytes) {}

    [[nodiscard]] std::uint32_t type() const;
    [[nodiscard]] bool isResident() const;
    /// The value of a resident one.
    [[nodiscard]] Bytes value() const;
    /// Where the list of runs of a non-resident one begins in its bytes, if it does.
    [[nodiscard]] std::size_t runListOffset() const;
    /// Why the runs of a non-resident one aren't those of a file from its begin on; null if they are.
    [[nodiscard]] const char* objection() const;
    /// Why what the clusters hold isn't the content as it is; null if it is.
    [[nodiscard]] const char* packing() const;
    [[nodiscard]] std::uint8_t nameLength() const;
    /// Which cluster of the file is the first of these runs; 0 of a resident one.
    [[nodiscard]] std::uint64_t lowestVcn() const;
    /// How many bytes of a non-resident one have been written.
    [[nodiscard]] std::uint64_t writtenBytes() const;
    /// How many bytes all runs of the file have, its holes among them, wherever they are told of.
    [[nodiscard]] std::uint64_t allocatedBytes() const;

    Bytes bytes;

private:
    void requireNonResidentHeader() const;
};

} // namespace agent::core::fs
