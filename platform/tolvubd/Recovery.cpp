#include "Recovery.h"

#include "AtomicFile.h"
#include "CowFile.h"
#include "Failure.h"
#include "Layout.h"
#include "SnapshotNode.h"
#include "TryTo.h"
#include "capture/FrozenFileSystem.h"
#include "capture/StoppedServer.h"
#include "mapper/LayerStack.h"
#include "mapper/OwnFiles.h"

#include <algorithm>
#include <set>

namespace tolvubd {

namespace {

void releaseHold(const Unfinished& unfinished) {
    if (unfinished.server) {
        continueIfStopped(*unfinished.server);
    }
    if (!unfinished.mountPoint.empty()) {
        thawIfFrozen(unfinished.mountPoint);
    }
}

/// A process that died may have left its volume held. No other process holds it now, because the caller has
/// the driver's lock.
void releaseHolds(std::vector<Unfinished>& list, Held held) {
    for (Unfinished& unfinished : list) {
        if (held == Held::maybe) {
            releaseHold(unfinished);
        }
        unfinished.mountPoint.clear();
        unfinished.server.reset();
    }
}

void removeFiles(const Unfinished& unfinished) {
    if (unfinished.layers.empty()) {
        removeCowFile(unfinished.cowFile, unfinished.snapshot);
        return;
    }
    const LayerStack stack(unfinished.layers);
    if (stack.hasStore()) {
        fail(EBUSY, "a snapshot still has its store in it");
    }
    removeLockedCowFile(unfinished.cowFile, unfinished.snapshot);
    if (!stack.isPresent()) {
        removeLockedFile(directoryOf(unfinished.cowFile) + "/" + layout::eraFile);
    }
}

/// An entry whose files can't be removed stays in the list, but a full list loses its oldest entry.
void removeUnfinishedFiles(std::vector<Unfinished>& list) {
    std::erase_if(list, [&](const Unfinished& unfinished) {
        return tryTo("remove " + unfinished.cowFile, [&] { removeFiles(unfinished); });
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

Table reconcileMachine(Table table, Held held, const std::vector<IBackEnd*>& backEnds) {
    releaseHolds(table.unfinished, held);
    for (IBackEnd* backEnd : backEnds) {
        backEnd->examine(table);
    }
    tryTo("remove nodes", [&] { removeNodesExcept(minorsShown(table)); });
    for (IBackEnd* backEnd : backEnds) {
        backEnd->reconcile(table);
    }
    removeUnfinishedFiles(table.unfinished);
    return table;
}

} // namespace tolvubd
