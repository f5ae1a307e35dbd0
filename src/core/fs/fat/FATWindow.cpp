#include "core/fs/fat/FATWindow.h"

#include "core/fs/Bits.h"
#include "core/fs/FSUtil.h"
#include "core/fs/LoggedBuffer.h"
#include "core/fs/fat/FATLayout.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace agent::core::fs {

namespace {

namespace entry = fat_layout::entry;

constexpr std::uint64_t maxReadBytes = 1024UL * 1024;
constexpr std::uint64_t maxEntries = maxReadBytes / entry::size;
constexpr std::uint64_t boundary = 4096 / entry::size; // this many entries fill whole sectors on every device
constexpr std::uint64_t wordBits = 64;

using Numbers = std::array<std::uint32_t, wordBits / 2>;

/// One number for each bit: with this table the compiler can vectorise the tests in useOf.
constexpr Numbers singleBits = [] {
    Numbers bits{};
    for (std::size_t i = 0; i < bits.size(); ++i) {
        bits[i] = std::uint32_t{1} << i;
    }
    return bits;
}();

Numbers load(const std::byte* entries) {
    Numbers numbers{};
    std::memcpy(numbers.data(), entries, sizeof numbers); // the agent only runs on little-endian machines
    return numbers;
}

/// A fast check, because long runs of free clusters are common on a large volume.
bool areZeros(const Numbers& numbers) {
    std::uint32_t all = 0;
    for (const std::uint32_t number : numbers) {
        all |= number;
    }
    return all == 0;
}

/// A bit for each entry whose cluster is in use.
std::uint32_t useOf(const Numbers& entries) {
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const std::uint32_t number = entries[i] & entry::mask;
        bits |= number != entry::free && number != entry::bad ? singleBits[i] : 0;
    }
    return bits;
}

std::uint64_t useOfHalf(const std::byte* entries) {
    const Numbers numbers = load(entries);
    return areZeros(numbers) ? 0 : useOf(numbers);
}

} // namespace

FATWindow::FATWindow(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize,
                     std::uint64_t fatOffset)
    : logger(logger), reader(reader), sectorSize(sectorSize), fatOffset(fatOffset) {}

std::int64_t FATWindow::read(std::uint64_t first, std::uint64_t count) {
    const std::uint64_t begin = first / boundary * boundary;
    skipped = first - begin;
    const std::uint64_t wanted = std::min(skipped + count, maxEntries);
    const std::size_t length = wanted * entry::size;
    if (entries.empty()) {
        entries = createLoggedBuffer(maxReadBytes, sectorSize, logger);
    }
    const std::int64_t arrived = FSUtil::readAvailable(
        logger, reader, sectorSize, fatOffset + begin * entry::size, entries.data(), length);
    if (arrived < 0) {
        return unreadable;
    }
    if (static_cast<std::size_t>(arrived) < length) {
        return tooShort;
    }
    decode(wanted);
    return static_cast<std::int64_t>(wanted - skipped);
}

std::uint32_t FATWindow::front() const {
    std::uint32_t number = 0;
    std::memcpy(&number, entries.data() + skipped * entry::size, sizeof number);
    return number & entry::mask;
}

void FATWindow::copyUsedBits(std::uint8_t* target, std::uint64_t targetBit, std::uint64_t count,
                             bool isStraddling) {
    if (isStraddling) {
        for (std::size_t i = 0; i < used.size(); ++i) {
            const std::uint64_t next = i + 1 < used.size() ? used[i + 1] : 0;
            used[i] |= used[i] >> 1U | next << (wordBits - 1);
        }
    }
    const void* const bits = used.data();
    copyBits(target, targetBit, static_cast<const std::uint8_t*>(bits), skipped, count);
}

void FATWindow::decode(std::uint64_t count) {
    used.resize((count + wordBits - 1) / wordBits);
    for (std::size_t i = 0; i < used.size(); ++i) {
        const std::byte* const first = entries.data() + i * wordBits * entry::size;
        used[i] = useOfHalf(first) | useOfHalf(first + sizeof(Numbers)) << (wordBits / 2);
    }
}

} // namespace agent::core::fs
