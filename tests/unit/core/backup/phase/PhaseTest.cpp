#include "common/Exceptions.h"
#include "core/backup/Backup.h"
#include "core/backup/BackupAttributes.h"
#include "core/backup/BackupSession.h"
#include "core/backup/BackupType.h"
#include "core/backup/RemoteTargetValidator.h"
#include "core/backup/phase/CloseBackupSession.h"
#include "core/backup/phase/OpenBackupSession.h"
#include "core/backup/phase/PhaseFactory.h"
#include "core/backup/phase/PopulateVolumes.h"
#include "core/backup/phase/ValidateRemoteTargets.h"
#include "core/operation/CancelableOperation.h"
#include "support/FakeTransport.h"
#include "support/Messages.h"
#include "support/TestDatabase.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

namespace agent::core::backup::phase {
namespace {

using test::messageOf;
using Line = test::RecordingLogger::Line;

const std::string first = "11111111-1111-1111-1111-111111111111";
const std::string second = "22222222-2222-2222-2222-222222222222";

class PhaseTest : public testing::Test {
protected:
    PhaseTest() {
        session->addTransport(first, firstTransport);
        session->addTransport(second, secondTransport);
    }

    void registerChecksum(const std::string& uuid, std::uint32_t sum) {
        session->registerVolume(uuid, [sum](const std::shared_ptr<ITransport>&, std::uint32_t& checksum) {
            checksum = sum;
            return true;
        });
    }

    std::uint32_t storedChecksum(const std::string& uuid) {
        std::uint32_t checksum = 0;
        auto type = db::ChecksumType::gcrypt32crc;
        database.provider.getVolumeChecksum(uuid, checksum, type);
        EXPECT_EQ(type, db::ChecksumType::libcrc32c);
        return checksum;
    }

    test::TestDatabase database;
    test::RecordingLogger log;
    std::shared_ptr<test::FakeTransport> firstTransport = std::make_shared<test::FakeTransport>(4096);
    std::shared_ptr<test::FakeTransport> secondTransport = std::make_shared<test::FakeTransport>(4096);
    std::unique_ptr<BackupSession> session = std::make_unique<BackupSession>(log.logger);
    std::shared_ptr<BackupAttributes> attributes =
        std::make_shared<BackupAttributes>(std::unordered_map<std::string, VolumeAttributes>{
            {first, {0, INCREMENTAL, {}}}, {second, {0, FULL, {}}}});
    RemoteTargetValidator validator{log.logger, database.provider};
};

TEST_F(PhaseTest, OpeningIsForOnce) {
    OpenBackupSession phase(*session);
    EXPECT_EQ(phase.getName(), "Open Backup Session");
    phase.execute();
    EXPECT_EQ(session->getTransport(first), firstTransport);
    EXPECT_EQ(messageOf<std::runtime_error>([&] { phase.execute(); }), "Backup session already open!");
}

TEST_F(PhaseTest, ValidationLowersTheTypeOfDoubtfulVolumes) {
    ValidateRemoteTargets phase(*session, *attributes, validator);
    EXPECT_EQ(phase.getName(), "Validate Remote Targets");
    session->open();
    phase.execute();
    EXPECT_EQ(attributes->getBackupType(first), DIFFERENTIAL_MERGE); // nothing is known of its image
    EXPECT_EQ(attributes->getBackupType(second), FULL);
    EXPECT_GT(firstTransport->connects + secondTransport->connects, 0);
    EXPECT_FALSE(firstTransport->connected);
    EXPECT_FALSE(secondTransport->connected);
}

TEST_F(PhaseTest, ValidationFailsWithoutTheTarget) {
    ValidateRemoteTargets phase(*session, *attributes, validator);
    session->open();
    firstTransport->refusing = true;
    EXPECT_THROW(phase.execute(), exception::transport_connection_error);
}

TEST_F(PhaseTest, ValidationNeedsAnOpenSession) {
    ValidateRemoteTargets phase(*session, *attributes, validator);
    EXPECT_EQ(messageOf<std::runtime_error>([&] { phase.execute(); }),
              "Cannot validate remote targets, backup session was never opened!");
}

TEST_F(PhaseTest, ClosingStoresTheChecksums) {
    CloseBackupSession phase(*session, database.provider);
    EXPECT_EQ(phase.getName(), "Close Backup Session");
    session->open();
    registerChecksum(first, 7);
    registerChecksum(second, 8);
    phase.execute();
    EXPECT_EQ(storedChecksum(first), 7U);
    EXPECT_EQ(storedChecksum(second), 8U);
}

TEST_F(PhaseTest, ClosingFailsWithAVolumeThatWasNotWritten) {
    CloseBackupSession phase(*session, database.provider);
    session->open();
    registerChecksum(first, 7);
    EXPECT_EQ(messageOf<std::logic_error>([&] { phase.execute(); }),
              "Failed to register a checksum after writing with the corresponding VolumeWriter for volume: " +
                  second);
}

TEST_F(PhaseTest, ClosingFailsWithTheDatabase) {
    CloseBackupSession phase(*session, database.provider);
    session->open();
    registerChecksum(first, 7);
    registerChecksum(second, 8);
    database.destroy();
    EXPECT_THROW(phase.execute(), std::exception);
    EXPECT_FALSE(log.hasPart(3, "Finishing writing"));
}

/// A volume that nobody looks into.
std::shared_ptr<info::BackupableVolume> someVolume() {
    const auto holder = std::make_shared<int>(0);
    return {holder, static_cast<info::BackupableVolume*>(static_cast<void*>(holder.get()))};
}

TEST_F(PhaseTest, PopulatingFindsEachVolumeInOrder) {
    PopulateVolumes::Volumes volumes;
    std::vector<std::string> asked;
    const PopulateVolumes::VolumeLookup lookup = [&](const std::string& uuid) {
        asked.push_back(uuid);
        return someVolume();
    };
    PopulateVolumes phase(log.logger, lookup, {first, second}, volumes);
    EXPECT_EQ(phase.getName(), "Populate Volumes");
    phase.execute();
    EXPECT_EQ(asked, (std::vector<std::string>{first, second}));
    EXPECT_EQ(volumes.size(), 2U);
}

TEST_F(PhaseTest, PopulatingFailsWithAVolumeThatIsNotThere) {
    PopulateVolumes::Volumes volumes;
    const PopulateVolumes::VolumeLookup lookup = [](const std::string& uuid) {
        return uuid == second ? nullptr : someVolume();
    };
    PopulateVolumes phase(log.logger, lookup, {first, second, first}, volumes);
    EXPECT_EQ(messageOf<std::runtime_error>([&] { phase.execute(); }), "Cannot backup non existing volume.");
    EXPECT_TRUE(log.has(1, "Volume " + second + " could not be found."));
    EXPECT_EQ(volumes.size(), 1U); // what was found before stays for what follows every backup
}

/// The phases of the agent in a real run.
class PhaseFactoryTest : public PhaseTest {
protected:
    void run() { backup.run(std::move(session)); }

    /// The position of a line in the log; the test fails without it.
    std::ptrdiff_t positionOf(int level, const std::string& text) {
        const auto lines = log.lines();
        const auto found = std::find(lines.begin(), lines.end(), Line{level, text});
        EXPECT_NE(found, lines.end()) << text;
        return found - lines.begin();
    }

    std::shared_ptr<info::BackupableVolume> found = someVolume();
    PhaseFactory factory{log.logger, database.provider, [this](const std::string&) { return found; }};
    Backup backup{log.logger, factory, attributes, nullptr, std::make_unique<CancelableOperation>(),
                  nullptr,    "backup"};
};

TEST_F(PhaseFactoryTest, PhasesBegin) {
    run();
    const auto populated = positionOf(3, "Finished execution of the Populate Volumes phase.");
    const auto opened = positionOf(3, "Finished execution of the Open Backup Session phase.");
    const auto validated = positionOf(3, "Finished execution of the Validate Remote Targets phase.");
    const auto closing = positionOf(3, "Beginning execution of the Close Backup Session phase.");
    EXPECT_LT(populated, opened);
    EXPECT_LT(opened, validated);
    EXPECT_LT(validated, closing);
}

TEST_F(PhaseFactoryTest, VolumesThatWereNotCopiedFailTheBackup) {
    run();
    EXPECT_TRUE(log.hasPart(1, "Exception caught during backup run: Failed to register a checksum after "
                               "writing with the corresponding VolumeWriter for volume: "));
    EXPECT_FALSE(log.has(3, "Finished execution of the Close Backup Session phase."));
    EXPECT_LT(positionOf(4, "Backup session destroyed"), positionOf(3, "Backup backup FAILED!"));
    EXPECT_FALSE(backup.isActive());
    EXPECT_FALSE(backup.isFinished());
}

TEST_F(PhaseFactoryTest, VolumeThatIsNotThereFailsTheBackupBeforeTheSessionOpens) {
    found = nullptr;
    run();
    EXPECT_TRUE(log.has(1, "Exception caught during backup run: Cannot backup non existing volume."));
    EXPECT_FALSE(log.hasPart(3, "Open Backup Session"));
    EXPECT_FALSE(backup.isActive());
    EXPECT_FALSE(backup.isFinished());
}

TEST_F(PhaseFactoryTest, LostTargetIsToldApart) {
    firstTransport->refusing = true;
    run();
    EXPECT_TRUE(log.hasPart(1, "Transport related error occurred during backup run: "));
    EXPECT_FALSE(log.hasPart(3, "Close Backup Session"));
    BackupStatus status;
    backup.getStatus(status);
    EXPECT_TRUE(status.connectionError);
    EXPECT_FALSE(backup.isActive());
}

} // namespace
} // namespace agent::core::backup::phase
