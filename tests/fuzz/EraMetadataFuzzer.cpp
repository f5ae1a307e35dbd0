#include "FileAccess.h"
#include "era/EraMetadata.h"
#include "era/Format.h"
#include "os/Crc32c.h"
#include "os/FileDescriptor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <sys/mman.h>
#include <system_error>
#include <unistd.h>
#include <vector>

/// Any bytes as the metadata of an era target: refused as unsound, or the set of a later era is a part of
/// that of an earlier one. An input is, least significant byte first:
///
///     u8  0 for what is current, 1 for what a metadata snapshot holds; modulo 2
///     u8  an era
///     u16 offset on the device in units of 64 bytes, u8 length in the same unit in the low six bits and the
///         kind of block in the high two, the bytes; and so on
///
/// What no record covers is zeros. A block of a kind gets its place and its checksum put right, as no fuzzer
/// finds one; one of kind 0 stays.
namespace {

using tolvubd::EraMetadata;
using Block = std::array<std::byte, tolvubd::era::blockSize>;

constexpr std::size_t deviceBlocks = 64;
constexpr std::size_t unit = 64;
constexpr std::size_t unitsInBlock = tolvubd::era::blockSize / unit;

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

class Device {
public:
    explicit Device(std::span<const std::uint8_t> records)
        : blocks(deviceBlocks), kinds(deviceBlocks), file(::memfd_create("era", MFD_CLOEXEC)) {
        while (records.size() >= 3) {
            records = records.subspan(put(records));
        }
        for (std::uint64_t place = 0; place < deviceBlocks; ++place) {
            if (kinds[place] != 0) {
                putRight(place, *kindOf[kinds[place]]);
                tolvubd::writeAt(file, blocks[place], place * tolvubd::era::blockSize);
            }
        }
        require(::ftruncate(file.get(), size) == 0);
    }

    [[nodiscard]] const os::FileDescriptor& descriptor() const { return file; }

    static constexpr off_t size = deviceBlocks * tolvubd::era::blockSize;

private:
    static constexpr std::array<const tolvubd::era::BlockKind*, 4> kindOf = {
        nullptr, &tolvubd::era::superblock::kind, &tolvubd::era::node::kind, &tolvubd::era::array::kind};

    /// Returns how long the first record is.
    std::size_t put(std::span<const std::uint8_t> records) {
        const std::size_t first = records[0] + std::size_t{records[1]} * 256;
        const std::size_t begin = first % unitsInBlock * unit;
        const std::size_t length =
            std::min({records[2] % unitsInBlock * unit, records.size() - 3, tolvubd::era::blockSize - begin});
        const std::size_t place = first / unitsInBlock % deviceBlocks;
        std::ranges::copy(std::as_bytes(records.subspan(3, length)), blocks[place].begin() + begin);
        kinds[place] = std::max(kinds[place], records[2] / unitsInBlock);
        return 3 + length;
    }

    void putRight(std::uint64_t place, const tolvubd::era::BlockKind& kind) {
        Block& block = blocks[place];
        std::memcpy(&block[kind.placeOffset], &place, sizeof place);
        const std::uint32_t sum = ~os::crc32c(std::span(block).subspan(sizeof(std::uint32_t))) ^ kind.salt;
        std::memcpy(block.data(), &sum, sizeof sum);
    }

    std::vector<Block> blocks;
    std::vector<std::size_t> kinds;
    os::FileDescriptor file;
};

void requireEarlierIsMore(const EraMetadata& metadata, std::uint32_t era) {
    const std::vector<bool> since = metadata.writtenSince(era);
    const std::vector<bool> after = metadata.writtenSince(era + 1);
    require(since.size() == metadata.blocks() && after.size() == since.size());
    for (std::size_t block = 0; block < since.size(); ++block) {
        require(since[block] || !after[block]);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span input(data, size);
    if (input.size() < 2) {
        return 0;
    }
    const Device device(input.subspan(2));
    try {
        const auto view = input[0] % 2 == 0 ? EraMetadata::View::current : EraMetadata::View::snapshot;
        requireEarlierIsMore(EraMetadata(device.descriptor(), Device::size, view), input[1]);
    } catch (const std::system_error& error) {
        require(error.code().value() == EBADMSG);
    }
    return 0;
}
