#pragma once

#include "model/ModelBackup.h"

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace agent::model {

/// An event in the life of a protected machine.
struct Event {
    enum class Kind {
        backup,
        change,          ///< writes `number` units of a volume
        restart,         ///< without running the reload scripts
        restartReloaded, ///< with the reload scripts
        removeHistory,
        truncateHistory,
        removeCowFiles,
        replaceImage,  ///< replaces the image by one that holds nothing of the volume
        driverError,   ///< the driver has an error and stops tracking
        destroyDevice, ///< by the administrator
        releaseMounts, ///< the process that held a file open has ended
    };
    Kind kind = Kind::backup;
    std::size_t volume = 0;
    std::uint32_t number = 0;
    BackupOrder order;
};

using Events = std::vector<Event>;

/// The same random source gives the same events. `steps` is roughly how many steps a backup has.
Events randomEvents(std::mt19937_64& source, std::uint32_t steps);

/// The result of a sequence. After its events no more faults happen, and the machine must recover.
struct Verdict {
    std::string wrong; ///< empty, or what a finished backup lacks, or that backups no longer finish
    std::size_t finished = 0;
    std::size_t incremental = 0; ///< finished ones that were requested as incremental
    std::size_t failed = 0;
    std::size_t killed = 0;
};

Verdict play(World& world, const Events& events);

/// Removes events as long as the sequence still ends wrong.
Events shrink(World& world, Events events);

/// Describes each event on a line.
std::string describe(const Events& events);

} // namespace agent::model
