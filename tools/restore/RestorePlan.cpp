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

/// Ranges of blocks as whole pages, which two of them may share.
std::vector<ByteRange> pagesOf(const usedmap::UsedRanges& map, std::uint64_t volumeBytes) {
    std::vector<ByteRange> pages;
    for (const agent::BlockRange& range : map.ranges) {
        const std::uint64_t begin = range.start * map.blockSize / pageBytes * pageBytes;
        const std::uint64_t end =
            std::min((range.end() * map.blockSize + pageBytes - 1) / pageBytes * pageBytes, volumeBytes);
        if (begin >= end) {
            continue;
        }
        if (!pages.empty() && pages.back().end() >= begin) {
            pages.back().length = end - pages.back().begin;
        } else {
            pages.push_back({begin, end - begin});
        }
    }
    return pages;
}

/// The map of some file systems has to fit as a whole; of any it does where blocks have the usual 4096 bytes.
std::uint64_t mapBytesFor(const IImage& image) {
    constexpr std::uint64_t blocksInByte = 8;
    const std::uint64_t all = image.size() / pageBytes / blocksInByte;
    return std::max(usualMapBytes, (all / pageBytes + 1) * pageBytes);
}

void readMaps(agent::info::Logger& logger, IImage& image, RestorePlan& plan) {
    ImageDevice device(logger, image);
    const usedmap::UsedRanges map = usedmap::findUsedRanges(logger, device, sectorBytes, mapBytesFor(image));
    plan.volumeBytes = std::min(map.knownBlocks * map.blockSize, image.size());
    plan.used = pagesOf(map, plan.volumeBytes);
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
        plan.isWhole = true;
        plan.reason = error.what();
        plan.volumeBytes = image.size();
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
