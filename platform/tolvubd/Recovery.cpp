#include "Recovery.h"

#include "CowFile.h"
#include "SnapshotNode.h"
#include "Tidying.h"
#include "capture/FrozenFileSystem.h"
#include "capture/StoppedServer.h"

#include <algorithm>
#include <set>

namespace tolvubd {

namespace {

void letGo(const Unfinished& unfinished) {
    if (unfinished.server) {
        continueIfStopped(*unfinished.server);
    }
    if (!unfinished.mountPoint.empty()) {
        thawIfFrozen(unfinished.mountPoint);
    }
}

/// What resists is kept, but not for ever.
void takeBack(std::vector<Unfinished>& list, Frozen frozen) {
    std::erase_if(list, [&](Unfinished& unfinished) {
        if (frozen == Frozen::maybe) {
            letGo(unfinished);
        }
        unfinished.mountPoint.clear();
        unfinished.server.reset();
        return tryTo("remove " + unfinished.cowFile,
                     [&] { removeCowFile(unfinished.cowFile, unfinished.snapshot); });
    });
    if (list.size() == mostUnfinished) {
        list.erase(list.begin());
    }
}

std::set<std::uint32_t> minorsShown(const Table& table) {
    std::set<std::uint32_t> minors;
    for (const Device& device : table.devices) {
        if (device.mode == Mode::snapshot) {
            minors.insert(device.minor);
        }
    }
    return minors;
}

} // namespace

Table tidyUp(Table table, Frozen frozen, const std::vector<IBackEnd*>& backEnds) {
    takeBack(table.unfinished, frozen);
    for (IBackEnd* backEnd : backEnds) {
        backEnd->dropLost(table);
    }
    tryTo("remove nodes", [&] { removeNodesExcept(minorsShown(table)); });
    for (IBackEnd* backEnd : backEnds) {
        backEnd->tidy(table);
    }
    return table;
}

} // namespace tolvubd
