#include "FileRanges.h"

#include "core/fs/FileSystemKinds.h"

#include <stdexcept>

namespace usedmap {

agent::core::fs::FileBlocks findFileRanges(agent::info::Logger& logger, agent::core::IVolumeReader& device,
                                           std::uint32_t sectorSize, const std::string& path) {
    for (const agent::core::fs::FileSystemKind& kind : agent::core::fs::fileSystemKinds()) {
        if (kind.makeParser(logger, device, sectorSize)->recognize()) {
            if (kind.findFile == nullptr) {
                throw std::runtime_error("files can't be looked for on volumes of " +
                                         std::string(kind.volumes));
            }
            return kind.findFile(logger, device, sectorSize, path);
        }
    }
    throw std::runtime_error("the file system is of no kind that is known");
}

} // namespace usedmap
