#include "seal/XfsLog.h"

#include "seal/DirectDevice.h"

#include <algorithm>
#include <utility>

namespace tolvubd {

namespace {

constexpr std::uint64_t blockSize = 512;
/// Twice what can be in flight to the disk at a time: after a crash, that last part of the log may have
/// holes.
constexpr std::uint64_t windowBlocks = std::uint64_t{8} << 10;
constexpr std::uint64_t headerMagic = 0xFEEDBABE;

namespace header {
constexpr Field magic{0, 4};
constexpr Field cycle{4, 4};
constexpr Field version{8, 4};
constexpr Field length{12, 4};
constexpr Field lsnCycle{16, 4};
constexpr Field lsnBlock{20, 4};
constexpr Field checksum{32, 4};
constexpr Field operations{40, 4};
constexpr Field bufferSize{320, 4};
} // namespace header

/// In the block after the header: the flags of the first operation.
constexpr std::size_t flagsOfOperation = 9;
constexpr std::uint64_t isUnmount = 0x20;

constexpr Field within(std::uint64_t block, Field field) {
    return {block * blockSize + field.offset, field.width};
}

/// The cycle in which a block was written. In a record header it follows the magic number.
std::uint64_t cycleOf(const Fields& blocks, std::uint64_t block) {
    const std::uint64_t first = blocks.big(within(block, header::magic));
    return first == headerMagic ? blocks.big(within(block, header::cycle)) : first;
}

/// A run of blocks of the log that ends where the head is expected.
class Window {
public:
    Window(Fields bytes, std::uint64_t begin, std::uint64_t beginCycle, std::uint64_t logBlocks)
        : bytes(std::move(bytes)), begin(begin), beginCycle(beginCycle), logBlocks(logBlocks) {}

    /// How many blocks, from the window's start on, are of the expected cycle.
    [[nodiscard]] std::uint64_t soundBlocks() const {
        const std::uint64_t count = bytes.size() / blockSize;
        std::uint64_t block = 0;
        while (block < count && cycleOf(bytes, block) == cycleAt(block)) {
            ++block;
        }
        return block;
    }

    /// Finds the last record that is complete within the first `end` blocks. The head is the end of those
    /// blocks.
    [[nodiscard]] std::optional<XfsLogHead> lastRecord(std::uint64_t end) const {
        for (std::uint64_t block = end; block > 0; --block) {
            if (isRecord(block - 1, end)) {
                return XfsLogHead{cycleAt(end), placeOf(end),
                                  static_cast<std::uint32_t>(bytes.big(within(block - 1, header::checksum))),
                                  isUnmountRecord(block - 1)};
            }
        }
        return std::nullopt;
    }

private:
    [[nodiscard]] std::uint64_t placeOf(std::uint64_t block) const { return (begin + block) % logBlocks; }
    [[nodiscard]] std::uint64_t cycleAt(std::uint64_t block) const {
        return beginCycle + (begin + block) / logBlocks;
    }

    [[nodiscard]] std::uint64_t headersOf(std::uint64_t block) const {
        constexpr std::uint64_t ofOneHeader = 32768;
        return std::max<std::uint64_t>(1, (bytes.big(within(block, header::bufferSize)) + ofOneHeader - 1) /
                                              ofOneHeader);
    }

    [[nodiscard]] bool isRecord(std::uint64_t block, std::uint64_t end) const {
        if (bytes.big(within(block, header::magic)) != headerMagic ||
            bytes.big(within(block, header::version)) != 2 ||
            bytes.big(within(block, header::lsnCycle)) != cycleAt(block) ||
            bytes.big(within(block, header::lsnBlock)) != placeOf(block)) {
            return false;
        }
        const std::uint64_t length = bytes.big(within(block, header::length));
        return length > 0 && headersOf(block) + (length + blockSize - 1) / blockSize <= end - block;
    }

    [[nodiscard]] bool isUnmountRecord(std::uint64_t block) const {
        return bytes.big(within(block, header::operations)) == 1 &&
               (bytes.byte((block + headersOf(block)) * blockSize + flagsOfOperation) & isUnmount) != 0;
    }

    Fields bytes;
    std::uint64_t begin;
    std::uint64_t beginCycle;
    std::uint64_t logBlocks;
};

class Log {
public:
    Log(const os::FileDescriptor& device, const XfsLogPlace& place) : device(device), place(place) {}

    [[nodiscard]] std::optional<XfsLogHead> head() const {
        const std::uint64_t cycle = cycleAt(0);
        if (cycle == 0) {
            return std::nullopt; // never written, or unreadable
        }
        const std::uint64_t end = endOfCycle(cycle);
        const bool hasOlder = cycleAt(place.blocks - 1) != 0 && cycle > 1;
        const std::uint64_t length = std::min(windowBlocks, hasOlder ? place.blocks : end);
        const bool wraps = length > end;
        const std::uint64_t begin = wraps ? end + place.blocks - length : end - length;
        Fields bytes = read(begin, length);
        if (!bytes) {
            return std::nullopt;
        }
        const Window window(std::move(bytes), begin, wraps ? cycle - 1 : cycle, place.blocks);
        return window.lastRecord(window.soundBlocks());
    }

private:
    [[nodiscard]] std::uint64_t cycleAt(std::uint64_t block) const {
        const Fields bytes = readDirect(device, place.offset + block * blockSize, blockSize);
        return bytes ? cycleOf(bytes, 0) : 0;
    }

    /// Finds the first block that isn't of this cycle, by a binary search: the blocks of the cycle come
    /// first.
    [[nodiscard]] std::uint64_t endOfCycle(std::uint64_t cycle) const {
        std::uint64_t low = 0;
        std::uint64_t high = place.blocks;
        while (high - low > 1) {
            const std::uint64_t middle = low + (high - low) / 2;
            (cycleAt(middle) == cycle ? low : high) = middle;
        }
        return high;
    }

    /// Reads blocks of the ring, which may wrap around.
    [[nodiscard]] Fields read(std::uint64_t begin, std::uint64_t count) const {
        const std::uint64_t first = std::min(count, place.blocks - begin);
        const Fields head = readDirect(device, place.offset + begin * blockSize, first * blockSize);
        const Fields rest = readDirect(device, place.offset, (count - first) * blockSize);
        return head.followedBy(rest);
    }

    const os::FileDescriptor& device;
    const XfsLogPlace& place;
};

} // namespace

std::optional<XfsLogHead> readXfsLogHead(const os::FileDescriptor& device, const XfsLogPlace& place) {
    return place.blocks > 0 ? Log(device, place).head() : std::nullopt;
}

} // namespace tolvubd
