#include "Recovery.h"

#include "CowFile.h"
#include "FileAccess.h"
#include "Layout.h"
#include "SystemLog.h"
#include "capture/FrozenFileSystem.h"
#include "capture/SnapshotNode.h"
#include "capture/StoppedServer.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <set>

namespace tolvubd {

namespace {

namespace fs = std::filesystem;

template <class Work>
bool tryTo(const std::string& what, const Work& work) {
    try {
        work();
        return true;
    } catch (const std::exception& error) {
        logLine(Severity::warning, "can't " + what + ": " + error.what());
        return false;
    }
}

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

std::set<std::string> capturesShown(const Table& table) {
    std::set<std::string> shown;
    for (const Device& device : table.devices) {
        if (device.mode == Mode::snapshot) {
            shown.insert(layout::capture(device.snapshot));
        }
    }
    return shown;
}

std::set<std::string> capturesKept(const Table& table) {
    std::set<std::string> kept;
    for (const auto* devices : {&table.devices, &table.asleep}) {
        for (const Device& device : *devices) {
            kept.insert(layout::capture(device.snapshot));
        }
    }
    return kept;
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

void tidyStore(const Table& table) {
    const std::set<std::string> shown = capturesShown(table);
    const std::set<std::string> kept = capturesKept(table);
    for (const fs::directory_entry& entry : fs::directory_iterator(layout::store)) {
        const std::string path = entry.path();
        // A capture without a name couldn't be found again to be detached.
        if (path.ends_with(layout::captureSuffix) && !shown.contains(path) &&
            tryTo("detach " + path, [&] { detachCapture(path); }) && !kept.contains(path)) {
            tryTo("remove " + path, [&] { removeFile(path); });
        }
    }
}

void dropWithoutCapture(std::vector<Device>& devices) {
    std::erase_if(devices, [](const Device& device) {
        std::error_code error;
        const auto status = fs::status(layout::capture(device.snapshot), error);
        if (status.type() != fs::file_type::not_found) {
            return false;
        }
        logLine(Severity::error, "the capture of " + device.blockDevice + " is gone, and so is its device");
        return true;
    });
}

} // namespace

Table tidyUp(Table table, Frozen frozen) {
    takeBack(table.unfinished, frozen);
    dropWithoutCapture(table.devices);
    dropWithoutCapture(table.asleep);
    tryTo("remove nodes", [&] { removeNodesExcept(minorsShown(table)); });
    tryTo("tidy the store", [&] { tidyStore(table); });
    return table;
}

} // namespace tolvubd
