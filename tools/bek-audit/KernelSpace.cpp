#include "KernelSpace.h"

#include "tools/restore/RestorePlan.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <linux/fsmap.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <vector>

namespace audit {

namespace {

constexpr std::uint32_t mostRecords =
    16; // a page has at most 8 blocks (of 512 bytes or more); the rest is for neighbours

/// The buffer of FS_IOC_GETFSMAP: a header, and the records that the kernel fills in.
class MapRequest {
public:
    MapRequest() : words((sizeof(fsmap_head) + mostRecords * sizeof(fsmap)) / sizeof(std::uint64_t)) {
        head().fmh_count = mostRecords;
    }

    fsmap_head& head() { return *static_cast<fsmap_head*>(static_cast<void*>(words.data())); }
    [[nodiscard]] fsmap record(std::uint32_t index) const {
        fsmap copy{};
        const auto* const bytes = static_cast<const std::byte*>(static_cast<const void*>(words.data()));
        std::memcpy(&copy, bytes + sizeof(fsmap_head) + index * sizeof(fsmap), sizeof copy);
        return copy;
    }

private:
    std::vector<std::uint64_t> words; // uint64_t for the alignment
};

std::uint32_t kernelNumber(dev_t device) {
    constexpr unsigned lowBits = 0xFF;
    constexpr unsigned majorShift = 8;
    constexpr unsigned highShift = 12;
    const unsigned low = minor(device);
    return (low & lowBits) | major(device) << majorShift | (low & ~lowBits) << highShift;
}

void restrictTo(fsmap_head& head, std::uint32_t device, std::uint64_t begin, std::uint64_t last) {
    constexpr auto all = std::numeric_limits<std::uint64_t>::max();
    head.fmh_keys[0].fmr_device = device;
    head.fmh_keys[0].fmr_physical = begin;
    head.fmh_keys[1].fmr_device = device;
    head.fmh_keys[1].fmr_physical = last;
    head.fmh_keys[1].fmr_flags = std::numeric_limits<std::uint32_t>::max();
    head.fmh_keys[1].fmr_owner = all;
    head.fmh_keys[1].fmr_offset = all;
}

bool isFree(const fsmap& record) {
    return (record.fmr_flags & FMR_OF_SPECIAL_OWNER) != 0 && record.fmr_owner == FMR_OWN_FREE;
}

} // namespace

KernelSpace::KernelSpace(const std::string& root)
    : directory(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    struct stat status{};
    if (directory && ::fstat(directory.get(), &status) == 0) {
        device = kernelNumber(status.st_dev);
    }
}

std::optional<bool> KernelSpace::isInUse(std::uint64_t offset) {
    if (knownBegin <= offset && offset + restore::pageBytes <= knownEnd) {
        return isKnownInUse;
    }
    return query(offset);
}

std::optional<bool> KernelSpace::query(std::uint64_t offset) {
    MapRequest request;
    const std::uint64_t end = offset + restore::pageBytes;
    restrictTo(request.head(), device, offset, end - 1);
    if (!directory || ::ioctl(directory.get(), FS_IOC_GETFSMAP, &request.head()) != 0) {
        return std::nullopt;
    }
    std::uint64_t coveredUntil = offset; // end of the space that the records have covered
    bool isUsed = false;
    for (std::uint32_t index = 0; index < std::min(request.head().fmh_entries, mostRecords); ++index) {
        const fsmap record = request.record(index);
        const std::uint64_t recordEnd = record.fmr_physical + record.fmr_length;
        if (record.fmr_physical > coveredUntil || recordEnd <= coveredUntil) {
            continue;
        }
        isUsed = isUsed || !isFree(record);
        coveredUntil = recordEnd;
        knownBegin = record.fmr_physical;
        knownEnd = recordEnd;
        isKnownInUse = !isFree(record);
        if (coveredUntil >= end) {
            return isUsed;
        }
    }
    return isUsed ? std::optional(true) : std::nullopt;
}

} // namespace audit
