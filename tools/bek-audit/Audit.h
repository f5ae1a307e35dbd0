#pragma once

#include "Draw.h"
#include "Strata.h"
#include "info/BackupableVolume.h"
#include "info/log/Logger.h"
#include "tools/restore/ImageAddress.h"
#include "tools/restore/Secret.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace audit {

struct Request {
    std::string volume; ///< where it is mounted, or its device
    std::string image;  ///< see restore::parseImageAddress
    std::uint64_t offset = 0;
    restore::SecretSource secret;
    std::uint64_t sample = 0; ///< blocks of each stratum
    double confidence = 0;
    std::uint64_t seed = 0;
};

/// A block that a backup leaves out and shouldn't.
struct Wrong {
    std::uint64_t offset = 0; ///< of its first byte on the volume
    std::string file;         ///< below the root of the volume; empty for none, or if that isn't known
};

/// Of one stratum. A block has 4096 bytes.
struct Findings {
    std::string notLookedAt;      ///< why; empty if it was
    std::uint64_t population = 0; ///< blocks
    std::uint64_t sampled = 0;
    std::uint64_t setAside = 0;  ///< of these, that differ, and were never written
    std::uint64_t undecided = 0; ///< of these, that nobody could judge
    std::vector<Wrong> wrong;    ///< of these, ascending
    double seconds = 0;

    /// The share that could be wrong at most. What is undecided counts as wrong.
    [[nodiscard]] double bound(double confidence) const;
};

struct Result {
    std::string volume; ///< as people know it
    std::array<Findings, strataCount> findings;

    [[nodiscard]] const Findings& of(Stratum stratum) const { return findings.at(indexOf(stratum)); }
    /// Of all that was looked at.
    [[nodiscard]] double bound(double confidence) const;
    [[nodiscard]] bool isClean() const;
};

/// Takes a snapshot of the volume, compares, and ends it. Throws std::exception.
Result run(agent::info::Logger& logger, const Request& request);

} // namespace audit
