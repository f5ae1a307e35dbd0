#include "core/fs/UsedBlockBitmapChunkProviderFactory.h"

#include "core/fs/ext/EXTParser.h"
#include "core/fs/xfs/XFSParser.h"

#include <array>

namespace agent::core::fs {

namespace {

using Provider = std::unique_ptr<IBlockBitmapChunkProvider>;

/// The parser if it recognises the volume, else null.
template <typename Parser>
Provider recognized(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize) {
    auto parser = std::make_unique<Parser>(logger, reader, sectorSize);
    return parser->recognize() ? std::move(parser) : nullptr;
}

struct Candidate {
    const char* announcement;
    Provider (*make)(info::Logger&, IVolumeReader&, std::uint32_t);
};

/// In the order in which they are tried.
constexpr std::array candidates{
    Candidate{"Creating EXT Parser.", &recognized<EXTParser>},
    Candidate{"Creating XFS Parser.", &recognized<XFSParser>},
};

} // namespace

UsedBlockBitmapChunkProviderFactory::UsedBlockBitmapChunkProviderFactory(info::Logger& logger,
                                                                         std::uint32_t sectorSize,
                                                                         IVolumeReader* reader)
    : logger(logger), sectorSize(sectorSize), reader(reader) {}

std::unique_ptr<IBlockBitmapChunkProvider> UsedBlockBitmapChunkProviderFactory::create() {
    for (const Candidate& candidate : candidates) {
        if (Provider provider = candidate.make(logger, *reader, sectorSize)) {
            info::LogEntry(logger, info::level::debug) << candidate.announcement;
            return provider;
        }
    }
    return nullptr;
}

} // namespace agent::core::fs
