#include "BlockSize.h"

#include "core/fs/ByteOrder.h"
#include "core/fs/FSUtil.h"
#include "core/fs/ext/EXTLayout.h"
#include "core/fs/xfs/XFSLayout.h"

#include <array>
#include <linux/fs.h>
#include <sys/ioctl.h>

namespace usedmap {

namespace {

namespace fs = agent::core::fs;
namespace ext = fs::ext_layout::super_block;
namespace xfs = fs::xfs_layout::super_block;

constexpr std::uint32_t commonSector = 512;
constexpr std::uint32_t largestExponent = 6; // ext: blocks of 64 KiB

} // namespace

std::uint32_t sectorSizeOf(const agent::core::IVolumeDevice& device) {
    int bytes = 0;
    return ::ioctl(device.getFd(), BLKSSZGET, &bytes) == 0 && bytes > 0 ? static_cast<std::uint32_t>(bytes)
                                                                        : commonSector;
}

std::uint32_t blockSizeOf(agent::info::Logger& logger, agent::core::IVolumeDevice& device,
                          std::uint32_t sectorSize) {
    std::array<std::uint8_t, ext::position + ext::size> head{};
    if (!fs::FSUtil::readExactly(logger, device, sectorSize, 0, head.data(), head.size())) {
        return 0;
    }
    const fs::Bytes extBlock = fs::Bytes(head).subspan(ext::position);
    if (fs::littleEndian<std::uint16_t>(extBlock, ext::magic) == ext::magicValue) {
        const auto exponent = fs::littleEndian<std::uint32_t>(extBlock, ext::logBlockSize);
        return exponent <= largestExponent ? std::uint32_t{1024} << exponent : 0;
    }
    return fs::bigEndian<std::uint32_t>(head, xfs::magic) == xfs::magicValue
               ? fs::bigEndian<std::uint32_t>(head, xfs::blockSize)
               : 0;
}

} // namespace usedmap
