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

/// Arbitrary bytes as the metadata of a dm-era target: they are refused as invalid, or the blocks written
/// since a later era are a subset of those since an earlier era. Format of an input, little-endian:
///
///     u8  modulo 2: 0 for the current metadata, 1 for what a metadata snapshot holds
///     u8  an era
///     u16 offset on the device in units of 64 bytes, u8 length in the same unit in the low six bits and the
///         kind of block in the high two, the bytes; and so on
///
/// Bytes that no record covers are zeros. If a block has a kind, its block number and checksum are corrected,
/// since no fuzzer would find them. Blocks of kind 0 stay as they are.
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

    /// Writes the first record. Returns its length.
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
