#include "FatDirtyFlags.h"

#include "common/PosixError.h"
#include "os/FileDescriptor.h"
#include "os/Transfer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <span>

namespace restore::check {

namespace {

constexpr std::size_t fatSectorBytes = 512;
constexpr std::size_t sectorSizeAt = 11;
constexpr std::size_t reservedSectorsAt = 14;
constexpr std::size_t fatsAt = 16;
constexpr std::size_t sectorsOfFatAt = 36;
constexpr std::size_t infoSectorAt = 48;
constexpr std::size_t stateAt = 65;
constexpr std::byte inUse{1};
/// The highest byte of the table's entry 1, which belongs to no cluster.
constexpr std::size_t dirtyFlagInFatAt = 7;
constexpr std::byte cleanFlag{8};
constexpr unsigned mostFats = 2;
constexpr std::size_t infoSignatureAt = 484;
constexpr std::array infoSignature{std::byte{0x72}, std::byte{0x72}, std::byte{0x41}, std::byte{0x61}};
constexpr std::size_t freeClustersAt = 488;
constexpr std::array unknownNumber{std::byte{0xff}, std::byte{0xff}, std::byte{0xff}, std::byte{0xff}};

using Sector = std::array<std::byte, fatSectorBytes>;

Sector readSector(int device, std::uint64_t offset) {
    Sector sector{};
    const os::Transfer got = os::readUpToAt(device, sector, offset);
    if (got.error != 0) {
        throw agent::PosixError("it can't be read", got.error);
    }
    return sector;
}

void write(int device, std::span<const std::byte> bytes, std::uint64_t offset) {
    if (!os::writeAllAt(device, bytes, offset)) {
        throw agent::PosixError("the overlay can't be written", errno);
    }
}

std::uint64_t number16(const Sector& sector, std::size_t place) {
    constexpr unsigned byteBits = 8;
    return std::to_integer<std::uint64_t>(sector.at(place)) |
           std::to_integer<std::uint64_t>(sector.at(place + 1)) << byteBits;
}

std::uint64_t number32(const Sector& sector, std::size_t place) {
    constexpr unsigned wordBits = 16;
    return number16(sector, place) | number16(sector, place + 2) << wordBits;
}

/// Each copy of the table has the flag, and the copies have to stay equal.
void clearInTables(int device, const Sector& boot) {
    const std::uint64_t sectorBytes = number16(boot, sectorSizeAt);
    const unsigned count = std::min(std::to_integer<unsigned>(boot.at(fatsAt)), mostFats);
    for (unsigned table = 0; table < count; ++table) {
        const std::uint64_t sector =
            number16(boot, reservedSectorsAt) + table * number32(boot, sectorsOfFatAt);
        const std::byte flag = readSector(device, sector * sectorBytes).at(dirtyFlagInFatAt) | cleanFlag;
        write(device, {&flag, 1}, sector * sectorBytes + dirtyFlagInFatAt);
    }
}

void invalidateFreeClusterCount(int device, const Sector& boot) {
    const std::uint64_t place = number16(boot, infoSectorAt) * number16(boot, sectorSizeAt);
    const Sector info = readSector(device, place);
    const auto signature = std::span(info).subspan(infoSignatureAt, infoSignature.size());
    if (place != 0 && std::ranges::equal(signature, infoSignature)) {
        write(device, unknownNumber, place + freeClustersAt);
    }
}

} // namespace

void clearFatDirtyFlags(const std::string& device) {
    const os::FileDescriptor file(::open(device.c_str(), O_RDWR | O_CLOEXEC));
    if (!file) {
        throw agent::PosixError(device + " can't be opened", errno);
    }
    const Sector boot = readSector(file.get(), 0);
    const std::byte state = boot.at(stateAt) & ~inUse;
    write(file.get(), {&state, 1}, stateAt);
    clearInTables(file.get(), boot);
    invalidateFreeClusterCount(file.get(), boot);
}

} // namespace restore::check
