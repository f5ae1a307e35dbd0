#pragma once

#include "FileAccess.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string>

namespace tolvubd {

/// The driver's file on the volume: a header of 4096 bytes, and a table with one word for each 4096 bytes of
/// the volume. A word that isn't 0 says that those bytes have changed.
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

/// Makes a CoW file with an empty table and all its space reserved. It gets its name only when it is whole;
/// a CoW file that had the name before is replaced. Anything else there is not: EEXIST.
void makeCowFile(const std::string& path, const std::string& snapshot, std::uint64_t size);

/// Writes the table and the count of changed units of a CoW file.
class CowTable {
public:
    /// ENOENT, ELOOP or EBADMSG when there is no such file, it is a link, or not the CoW file of the
    /// snapshot; EFBIG when the table doesn't fit.
    CowTable(const std::string& path, const std::string& snapshot, std::uint64_t volumeSize);

    void write(std::uint64_t firstUnit, std::span<const std::uint64_t> words);
    /// Makes the table durable, and only then the count.
    void finish(std::uint64_t changedUnits);

private:
    std::string path;
    os::FileDescriptor file;
};

/// The UUID in the header of a CoW file. Fails as CowTable does.
std::string snapshotOf(const std::string& path);

/// Removes the file if it is the CoW file of the snapshot, and what was left of it unfinished.
void removeCowFile(const std::string& path, const std::string& snapshot);

} // namespace tolvubd
