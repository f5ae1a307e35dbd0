#include "core/fs/hfs/HFSMisplacedHeader.h"

#include "core/fs/FSUtil.h"
#include "core/fs/hfs/HFSLayout.h"
#include "core/fs/hfs/HFSVolumeHeader.h"

#include <array>

namespace agent::core::fs {

namespace {

namespace layout = hfs_layout::volume_header;

} // namespace

bool hasHeaderAtItsUsualPlace(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize) {
    std::array<std::uint8_t, layout::size> bytes{};
    if (!FSUtil::readExactly(logger, reader, sectorSize, layout::usualPosition, bytes.data(), bytes.size())) {
        return false;
    }
    const HFSVolumeHeader header = HFSVolumeHeader::decode(bytes);
    return header.hasSignature() && header.hasKnownVersion() && header.hasPossibleBlockSize();
}

} // namespace agent::core::fs
