#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>

namespace zephane {

/// The data written since the last flush: a range that covers all of it, and the number of bytes.
/// Owns:    its values.
/// Threads: as for any value: many readers, or one writer.
/// Fails:   never.
class UnflushedRange {
public:
    void add(std::uint64_t offset, std::uint64_t length) {
        begin = std::min(begin, offset);
        end = std::max(end, offset + length);
        written += length;
    }
    void clear() { *this = UnflushedRange(); }

    [[nodiscard]] bool isEmpty() const { return end == 0; }
    [[nodiscard]] bool overlaps(std::uint64_t offset, std::uint64_t length) const {
        return offset < end && begin < offset + length;
    }
    [[nodiscard]] std::uint64_t bytes() const { return written; }

private:
    std::uint64_t begin = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t end = 0;
    std::uint64_t written = 0;
};

} // namespace zephane
