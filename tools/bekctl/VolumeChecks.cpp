#include "VolumeChecks.h"

#include "common/BaseDirectories.h"
#include "info/CowFileSize.h"
#include "info/DriverState.h"
#include "info/VolumeFiles.h"
#include "tools/common/Text.h"

#include <algorithm>
#include <unistd.h>

namespace bekctl {

using agent::info::minCowFileMiB;
using tools::plain;
using tools::sizeText;

namespace {

constexpr std::uint64_t bytesPerMiB = 1'048'576;

bool isThere(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

/// NTFS and exFAT have no reload script: the driver loses track of them with each restart, and nothing can be
/// done.
bool needsReloadScript(const VolumeFacts& facts) {
    const std::string& kind = facts.volume->getFileSystem();
    return kind != "ntfs" && kind != "exfat";
}

Finding checkReloadScript(const VolumeFacts& facts) {
    const std::string path = agent::dir::base() / ("reload_" + std::to_string(facts.device->minor));
    if (::access(path.c_str(), X_OK) == 0) {
        return {"reload-script", Verdict::ok, facts.name() + ": tracking lasts over a restart."};
    }
    return {"reload-script", Verdict::warning,
            facts.name() + ": " + path +
                " is missing, so a restart ends tracking and the backup after it compares everything.",
            "Nothing: the next backup writes it."};
}

Finding checkTracking(const VolumeFacts& facts, bool isBackupRunning) {
    const std::string consequence = ", so the next backup compares everything.";
    if (!facts.device) {
        return {"tracking", Verdict::warning, facts.name() + ": the driver doesn't track it" + consequence,
                "Nothing; after a restart of the machine see that the reload scripts have run in time."};
    }
    if (facts.device->error != 0) {
        return {"tracking", Verdict::warning,
                facts.name() + ": the driver reports " + facts.state() + consequence,
                "Nothing, once. If it comes back, set a larger volumes." + facts.volume->getUuid() +
                    ".cowFileSizeMiB."};
    }
    if (facts.isTracked() || isBackupRunning) {
        return {"tracking", Verdict::ok, facts.name() + ": changes are tracked."};
    }
    return {"tracking", Verdict::warning,
            facts.name() + ": an earlier run has left it in " + facts.state() + consequence,
            "Nothing: the next backup clears up."};
}

Finding checkHistory(const VolumeFacts& facts) {
    const std::string path =
        agent::Path(facts.volume->getMountPoints().front()) / agent::info::volume_files::history;
    if (isThere(path)) {
        return {"history", Verdict::ok, facts.name() + ": what failed backups owe is known."};
    }
    return {"history", Verdict::failure,
            facts.name() + ": " + plain(path) + " is missing, so an INCREMENTAL backup fails.",
            "Order one backup of another type."};
}

void checkUsable(Findings& found, const VolumeFacts& facts, bool wasBackedUp, bool isBackupRunning) {
    const std::string& uuid = facts.volume->getUuid();
    const auto add = [&](Finding finding) {
        finding.volume = uuid;
        found.push_back(std::move(finding));
    };
    add({"volume", Verdict::ok, facts.name() + " can be backed up."});
    if (wasBackedUp) {
        add(checkTracking(facts, isBackupRunning));
    }
    if (facts.isTracked()) {
        add(checkHistory(facts));
    }
    if (facts.isTracked() && needsReloadScript(facts)) {
        add(checkReloadScript(facts));
    }
    if (!isBackupRunning) { // a running backup has taken its space already
        add(checkSnapshotSpace(*facts.space, uuid, facts.name()));
    }
}

Finding unusableVolume(const VolumeFacts& facts) {
    return {"volume", Verdict::failure, facts.name() + " can't be backed up: " + facts.obstacle + ".",
            "Mount it so that it can be written to, or leave it out of the backup.", facts.volume->getUuid()};
}

Finding missingVolume(const std::string& uuid) {
    return {"volume", Verdict::warning, "Volume " + plain(uuid) + " was backed up once and isn't there.",
            "Leave it out of the backup if it is gone for good; else attach its disk.", uuid};
}

std::string settingText(const SnapshotSpace& space, const std::string& uuid) {
    const std::uint64_t fitting = fittingCowMebibytes(space);
    const std::string key = "volumes." + uuid + ".cowFileSizeMiB";
    if (fitting == 0) {
        const std::uint64_t beside = space.needed - space.cowMebibytes * bytesPerMiB;
        const std::uint64_t wanted =
            2 * minCowFileMiB * bytesPerMiB + beside - std::min(space.currentCowBytes, space.free);
        return "Free " + sizeText(wanted > space.free ? wanted - space.free : space.needed - space.free) +
               " and set " + key + " to " + std::to_string(minCowFileMiB) + ".";
    }
    return "Set " + key + " to " + std::to_string(fitting) +
           ", through the appliance or in config.json while the agent is stopped, or free room.";
}

} // namespace

std::uint64_t fittingCowMebibytes(const SnapshotSpace& space) {
    const std::uint64_t beside = space.needed - space.cowMebibytes * bytesPerMiB;
    const auto without = [beside](std::uint64_t bytes) { return bytes > beside ? bytes - beside : 0; };
    const std::uint64_t forNext = without(space.free);
    const std::uint64_t forBoth = without(space.free + space.currentCowBytes) / 2;
    const std::uint64_t most = std::min(forNext, forBoth) / 4 * 3 / bytesPerMiB; // a quarter stays for growth
    return most < minCowFileMiB ? 0 : std::min(most, space.cowMebibytes);
}

Finding checkSnapshotSpace(const SnapshotSpace& space, const std::string& uuid, const std::string& name) {
    const std::uint64_t cow = space.cowMebibytes * bytesPerMiB;
    const std::string size = sizeText(cow);
    if (space.free < space.needed) {
        return {"room", Verdict::failure,
                name + ": the next backup needs " + sizeText(space.needed) + " for its snapshot, and " +
                    sizeText(space.free) + " are free.",
                settingText(space, uuid)};
    }
    if (space.free + space.currentCowBytes < space.needed + cow) {
        return {"room", Verdict::failure,
                name + ": a backup of a tracked volume has two CoW files while it runs, of " + size +
                    " each. The next backup finds room, the one after it fails: " + sizeText(space.free) +
                    " are free.",
                settingText(space, uuid)};
    }
    return {"room", Verdict::ok,
            name + ": room for the snapshots, " + sizeText(space.needed) + " of " + sizeText(space.free) +
                " that are free."};
}

Findings checkVolumes(const std::vector<VolumeFacts>& volumes, const std::vector<std::string>& known,
                      bool isBackupRunning) {
    Findings found;
    const auto isKnown = [&](const std::string& uuid) { return std::ranges::count(known, uuid) > 0; };
    for (const VolumeFacts& facts : volumes) {
        const bool wasBackedUp = isKnown(facts.volume->getUuid());
        if (facts.obstacle.empty() && (wasBackedUp || known.empty())) {
            checkUsable(found, facts, wasBackedUp, isBackupRunning);
        } else if (wasBackedUp) {
            found.push_back(unusableVolume(facts));
        }
    }
    for (const std::string& uuid : known) {
        if (std::ranges::none_of(volumes,
                                 [&](const VolumeFacts& facts) { return facts.volume->getUuid() == uuid; })) {
            found.push_back(missingVolume(uuid));
        }
    }
    if (found.empty()) {
        found.push_back({"volume", Verdict::failure, "There is no volume that can be backed up.",
                         "Mount a file system that the agent knows; bekctl volumes says what keeps each."});
    }
    return found;
}

} // namespace bekctl
