#pragma once

#include "core/fs/ByteOrder.h"

#include <cstdint>

namespace agent::core::fs {

/// An attribute of a file record.
/// Owns:    nothing; the record must outlive it.
/// Threads: a plain value; const calls are safe from any thread.
/// Fails:   NTFSError if a part of the attribute lies outside it.
class NTFSAttribute {
public:
    /// `bytes` is the whole attribute, at least the smallest header.
    explicit NTFSAttribute(Bytes bytes) : bytes(bytes) {}

    [[nodiscard]] std::uint32_t type() const;
    [[nodiscard]] bool isResident() const;
    /// The value of a resident attribute.
    [[nodiscard]] Bytes value() const;
    /// The offset of a non-resident attribute's run list in `bytes`, which may lie outside.
    [[nodiscard]] std::size_t runListOffset() const;
    /// Why the runs of a non-resident attribute aren't a file's content from its start; null if they are.
    [[nodiscard]] const char* whyUnusable() const;
    /// Why the clusters don't hold the plain content; null if they do.
    [[nodiscard]] const char* whyNotPlain() const;
    [[nodiscard]] std::uint8_t nameLength() const;
    /// The file's cluster at which these runs begin; 0 for a resident attribute.
    [[nodiscard]] std::uint64_t lowestVcn() const;
    /// How many bytes of a non-resident attribute have been written.
    [[nodiscard]] std::uint64_t writtenBytes() const;
    /// How many bytes all runs of the file cover, including holes and the runs in other records.
    [[nodiscard]] std::uint64_t allocatedBytes() const;

    Bytes bytes;

private:
    void requireNonResidentHeader() const;
};

} // namespace agent::core::fs
