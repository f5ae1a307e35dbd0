#pragma once

#include "common/Path.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace agent::info {

class Logger;

/// What the header of a CoW file says, as it was when the object was made; see docs/formats/cow.md.
/// Owns:    the header's bytes; the file is closed again.
/// Threads: safe from any; it never changes.
/// Fails:   the constructor throws PosixError for a file that can't be read as far as its header goes, and
///          std::logic_error for one that is no CoW file.
class CowFile {
public:
    CowFile(Logger& logger, const Path& path);
    CowFile(const CowFile&) = default;
    CowFile& operator=(const CowFile&) = default;
    CowFile(CowFile&&) = default;
    CowFile& operator=(CowFile&&) = default;
    virtual ~CowFile() = default;

    [[nodiscard]] const std::string& getSnapshotUuid() const { return snapshotUuid; }
    [[nodiscard]] std::uint64_t getVersion() const;
    [[nodiscard]] std::uint64_t getChangedBlocks() const;
    /// Where the table of changed blocks begins.
    [[nodiscard]] std::uint64_t getBitmapOffset() const;
    /// From the table's begin to the file's end; 0 if the file ends before.
    [[nodiscard]] std::uint64_t getBitmapLength() const;
    [[nodiscard]] std::uint64_t getBitmapEntries() const;
    /// How many bytes of the volume one entry stands for.
    [[nodiscard]] std::uint64_t getBlockSize() const;

private:
    static constexpr std::size_t headerSize = 64;

    std::array<std::byte, headerSize> header{};
    std::uint64_t fileSize = 0;
    std::string snapshotUuid;
};

} // namespace agent::info
