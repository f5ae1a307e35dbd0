#pragma once

#include "common/Path.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace agent::info {

class Logger;

/// The header of a CoW file, as it was when the object was created; see docs/formats/cow.md.
/// Owns:    a copy of the header; the constructor closes the file again.
/// Threads: any thread may call it; it never changes.
/// Fails:   the constructor throws PosixError if it can't read the header or the file's size, and
///          std::logic_error if the file isn't a CoW file.
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
    /// The bytes from the beginning of the table to the end of the file; 0 if the file ends earlier.
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
