#include "VolumeChecks.h"

#include "info/DriverState.h"

#include <gtest/gtest.h>

namespace bekctl {
namespace {

constexpr std::uint64_t mebibyte = 1'048'576;

/// The space on a volume of this size, in MiB. The driver needs some more beside the CoW file for its bitmap.
SnapshotSpace spaceOf(std::uint64_t volumeMebibytes, std::uint64_t cowMebibytes, std::uint64_t freeMebibytes,
                      std::uint64_t presentMebibytes = 0) {
    SnapshotSpace space;
    space.cowMebibytes = cowMebibytes;
    space.needed = cowMebibytes * mebibyte + 8 + 8 * (volumeMebibytes * mebibyte / 4096);
    space.free = freeMebibytes * mebibyte;
    space.currentCowBytes = presentMebibytes * mebibyte;
    return space;
}

TEST(CheckSnapshotSpace, PlentyIsWell) {
    const Finding found = checkSnapshotSpace(spaceOf(20'000, 2000, 15'000), "u", "/data");
    EXPECT_EQ(found.verdict, Verdict::ok);
    EXPECT_EQ(found.remedy, "");
}

TEST(CheckSnapshotSpace, FirstBackupOfAVolumeThatIsTooFull) {
    const Finding found = checkSnapshotSpace(spaceOf(2000, 1000, 900), "u", "/data");
    EXPECT_EQ(found.verdict, Verdict::failure);
    EXPECT_NE(found.text.find("the next backup needs 1.1 GB"), std::string::npos) << found.text;
    EXPECT_NE(found.remedy.find("Set volumes.u.cowFileSizeMiB to 336,"), std::string::npos) << found.remedy;
}

/// The default is at least 1 GiB and at most half of the volume, so two CoW files fill a volume of 2 GiB.
TEST(CheckSnapshotSpace, SecondBackupOfASmallVolumeByDefault) {
    const Finding found = checkSnapshotSpace(spaceOf(2048, 1024, 1900), "u", "/data");
    EXPECT_EQ(found.verdict, Verdict::failure);
    EXPECT_NE(found.text.find("the one after it fails"), std::string::npos) << found.text;
    EXPECT_NE(found.remedy.find("cowFileSizeMiB to 710,"), std::string::npos) << found.remedy;
}

TEST(CheckSnapshotSpace, CowFileThatIsThereMakesWay) {
    EXPECT_EQ(checkSnapshotSpace(spaceOf(8000, 1000, 1100, 1000), "u", "/data").verdict, Verdict::ok);
    EXPECT_EQ(checkSnapshotSpace(spaceOf(8000, 1000, 1100, 500), "u", "/data").verdict, Verdict::failure);
}

TEST(CheckSnapshotSpace, WhereNoSizeFitsRoomIsWhatIsMissing) {
    const Finding found = checkSnapshotSpace(spaceOf(500, 250, 150), "u", "/data");
    EXPECT_EQ(found.verdict, Verdict::failure);
    EXPECT_EQ(found.remedy, "Free 53.5 MB and set volumes.u.cowFileSizeMiB to 100.");
}

/// Every recommended size must pass the same check.
TEST(FittingCow, IsOneThatPasses) {
    for (std::uint64_t volume = 300; volume < 20'000; volume += 171) {
        for (std::uint64_t free = 0; free <= volume; free += volume / 13) {
            const SnapshotSpace space = spaceOf(volume, volume / 2, free, free / 3);
            const std::uint64_t fitting = fittingCowMebibytes(space);
            if (fitting == 0) {
                continue;
            }
            const SnapshotSpace changed = spaceOf(volume, fitting, free, free / 3);
            EXPECT_EQ(checkSnapshotSpace(changed, "u", "/").verdict, Verdict::ok) << volume << ' ' << free;
            EXPECT_GE(fitting, 100U);
        }
    }
}

/// A mounted volume of which only the description is examined.
VolumeFacts factsOf(const std::string& uuid, const std::string& obstacle = "") {
    agent::info::VolumeDescription description;
    description.device = "/dev/null";
    description.uuid = uuid;
    description.fileSystem = "ext4";
    description.mounted = true;
    description.mountPoints = {"/nowhere/" + uuid};
    VolumeFacts facts;
    facts.volume = std::make_shared<agent::info::BackupableVolume>(description);
    facts.obstacle = obstacle;
    facts.space = spaceOf(20'000, 2000, 15'000);
    return facts;
}

VolumeFacts trackedOf(const std::string& uuid, std::int32_t state = agent::info::driver_state::tracking,
                      std::int32_t error = 0) {
    VolumeFacts facts = factsOf(uuid);
    facts.device = agent::info::DriverDeviceInfo{200, state, "/.tolvu", "/dev/null", error};
    return facts;
}

Verdict verdictOf(const Findings& findings, const std::string& name) {
    for (const Finding& finding : findings) {
        if (finding.name == name) {
            return finding.verdict;
        }
    }
    ADD_FAILURE() << "nothing about " << name;
    return Verdict::open;
}

std::vector<VolumeFacts> listOf(VolumeFacts facts) {
    std::vector<VolumeFacts> list;
    list.push_back(std::move(facts));
    return list;
}

TEST(CheckVolumes, BeforeTheFirstBackupAllThatCanBe) {
    const Findings found = checkVolumes(listOf(factsOf("a")), {}, false);
    EXPECT_EQ(verdictOf(found, "volume"), Verdict::ok);
    EXPECT_EQ(verdictOf(found, "room"), Verdict::ok);
    EXPECT_EQ(found.size(), 2U);
}

TEST(CheckVolumes, ThenOnlyThoseThatWereBackedUp) {
    EXPECT_EQ(checkVolumes(listOf(factsOf("a", "not mounted")), {"b"}, false).front().text,
              "Volume b was backed up once and isn't there.");
    EXPECT_EQ(verdictOf(checkVolumes(listOf(factsOf("a", "not mounted")), {"a"}, false), "volume"),
              Verdict::failure);
}

TEST(CheckVolumes, NoneAtAllIsAFailure) {
    EXPECT_EQ(verdictOf(checkVolumes({}, {}, false), "volume"), Verdict::failure);
}

TEST(CheckVolumes, WhatEndsTrackingIsAWarning) {
    EXPECT_EQ(verdictOf(checkVolumes(listOf(factsOf("a")), {"a"}, false), "tracking"), Verdict::warning);
    EXPECT_EQ(verdictOf(checkVolumes(listOf(trackedOf("a")), {"a"}, false), "tracking"), Verdict::ok);
    EXPECT_EQ(verdictOf(checkVolumes(listOf(trackedOf("a", 2, 28)), {"a"}, false), "tracking"),
              Verdict::warning);
    EXPECT_EQ(verdictOf(checkVolumes(listOf(trackedOf("a", 3)), {"a"}, false), "tracking"), Verdict::warning);
    EXPECT_EQ(verdictOf(checkVolumes(listOf(trackedOf("a", 3)), {"a"}, true), "tracking"), Verdict::ok);
}

TEST(CheckVolumes, TrackedVolumeNeedsItsHistoryAndItsScript) {
    const Findings found = checkVolumes(listOf(trackedOf("a")), {"a"}, false);
    EXPECT_EQ(verdictOf(found, "history"), Verdict::failure);
    EXPECT_EQ(verdictOf(found, "reload-script"), Verdict::warning);
}

} // namespace
} // namespace bekctl
