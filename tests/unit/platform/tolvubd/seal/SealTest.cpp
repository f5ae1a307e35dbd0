#include "seal/Seal.h"

#include "../ExpectedError.h"
#include "FileAccess.h"
#include "SealedDevice.h"
#include "Uuid.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <span>
#include <string>
#include <sys/mman.h>
#include <utility>
#include <vector>

namespace tolvubd {
namespace {

using test::makeSeal;
using test::trackingId;

constexpr std::size_t deviceSize = std::size_t{1} << 20;
constexpr std::size_t slotSize = sealSize / 2;
const std::vector<Extent> inOnePiece = {{8192, 2 * sealSize}};

class MemoryDevice {
public:
    MemoryDevice() : file(::memfd_create("device", MFD_CLOEXEC)) {
        writeAt(file, std::vector<std::byte>(deviceSize), 0);
    }
    [[nodiscard]] std::vector<std::byte> bytes() const {
        std::vector<std::byte> all(deviceSize);
        readAt(file, all, 0);
        return all;
    }
    void flip(std::uint64_t offset, unsigned bit) const {
        std::byte byte{};
        readAt(file, std::span(&byte, 1), offset);
        byte ^= std::byte{1} << bit;
        writeAt(file, std::span(&byte, 1), offset);
    }

    os::FileDescriptor file;
};

Seal closed() {
    Seal seal = makeSeal();
    seal.end = Seal::End::clean;
    seal.device.layers->snapshotEra = 9;
    seal.device.layers->usedGroups = std::string(4096, '7');
    seal.fingerprint.reset();
    return seal;
}

TEST(Seal, ComesBackAsItWasWritten) {
    const MemoryDevice device;
    EXPECT_EQ(readSeal(device.file, inOnePiece, trackingId), std::nullopt);
    for (const Seal& seal : {makeSeal(), closed(), makeSeal(), closed()}) {
        writeSeal(device.file, inOnePiece, seal);
        EXPECT_EQ(readSeal(device.file, inOnePiece, trackingId), seal);
    }
}

TEST(Seal, IsThatOfOneTrackingOnly) {
    const MemoryDevice device;
    writeSeal(device.file, inOnePiece, makeSeal());
    EXPECT_EQ(readSeal(device.file, inOnePiece, makeUuid()), std::nullopt);
    Seal other = makeSeal();
    other.device.layers->id = makeUuid();
    writeSeal(device.file, inOnePiece, other);
    EXPECT_EQ(readSeal(device.file, inOnePiece, trackingId), std::nullopt);
}

TEST(Seal, MayLieInSeveralPieces) {
    const MemoryDevice device;
    const std::vector<Extent> places = {{512 << 10, 4096}, {4096, 8192}, {64 << 10, sealSize}};
    writeSeal(device.file, places, makeSeal());
    writeSeal(device.file, places, closed());
    EXPECT_EQ(readSeal(device.file, places, trackingId), closed());
    const std::vector<std::byte> bytes = device.bytes();
    std::size_t written = 0;
    for (std::size_t offset = 0; offset < bytes.size(); ++offset) {
        const bool isInside = (offset >= 512 << 10 && offset < (512 << 10) + 4096) ||
                              (offset >= 4096 && offset < 4096 + 8192) ||
                              (offset >= 64 << 10 && offset < (64 << 10) + sealSize - 12288);
        ASSERT_TRUE(isInside || bytes[offset] == std::byte{0}) << offset;
        written += bytes[offset] != std::byte{0} ? 1 : 0;
    }
    EXPECT_GT(written, 0);
}

TEST(Seal, IsNotWrittenWhereItHasNoRoom) {
    const MemoryDevice device;
    const std::vector<Extent> tooSmall = {{0, slotSize - 4096}};
    EXPECT_EQ(test::errorOf([&] { writeSeal(device.file, tooSmall, makeSeal()); }), EINVAL);
    Seal large = makeSeal();
    large.device.layers->usedGroups = std::string(slotSize, 'f');
    EXPECT_EQ(test::errorOf([&] { writeSeal(device.file, inOnePiece, large); }), EFBIG);
}

/// If the newest seal is damaged, the previous one or none must be read, but never anything else.
TEST(Seal, IsTheOneBeforeWhereABitOfItHasChanged) {
    const MemoryDevice device;
    writeSeal(device.file, inOnePiece, makeSeal());
    writeSeal(device.file, inOnePiece, closed());
    const std::uint64_t second = inOnePiece[0].offset + slotSize;
    for (std::uint64_t offset = 0; offset < slotSize; offset += offset < 64 ? 1 : 1021) {
        const auto bit = static_cast<unsigned>(offset % 8);
        device.flip(second + offset, bit);
        ASSERT_EQ(readSeal(device.file, inOnePiece, trackingId), makeSeal()) << offset;
        device.flip(second + offset, bit);
    }
    EXPECT_EQ(readSeal(device.file, inOnePiece, trackingId), closed());
}

TEST(Seal, IsTheOneBeforeWhereTheNewestWasCutOff) {
    const MemoryDevice device;
    writeSeal(device.file, inOnePiece, makeSeal());
    const std::vector<std::byte> before = device.bytes();
    writeSeal(device.file, inOnePiece, closed());
    const std::vector<std::byte> after = device.bytes();
    const std::uint64_t second = inOnePiece[0].offset + slotSize;
    constexpr std::size_t sector = 512;
    writeAt(device.file, before, 0);
    writeAt(device.file, std::span(after).subspan(second, sector), second);
    EXPECT_EQ(readSeal(device.file, inOnePiece, trackingId), makeSeal());
    writeSeal(device.file, inOnePiece, closed());
    EXPECT_EQ(readSeal(device.file, inOnePiece, trackingId), closed());
}

TEST(Start, HasANameOfItsOwn) {
    EXPECT_TRUE(isUuid(currentBootId()));
    EXPECT_EQ(currentBootId(), currentBootId());
}

} // namespace
} // namespace tolvubd
