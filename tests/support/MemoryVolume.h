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

/// A volume in memory that takes room only for the pages that were written; the others read as zeros. Like a
/// device it delivers less at its end. Places of it can be made unreadable, and it can be made to deliver too
/// little; FaultyVolume makes one call fail.
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

    /// `width` bytes, the least significant first.
    void writeLittle(std::uint64_t offset, std::uint64_t value, unsigned width) {
        for (unsigned i = 0; i < width; ++i) {
            at(offset + i) = static_cast<std::uint8_t>(value >> (8 * i));
        }
    }

    /// `width` bytes, the most significant first.
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

    /// Reads that touch [begin, end) fail from now on.
    void failReads(std::uint64_t begin, std::uint64_t end) {
        failBegin = begin;
        failEnd = end;
    }

    std::uint64_t size;
    std::uint64_t longest = UINT64_MAX; ///< that one read delivers
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
