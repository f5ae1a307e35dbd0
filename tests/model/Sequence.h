#pragma once

#include "model/ModelBackup.h"

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace agent::model {

/// Something that happens to a protected machine.
struct Event {
    enum class Kind {
        backup,
        change,          ///< `number` units of a volume
        restart,         ///< without its reload scripts
        restartReloaded, ///< with them
        removeHistory,
        truncateHistory,
        removeCowFiles,
        replaceImage,  ///< by one that holds nothing of the volume
        loseCount,     ///< the driver meets an error
        destroyDevice, ///< by the administrator
        releaseMounts, ///< whoever held a file open has gone
    };
    Kind kind = Kind::backup;
    std::size_t volume = 0;
    std::uint32_t number = 0;
    BackupOrder order;
};

using Events = std::vector<Event>;

/// The same events for the same source. `steps` is how many steps a backup has, about.
Events randomEvents(std::mt19937_64& source, std::uint32_t steps);

/// What a sequence of events came to. After its events, the machine is left in peace, and has to recover.
struct Verdict {
    std::string wrong; ///< empty, or which "finished" backup brought what not, or that none finishes any more
    std::size_t finished = 0;
    std::size_t incremental = 0; ///< of those, asked for as incremental
    std::size_t failed = 0;
    std::size_t killed = 0;
};

Verdict play(World& world, const Events& events);

/// As few of the events as still end wrong.
Events shrink(World& world, Events events);

/// A line for each event.
std::string describe(const Events& events);

} // namespace agent::model
