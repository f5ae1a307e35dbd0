#pragma once

#include "FileAccess.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string>

namespace tolvubd {

/// The driver's file on the volume: a header of 4096 bytes, and a table with one 64-bit word for each 4096
/// bytes (unit) of the volume. A word that isn't 0 says that the unit has changed.
namespace cow {

inline constexpr std::uint32_t magic = 4776;
inline constexpr std::uint64_t version = 1;
inline constexpr std::uint64_t unitSize = 4096;
inline constexpr std::uint64_t tableOffset = 4096;

constexpr std::uint64_t unitsOf(std::uint64_t volumeSize) {
    return volumeSize / unitSize + (volumeSize % unitSize != 0 ? 1 : 0);
}

constexpr std::uint64_t tableEnd(std::uint64_t volumeSize) {
    return tableOffset + unitsOf(volumeSize) * sizeof(std::uint64_t);
}

} // namespace cow

/// Makes a CoW file with an empty table and all its space reserved. The file gets its name only when it is
/// complete. It replaces a CoW file of the same name; any other file there fails with EEXIST.
void makeCowFile(const std::string& path, const std::string& snapshot, std::uint64_t size);

/// Writes the table and the count of changed units of a CoW file.
/// Owns:    a descriptor of the file.
/// Threads: one at a time.
/// Fails:   std::system_error.
class CowTable {
public:
    /// Fails with ENOENT when there is no such file, ELOOP when it is a symbolic link, EBADMSG when it isn't
    /// the CoW file of this snapshot, and EFBIG when the table doesn't fit.
    CowTable(const std::string& path, const std::string& snapshot, std::uint64_t volumeSize);

    void write(std::uint64_t firstUnit, std::span<const std::uint64_t> words);
    /// Makes the table durable first, and then the count.
    void finish(std::uint64_t changedUnits);

private:
    std::string path;
    os::FileDescriptor file;
};

/// The snapshot UUID in the header of a CoW file. Fails as CowTable does.
std::string snapshotOf(const std::string& path);

/// Removes the file if it is the CoW file of the snapshot, and any unfinished file beside it.
void removeCowFile(const std::string& path, const std::string& snapshot);

} // namespace tolvubd
