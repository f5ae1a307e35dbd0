#pragma once

#include "era/Block.h"
#include "os/AlignedBuffer.h"
#include "os/FileDescriptor.h"

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace tolvubd::era {

/// A block to be read, and the key by which the caller recognises it.
struct Wanted {
    std::uint64_t place; ///< on the device, in blocks
    std::uint64_t key;
};

/// Reads blocks of the metadata, each at most once.
/// Owns:    a buffer for the largest read, and a bit for each block of the device; the descriptor must
///          outlive it.
/// Threads: one at a time.
/// Fails:   std::system_error, with EBADMSG when a block isn't sound, is outside the device or is claimed for
///          a second time. So no structure can be longer than the device, and every cycle ends.
class BlockReader {
public:
    using Visit = std::function<void(std::uint64_t key, const Block& block)>;

    BlockReader(const os::FileDescriptor& device, std::uint64_t size);

    /// The number of blocks of the device.
    [[nodiscard]] std::uint64_t blocks() const { return claimed.size(); }

    /// Records that a block is to be read. Throws EBADMSG if it is outside the device or claimed already.
    Wanted claim(std::uint64_t place, std::uint64_t key);

    /// Calls `visit` for each of the claimed blocks, in the order of their places; neighbours are read
    /// together.
    void read(std::vector<Wanted> wanted, const BlockKind& kind, const Visit& visit);

private:
    void readRun(std::span<const Wanted> run, const BlockKind& kind, const Visit& visit);

    const os::FileDescriptor& device;
    std::vector<bool> claimed;
    os::AlignedBuffer buffer;
};

} // namespace tolvubd::era
