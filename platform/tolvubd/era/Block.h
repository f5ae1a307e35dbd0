#pragma once

#include "era/Format.h"

#include <bit>
#include <cstring>
#include <span>
#include <vector>

namespace tolvubd::era {

/// The bytes of one block of the metadata, and access to the numbers in it. Offsets must be inside the block.
/// Owns:    nothing; the bytes must outlive it.
/// Threads: any.
/// Fails:   never.
class Block {
public:
    using Bytes = std::span<const std::byte, blockSize>;

    explicit Block(Bytes bytes) : bytes(bytes) {}

    [[nodiscard]] std::uint32_t number32(std::size_t offset) const { return number<std::uint32_t>(offset); }
    [[nodiscard]] std::uint64_t number64(std::size_t offset) const { return number<std::uint64_t>(offset); }

    /// Whether the block has the right checksum for its kind, and was written for `place`.
    [[nodiscard]] bool isSound(const BlockKind& kind, std::uint64_t place) const;

    template <class Number>
    [[nodiscard]] Number number(std::size_t offset) const {
        static_assert(std::endian::native == std::endian::little);
        Number value = 0;
        std::memcpy(&value, bytes.subspan(offset, sizeof value).data(), sizeof value);
        return value;
    }

private:
    Bytes bytes;
};

} // namespace tolvubd::era
