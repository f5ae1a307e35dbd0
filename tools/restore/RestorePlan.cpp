#include "RestorePlan.h"

#include "ImageDevice.h"
#include "os/AlignedBuffer.h"
#include "os/Crc32c.h"
#include "tools/usedmap/UsedRanges.h"

#include <algorithm>
#include <array>
#include <exception>
#include <span>
#include <stdexcept>
#include <string>

namespace restore {

namespace {

constexpr std::uint32_t sectorBytes = 512;
constexpr std::uint64_t usualMapBytes = 40UL << 20U;

std::uint64_t roundUp(std::uint64_t bytes) {
    return (bytes + pageBytes - 1) / pageBytes * pageBytes;
}

void addUnlessEmpty(std::vector<ByteRange>& ranges, std::uint64_t begin, std::uint64_t end) {
    if (begin < end) {
        ranges.push_back({begin, end - begin});
    }
}

/// Widens ranges of blocks to whole pages, which two ranges may share, and notes the unused parts of these
/// pages.
void addPages(const usedmap::UsedRanges& map, RestorePlan& plan) {
    std::uint64_t filled = 0; // end of the last used block
    for (const agent::BlockRange& range : map.ranges) {
        const std::uint64_t begin = std::min(range.start * map.blockSize, plan.volumeBytes);
        const std::uint64_t end = std::min(range.end() * map.blockSize, plan.volumeBytes);
        if (begin >= end) {
            continue;
        }
        const std::uint64_t pageBegin = begin / pageBytes * pageBytes;
        const std::uint64_t pageEnd = std::min(roundUp(end), plan.volumeBytes);
        addUnlessEmpty(plan.unusedPageParts, filled, std::min(roundUp(filled), begin));
        addUnlessEmpty(plan.unusedPageParts, std::max(pageBegin, roundUp(filled)), begin);
        filled = end;
        if (!plan.used.empty() && plan.used.back().end() >= pageBegin) {
            plan.used.back().length = pageEnd - plan.used.back().begin;
        } else {
            plan.used.push_back({pageBegin, pageEnd - pageBegin});
        }
    }
    addUnlessEmpty(plan.unusedPageParts, filled, std::min(roundUp(filled), plan.volumeBytes));
}

/// The map of some file systems must fit into the buffer as a whole; with blocks of the usual 4096 bytes, any
/// map does.
std::uint64_t mapBytesFor(const IImage& image) {
    constexpr std::uint64_t blocksInByte = 8;
    const std::uint64_t all = image.size() / pageBytes / blocksInByte;
    return std::max(usualMapBytes, (all / pageBytes + 1) * pageBytes);
}

void readMaps(agent::info::Logger& logger, IImage& image, RestorePlan& plan) {
    ImageDevice device(logger, image);
    const usedmap::UsedRanges map = usedmap::findUsedRanges(logger, device, sectorBytes, mapBytesFor(image));
    plan.volumeBytes = std::min(map.mappedBlocks * map.blockSize, image.size());
    addPages(map, plan);
}

std::uint32_t identityOf(const RestorePlan& plan, IImage& image) {
    os::AlignedBuffer head(RestorePlan::headBytes, pageBytes);
    image.read({head.data(), head.size()}, 0);
    const std::array parts{os::crc32c(std::as_bytes(std::span(plan.used))),
                           os::crc32c(std::span<const std::byte>(head.data(), head.size()))};
    return os::crc32c(std::as_bytes(std::span(parts)));
}

} // namespace

RestorePlan makePlan(agent::info::Logger& logger, IImage& image) {
    RestorePlan plan;
    try {
        readMaps(logger, image, plan);
    } catch (const std::exception& error) {
        plan.takesAllBlocks = true;
        plan.reason = error.what();
        plan.volumeBytes = image.size();
        plan.unusedPageParts.clear();
        plan.used = {{0, plan.volumeBytes}};
    }
    for (const ByteRange& range : plan.used) {
        plan.usedBytes += range.length;
    }
    if (plan.volumeBytes < RestorePlan::headBytes) {
        throw std::runtime_error(image.name() + " holds " + std::to_string(plan.volumeBytes) +
                                 " bytes of a volume; no volume is that small");
    }
    plan.identity = identityOf(plan, image);
    return plan;
}

} // namespace restore
