#include "core/fs/UsedBlockBitmapChunkProviderFactory.h"

#include "core/fs/FileSystemKinds.h"

namespace agent::core::fs {

UsedBlockBitmapChunkProviderFactory::UsedBlockBitmapChunkProviderFactory(info::Logger& logger,
                                                                         std::uint32_t sectorSize,
                                                                         IVolumeReader* reader)
    : logger(logger), sectorSize(sectorSize), reader(reader) {}

std::unique_ptr<IBlockBitmapChunkProvider> UsedBlockBitmapChunkProviderFactory::create() {
    for (const FileSystemKind& kind : fileSystemKinds()) {
        std::unique_ptr<IFileSystemParser> parser = kind.makeParser(logger, *reader, sectorSize);
        if (parser->recognize()) {
            info::LogEntry(logger, info::level::debug) << kind.announcement;
            return parser;
        }
    }
    return nullptr;
}

std::string UsedBlockBitmapChunkProviderFactory::nearMiss() {
    for (const FileSystemKind& kind : fileSystemKinds()) {
        std::string reason =
            kind.findNearMiss != nullptr ? kind.findNearMiss(logger, *reader, sectorSize) : "";
        if (!reason.empty()) {
            return reason;
        }
    }
    return "";
}

} // namespace agent::core::fs
