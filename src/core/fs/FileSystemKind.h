#pragma once

#include "core/fs/FileBlocks.h"
#include "core/fs/IFileSystemParser.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <memory>
#include <string>

namespace agent::core::fs {

/// A kind of file system: a row of the table in FileSystemKinds.h, which stands beside the code of the kind.
struct FileSystemKind {
    using MakeParser = std::unique_ptr<IFileSystemParser> (*)(info::Logger&, IVolumeReader&,
                                                              std::uint32_t sectorSize);

    using FindNearMiss = std::string (*)(info::Logger&, IVolumeReader&, std::uint32_t sectorSize);

    using FindFile = FileBlocks (*)(info::Logger&, IVolumeReader&, std::uint32_t sectorSize,
                                    const std::string& path);

    const char* name = nullptr;         ///< that of its folder
    const char* volumes = nullptr;      ///< which volumes are meant, for people
    const char* announcement = nullptr; ///< the debug line once a volume is recognised
    MakeParser makeParser = nullptr;    ///< a parser that has read nothing yet; the reader must outlive it
    /// Why a volume isn't recognised though it may seem to be one of these, for people; empty where it
    /// doesn't seem so. Null where no volume does.
    FindNearMiss findNearMiss = nullptr;
    /// Where a file lies on a volume of this kind, by its path as the kind writes one. Throws
    /// std::runtime_error if that can't be told. Null where files can't be looked for.
    FindFile findFile = nullptr;
};

template <typename Parser>
std::unique_ptr<IFileSystemParser> makeParser(info::Logger& logger, IVolumeReader& reader,
                                              std::uint32_t sectorSize) {
    return std::make_unique<Parser>(logger, reader, sectorSize);
}

} // namespace agent::core::fs
