#include "core/fs/ntfs/NTFSRunReader.h"

#include "core/fs/FSUtil.h"

#include <algorithm>
#include <utility>

namespace agent::core::fs {

NTFSRunReader::NTFSRunReader(const NTFSVolume& volume, std::vector<NTFSRun> runs)
    : volume(volume), runs(std::move(runs)) {}

std::uint64_t NTFSRunReader::size() const {
    std::uint64_t clusters = 0;
    for (const NTFSRun& run : runs) {
        clusters += static_cast<std::uint64_t>(run.length);
    }
    return clusters * volume.clusterBytes;
}

bool NTFSRunReader::read(std::uint64_t offset, std::span<std::uint8_t> target) {
    for (const NTFSRun& run : runs) {
        if (target.empty()) {
            break;
        }
        const std::uint64_t runBytes = static_cast<std::uint64_t>(run.length) * volume.clusterBytes;
        if (offset >= runBytes) {
            offset -= runBytes;
            continue;
        }
        const std::uint64_t place = static_cast<std::uint64_t>(run.lcn) * volume.clusterBytes + offset;
        const auto part = target.first(std::min<std::uint64_t>(target.size(), runBytes - offset));
        if (!FSUtil::readExactly(volume.logger, volume.reader, volume.sectorSize, place, part.data(),
                                 part.size())) {
            return false;
        }
        target = target.subspan(part.size());
        offset = 0;
    }
    return target.empty();
}

} // namespace agent::core::fs
