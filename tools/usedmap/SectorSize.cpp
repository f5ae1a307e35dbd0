#include "SectorSize.h"

#include <linux/fs.h>
#include <sys/ioctl.h>

namespace usedmap {

namespace {

constexpr std::uint32_t commonSector = 512;

} // namespace

std::uint32_t sectorSizeOf(const agent::core::IVolumeDevice& device) {
    int bytes = 0;
    return ::ioctl(device.getFd(), BLKSSZGET, &bytes) == 0 && bytes > 0 ? static_cast<std::uint32_t>(bytes)
                                                                        : commonSector;
}

} // namespace usedmap
