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
    std::string volume; ///< its mount point or its device
    std::string image;  ///< see restore::parseImageAddress
    std::uint64_t offset = 0;
    restore::SecretSource secret;
    std::uint64_t sample = 0; ///< blocks to draw from each stratum
    double confidence = 0;
    std::uint64_t seed = 0;
};

/// A block that backups wrongly leave out.
struct WrongBlock {
    std::uint64_t offset = 0; ///< of its first byte on the volume
    std::string file;         ///< owner's path, from the volume's root; empty if none is known
};

/// The result for one stratum. A block has 4096 bytes.
struct Findings {
    std::string skipReason;       ///< why the stratum wasn't checked; empty if it was
    std::uint64_t population = 0; ///< blocks
    std::uint64_t sampled = 0;
    std::uint64_t neverWritten = 0; ///< sampled blocks that differ, but were never written
    std::uint64_t undecided = 0;    ///< sampled blocks that neither the kernel nor the files could classify
    std::vector<WrongBlock> wrong;  ///< sampled blocks, ascending
    double seconds = 0;

    /// Upper bound of the share of wrong blocks. Undecided blocks count as wrong.
    [[nodiscard]] double bound(double confidence) const;
};

struct Result {
    std::string volume; ///< its display name
    std::array<Findings, strataCount> findings;

    [[nodiscard]] const Findings& of(Stratum stratum) const { return findings.at(indexOf(stratum)); }
    /// The bound over all strata that were checked.
    [[nodiscard]] double bound(double confidence) const;
    [[nodiscard]] bool isClean() const;
};

/// Takes a snapshot of the volume, compares it with the image, and ends the snapshot. Throws std::exception.
Result run(agent::info::Logger& logger, const Request& request);

} // namespace audit
