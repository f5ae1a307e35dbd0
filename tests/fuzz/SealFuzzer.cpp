#include "FileAccess.h"
#include "os/FileDescriptor.h"
#include "seal/Checksum.h"
#include "seal/Seal.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <sys/mman.h>
#include <vector>

/// A seal with arbitrary text and a correct checksum: it must be refused, or writing it again must reproduce
/// it.
namespace {

constexpr std::size_t slotSize = tolvubd::sealSize / 2;
constexpr std::size_t summed = 16; // where the checksummed bytes begin
constexpr std::size_t textOffset = 32;
constexpr const char* id = "0f0c9f2e-57a5-4a0b-8a1c-000000000001";

void put(std::span<std::byte> slot, std::size_t offset, std::uint64_t value) {
    std::memcpy(slot.subspan(offset, sizeof value).data(), &value, sizeof value);
}

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::size_t length = std::min(size, slotSize - textOffset);
    std::vector<std::byte> slots(tolvubd::sealSize);
    const std::span<std::byte> slot(slots.data(), slotSize);
    std::memcpy(slot.data(), "TLVSEAL1", 8);
    put(slot, 16, 1);
    put(slot, 24, length);
    std::memcpy(slot.subspan(textOffset).data(), data, length);
    put(slot, 8, tolvubd::checksumOf(slot.subspan(summed)));
    const os::FileDescriptor device(::memfd_create("device", MFD_CLOEXEC));
    tolvubd::writeAt(device, slots, 0);
    const std::vector<tolvubd::Extent> places = {{0, tolvubd::sealSize}};
    if (const auto seal = tolvubd::readSeal(device, places, id)) {
        tolvubd::writeSeal(device, places, *seal);
        require(tolvubd::readSeal(device, places, id) == seal);
    }
    return 0;
}
