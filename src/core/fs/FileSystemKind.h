#pragma once

#include "core/fs/FileBlocks.h"
#include "core/fs/IFileSystemParser.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <memory>
#include <string>

namespace agent::core::fs {

/// A kind of file system: an entry of fileSystemKinds(). Each is defined in the folder of its kind.
struct FileSystemKind {
    using MakeParser = std::unique_ptr<IFileSystemParser> (*)(info::Logger&, IVolumeReader&,
                                                              std::uint32_t sectorSize);

    using FindNearMiss = std::string (*)(info::Logger&, IVolumeReader&, std::uint32_t sectorSize);

    using FindFile = FileBlocks (*)(info::Logger&, IVolumeReader&, std::uint32_t sectorSize,
                                    const std::string& path);

    const char* name = nullptr;         ///< the name of its folder
    const char* volumes = nullptr;      ///< a description of its volumes, for people
    const char* announcement = nullptr; ///< the debug line after a volume is recognised
    MakeParser makeParser = nullptr;    ///< creates a parser, nothing read yet; the reader must outlive it
    /// Explains, for people, why a volume isn't recognised though it looks like this kind; empty if it
    /// doesn't. Null if this kind has no such volumes.
    FindNearMiss findNearMiss = nullptr;
    /// Finds the blocks of a file by its path, in the kind's own syntax. Throws std::runtime_error on
    /// failure. Null if this kind can't look up files.
    FindFile findFile = nullptr;
};

template <typename Parser>
std::unique_ptr<IFileSystemParser> makeParser(info::Logger& logger, IVolumeReader& reader,
                                              std::uint32_t sectorSize) {
    return std::make_unique<Parser>(logger, reader, sectorSize);
}

} // namespace agent::core::fs
