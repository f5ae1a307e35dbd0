#pragma once

#include "ElementMap.h"
#include "support/MemoryVolume.h"

#include <cstdint>
#include <string>
#include <vector>

namespace agent::contract {

/// A small image of a real volume, and what the file system's own tools report about it: a pair of files in
/// tests/images, in the format that the README there describes.
struct RealImage {
    enum class Verdict {
        readable, ///< it has a map
        refused,  ///< it is of this kind, but no map may be provided
        unknown,  ///< no parser recognizes it
    };

    /// KIND/NAME of all pairs, sorted. Includes files whose other half is missing.
    static std::vector<std::string> names();
    /// Throws std::runtime_error, with file and line, if a half is missing or malformed.
    explicit RealImage(const std::string& name);

    std::string kind; ///< the name of its directory
    test::MemoryVolume volume;
    Verdict verdict = Verdict::readable;
    std::uint32_t blockSize = 0;
    std::uint32_t sectorSize = 0;       ///< required of the device, unless it is unknown; 0: any
    bool mustStartAtFirstBlock = false; ///< reading the map from another block may be refused
    ElementMap used;                    ///< which blocks are used, as a parser must report it

private:
    void load(const std::string& path);
    void readTruth(const std::string& path);
    void readLine(const std::string& line);
    void setUsed(std::uint64_t first, std::uint64_t count);
};

} // namespace agent::contract
