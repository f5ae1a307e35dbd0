#pragma once

#include "ElementMap.h"
#include "support/MemoryVolume.h"

#include <cstdint>
#include <string>
#include <vector>

namespace agent::contract {

/// A small image of a real volume, and what the tools of its file system say of it: a pair of files in
/// tests/images, whose README tells their form.
struct RealImage {
    enum class Verdict {
        readable, ///< there is a map
        refused,  ///< it is of its kind, but no map may come of it
        unknown,  ///< it is of no kind
    };

    /// KIND/NAME of all pairs, in order. What has lost its other half is among them.
    static std::vector<std::string> names();
    /// Throws std::runtime_error, with the place, if a half is missing or isn't of the form.
    explicit RealImage(const std::string& name);

    std::string kind; ///< the name of its folder
    test::MemoryVolume volume;
    Verdict verdict = Verdict::readable;
    std::uint32_t blockSize = 0;
    std::uint32_t sectorSize = 0;    ///< that a device must have, unless nobody knows its own; 0 for any
    bool isReadFromTheBegin = false; ///< a map from another block on may be refused
    ElementMap used;                 ///< of the blocks, as a parser is to have it

private:
    void load(const std::string& path);
    void readTruth(const std::string& path);
    void readLine(const std::string& line);
    void use(std::uint64_t first, std::uint64_t count);
};

} // namespace agent::contract
