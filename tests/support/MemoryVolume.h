#pragma once

#include "core/fs/IVolumeReader.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <span>
#include <unistd.h>
#include <vector>

namespace agent::test {

/// A volume in memory that stores only the pages that were written; all others read as zeros. Like a device,
/// it returns short reads at its end. Ranges can be made unreadable, and all reads can be made short;
/// FaultyVolume makes one call fail.
class MemoryVolume : public core::IVolumeReader {
public:
    struct Request {
        std::uint64_t offset;
        std::size_t length;
        bool operator==(const Request&) const = default;
    };

    explicit MemoryVolume(std::uint64_t size) : size(size) {}

    void write(std::uint64_t offset, std::span<const std::uint8_t> bytes) {
        while (!bytes.empty()) {
            const std::uint64_t within = offset % pageSize;
            const auto part = bytes.first(std::min<std::uint64_t>(bytes.size(), pageSize - within));
            std::memcpy(pages[offset / pageSize].data() + within, part.data(), part.size());
            offset += part.size();
            bytes = bytes.subspan(part.size());
        }
    }

    /// Writes `width` bytes, little-endian.
    void writeLittle(std::uint64_t offset, std::uint64_t value, unsigned width) {
        for (unsigned i = 0; i < width; ++i) {
            at(offset + i) = static_cast<std::uint8_t>(value >> (8 * i));
        }
    }

    /// Writes `width` bytes, big-endian.
    void writeBig(std::uint64_t offset, std::uint64_t value, unsigned width) {
        for (unsigned i = 0; i < width; ++i) {
            at(offset + i) = static_cast<std::uint8_t>(value >> (8 * (width - 1 - i)));
        }
    }

    std::uint8_t& at(std::uint64_t offset) { return pages[offset / pageSize][offset % pageSize]; }

    std::int64_t read(void* buffer, std::size_t length) override {
        requests.push_back({position, length});
        if (position < failEnd && position + length > failBegin) {
            return -1;
        }
        const std::uint64_t left = position < size ? size - position : 0;
        const auto count = static_cast<std::size_t>(std::min<std::uint64_t>({length, left, longest}));
        copyOut(static_cast<std::uint8_t*>(buffer), count);
        position += count;
        return static_cast<std::int64_t>(count);
    }

    std::int64_t seek(std::int64_t offset, int whence) override {
        if (offset < 0) {
            return -1;
        }
        const std::uint64_t base = whence == SEEK_END ? size : whence == SEEK_CUR ? position : 0;
        position = base + static_cast<std::uint64_t>(offset);
        return static_cast<std::int64_t>(position);
    }

    /// From now on, reads that touch [begin, end) fail.
    void failReads(std::uint64_t begin, std::uint64_t end) {
        failBegin = begin;
        failEnd = end;
    }

    std::uint64_t size;
    std::uint64_t longest = UINT64_MAX; ///< the most bytes that one read returns
    std::vector<Request> requests;      ///< all reads so far

private:
    static constexpr std::uint64_t pageSize = 4096;

    void copyOut(std::uint8_t* target, std::size_t count) const {
        for (std::uint64_t offset = position; count > 0;) {
            const std::uint64_t within = offset % pageSize;
            const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(count, pageSize - within));
            const auto page = pages.find(offset / pageSize);
            if (page == pages.end()) {
                std::memset(target, 0, part);
            } else {
                std::memcpy(target, page->second.data() + within, part);
            }
            offset += part;
            target += part;
            count -= part;
        }
    }

    std::map<std::uint64_t, std::array<std::uint8_t, pageSize>> pages;
    std::uint64_t position = 0;
    std::uint64_t failBegin = 0;
    std::uint64_t failEnd = 0;
};

} // namespace agent::test
