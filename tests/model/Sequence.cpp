#include "model/Sequence.h"

#include "common/File.h"
#include "model/ModelDriver.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <unistd.h>

namespace agent::model {

namespace {

using core::backup::DIFFERENTIAL_MERGE;
using core::backup::FULL;
using core::backup::INCREMENTAL;

constexpr std::size_t mostEvents = 14;

std::uint32_t below(std::mt19937_64& source, std::uint32_t limit) {
    return static_cast<std::uint32_t>(source() % limit);
}

Fault randomFault(std::mt19937_64& source, std::uint32_t steps) {
    using enum Fault::Kind;
    constexpr std::array kinds = {none, none, none, kill, kill, fail, fail, diskFull};
    return {kinds.at(below(source, kinds.size())), 1 + below(source, steps)};
}

BackupOrder randomOrder(std::mt19937_64& source, std::uint32_t steps, std::size_t volumes) {
    constexpr std::array types = {INCREMENTAL, INCREMENTAL, INCREMENTAL, DIFFERENTIAL_MERGE, FULL};
    BackupOrder order;
    order.type = types.at(below(source, types.size()));
    order.volumes = volumes;
    order.fault = randomFault(source, steps * static_cast<std::uint32_t>(volumes));
    order.isHeldOpen = below(source, 8) == 0;
    order.isMountLeft = below(source, 2) == 0;
    order.isSnapshotLost = below(source, 8) == 0;
    return order;
}

Event::Kind randomKind(std::mt19937_64& source) {
    using enum Event::Kind;
    constexpr std::array kinds = {backup,          backup,        backup,          backup,
                                  backup,          backup,        change,          change,
                                  change,          restart,       restart,         restartReloaded,
                                  restartReloaded, removeHistory, truncateHistory, removeCowFiles,
                                  replaceImage,    driverError,   destroyDevice,   releaseMounts};
    return kinds.at(below(source, kinds.size()));
}

const char* textOf(Event::Kind kind) {
    constexpr std::array texts = {
        "backup",         "change",           "restart",          "restart with reload",
        "remove history", "truncate history", "remove CoW files", "replace image",
        "driver error",   "destroy device",   "release mounts"};
    return texts.at(static_cast<std::size_t>(kind));
}

const char* textOf(Fault::Kind kind) {
    constexpr std::array texts = {"no fault", "killed at", "failure at", "disk full from"};
    return texts.at(static_cast<std::size_t>(kind));
}

std::string textOf(const BackupOrder& order) {
    const char* type = order.type == FULL ? "FULL" : order.type == INCREMENTAL ? "INCREMENTAL" : "MERGE";
    return std::string(type) + " of " + std::to_string(order.volumes) + ", " + textOf(order.fault.kind) +
           " " + std::to_string(order.fault.at) + (order.isHeldOpen ? ", file held open" : "") +
           (order.isMountLeft ? ", mount left" : "") + (order.isSnapshotLost ? ", snapshot lost" : "");
}

/// The machine during one sequence of events.
class SequenceRun {
public:
    explicit SequenceRun(World& world) : world(world), driver(world) {
        world.reset();
        driver.publish();
    }

    // Only a backup runs the agent's code. All other events change the driver's state, files, images or
    // mounts without the agent.
    void apply(const Event& event) {
        VolumeState& volume = world.volume(event.volume);
        switch (event.kind) {
        case Event::Kind::backup:
            backUp(event.order);
            break;
        case Event::Kind::change:
            change(volume, event.number);
            break;
        case Event::Kind::restart:
            restart();
            break;
        case Event::Kind::restartReloaded:
            restart();
            driver.runReloadScripts();
            break;
        case Event::Kind::removeHistory:
            ::unlink(world.historyOf(event.volume).c_str());
            break;
        case Event::Kind::truncateHistory:
            truncate(world.historyOf(event.volume), event.number);
            break;
        case Event::Kind::removeCowFiles:
            removeCowFiles(event.volume);
            break;
        case Event::Kind::replaceImage:
            volume.image.fill(world.newStamp());
            break;
        case Event::Kind::driverError:
            failDriver(volume.device);
            break;
        case Event::Kind::destroyDevice:
            if (volume.device.state == tracking) {
                driver.destroy(static_cast<std::uint32_t>(volume.device.minor));
            }
            break;
        case Event::Kind::releaseMounts:
            mounts.release();
            break;
        }
    }

    /// Runs backups without faults, of which the last must succeed. Two may fail because of what the events
    /// left. A missing history requires another backup type, and two backups of it if a CoW file is missing
    /// as well.
    void recover() {
        mounts.release();
        Outcome last = Outcome::failed;
        for (const std::uint32_t type :
             {INCREMENTAL, INCREMENTAL, DIFFERENTIAL_MERGE, DIFFERENTIAL_MERGE, INCREMENTAL}) {
            change(world.volume(0), 3);
            last = backUp({type, volumeCount, {}, false, false});
        }
        if (verdict.wrong.empty() && last != Outcome::finished) {
            verdict.wrong = "it doesn't recover";
        }
    }

    [[nodiscard]] bool isWrong() const { return !verdict.wrong.empty(); }

    Verdict verdict;

private:
    Outcome backUp(const BackupOrder& order) {
        const BackupResult result = runBackup(world, order, mounts);
        if (result.outcome == Outcome::finished) {
            ++verdict.finished;
            verdict.incremental += order.type == INCREMENTAL ? 1 : 0;
        }
        verdict.failed += result.outcome == Outcome::failed ? 1 : 0;
        verdict.killed += result.outcome == Outcome::killed ? 1 : 0;
        if (!result.wrong.empty() && verdict.wrong.empty()) {
            verdict.wrong = "finished without" + result.wrong;
        }
        return result.outcome;
    }

    void change(VolumeState& volume, std::uint32_t number) {
        for (std::uint32_t count = 0; count < number; ++count) {
            const std::uint32_t stamp = world.newStamp();
            volume.content.at(std::size_t{stamp} * 7 % unitCount) = stamp;
        }
    }

    /// A restart removes all mounts and ends the processes that used them.
    void restart() {
        mounts.clear();
        driver.restart();
    }

    static void truncate(const std::string& path, std::uint32_t bytes) {
        if (file::exists(path)) {
            std::filesystem::resize_file(path, bytes);
        }
    }

    void removeCowFiles(std::size_t index) {
        for (const bool isSecond : {false, true}) {
            ::unlink((world.mountPointOf(index) + cowName(isSecond)).c_str());
        }
    }

    void failDriver(Device& device) {
        if (device.state != noDevice) {
            device.error = 5;
            driver.publish();
        }
    }

    World& world;
    ModelDriver driver;
    HeldMounts mounts;
};

} // namespace

Events randomEvents(std::mt19937_64& source, std::uint32_t steps) {
    const std::size_t volumes = 1 + below(source, volumeCount);
    Events events(1);
    events.front().order = {FULL, volumes, {}, false, false};
    const std::size_t count = 3 + below(source, mostEvents - 3);
    while (events.size() < count) {
        Event event;
        event.kind = randomKind(source);
        event.volume = below(source, static_cast<std::uint32_t>(volumes));
        event.number =
            event.kind == Event::Kind::truncateHistory ? below(source, cowFileSize) : 1 + below(source, 5);
        event.order = randomOrder(source, steps, volumes);
        events.push_back(event);
    }
    return events;
}

Verdict play(World& world, const Events& events) {
    SequenceRun machine(world);
    for (const Event& event : events) {
        machine.apply(event);
    }
    if (!machine.isWrong()) {
        machine.recover();
    }
    return machine.verdict;
}

Events shrink(World& world, Events events) {
    for (std::size_t at = events.size(); at-- > 0;) {
        Events fewer = events;
        fewer.erase(fewer.begin() + static_cast<std::ptrdiff_t>(at));
        if (!play(world, fewer).wrong.empty()) {
            events = std::move(fewer);
        }
    }
    return events;
}

std::string describe(const Events& events) {
    std::string text;
    for (const Event& event : events) {
        text += event.kind == Event::Kind::backup
                    ? textOf(event.order)
                    : textOf(event.kind) + (" of volume " + std::to_string(event.volume)) + " (" +
                          std::to_string(event.number) + ")";
        text += "\n";
    }
    return text;
}

} // namespace agent::model
