#include "core/backup/BackupAttributes.h"

#include "core/backup/BackupType.h"
#include "core/backup/SnapshotAttributes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

namespace agent::core::backup {
namespace {

const std::string first = "11111111-1111-1111-1111-111111111111";
const std::string second = "22222222-2222-2222-2222-222222222222";

BackupAttributes twoVolumes() {
    return BackupAttributes({{first, {1048576, INCREMENTAL, {{"freeze-db", 30}}}}, {second, {0, FULL, {}}}});
}

std::string messageOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "nothing was thrown";
}

TEST(BackupAttributes, TellsWhatItWasGiven) {
    const BackupAttributes attributes = twoVolumes();
    EXPECT_THAT(attributes.getVolumeUUIDs(), testing::UnorderedElementsAre(first, second));
    EXPECT_EQ(attributes.getBackupType(first), INCREMENTAL);
    EXPECT_EQ(attributes.getBackupType(second), FULL);
    EXPECT_TRUE(attributes.isIncremental(first));
    EXPECT_FALSE(attributes.isIncremental(second));
    EXPECT_THAT(attributes.getScripts(first), testing::ElementsAre(VolumeScript{"freeze-db", 30}));
    EXPECT_THAT(attributes.getScripts(second), testing::IsEmpty());
}

TEST(BackupAttributes, TypeOfOneVolumeChangesAlone) {
    BackupAttributes attributes = twoVolumes();
    attributes.setBackupType(first, DIFFERENTIAL_MERGE);
    EXPECT_EQ(attributes.getBackupType(first), DIFFERENTIAL_MERGE);
    EXPECT_FALSE(attributes.isIncremental(first));
    EXPECT_EQ(attributes.getBackupType(second), FULL);
}

TEST(BackupAttributes, UnknownVolumeThrowsAndAddsNothing) {
    BackupAttributes attributes = twoVolumes();
    const std::string message =
        "A volume with ID nowhere does not exist in the volume attributes map. This should never happen!";
    EXPECT_EQ(messageOf([&] { attributes.setBackupType("nowhere", FULL); }), message);
    EXPECT_EQ(messageOf([&] { (void)attributes.getBackupType("nowhere"); }), message);
    EXPECT_EQ(messageOf([&] { (void)attributes.isIncremental("nowhere"); }), message);
    EXPECT_EQ(messageOf([&] { (void)attributes.getScripts("nowhere"); }), message);
    EXPECT_EQ(attributes.getVolumeUUIDs().size(), 2U);
}

TEST(BackupType, Texts) {
    EXPECT_EQ(backupTypeText(FULL), "FULL");
    EXPECT_EQ(backupTypeText(INCREMENTAL), "INCREMENTAL");
    EXPECT_EQ(backupTypeText(DIFFERENTIAL_MERGE), "DIFFERENTIAL MERGE");
    EXPECT_EQ(backupTypeText(3), "3");
}

TEST(BackupType, ForcedFullWins) {
    EXPECT_EQ(requestedBackupType(false, false), INCREMENTAL);
    EXPECT_EQ(requestedBackupType(true, false), DIFFERENTIAL_MERGE);
    EXPECT_EQ(requestedBackupType(false, true), FULL);
    EXPECT_EQ(requestedBackupType(true, true), FULL);
}

TEST(SnapshotAttributes, HoldsItsValues) {
    const SnapshotAttributes attributes(1, {"C:\\swap"}, 0);
    EXPECT_EQ(attributes.getSnapshotMethod(), 1U);
    EXPECT_THAT(attributes.getVSSExclusions(), testing::ElementsAre("C:\\swap"));
    EXPECT_EQ(attributes.getFlags(), 0U);
}

} // namespace
} // namespace agent::core::backup
