#include "common/Exceptions.h"
#include "core/backup/BackupAttributes.h"
#include "core/backup/BackupSession.h"
#include "core/backup/BackupType.h"
#include "core/backup/RemoteTargetValidator.h"
#include "core/backup/phase/CloseBackupSession.h"
#include "core/backup/phase/OpenBackupSession.h"
#include "core/backup/phase/PopulateVolumes.h"
#include "core/backup/phase/ValidateRemoteTargets.h"
#include "info/BackupableVolume.h"
#include "support/FakeTransport.h"
#include "support/Messages.h"
#include "support/StagedVolumes.h"
#include "support/TestDatabase.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace agent::core::backup::phase {
namespace {

using test::messageOf;

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
    EXPECT_EQ(attributes->getBackupType(first), DIFFERENTIAL_MERGE); // nothing is known about its image
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
    EXPECT_EQ(database.storedChecksum(first), 7U);
    EXPECT_EQ(database.storedChecksum(second), 8U);
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

std::shared_ptr<info::BackupableVolume> someVolume() {
    return std::make_shared<info::BackupableVolume>(info::VolumeDescription{});
}

TEST_F(PhaseTest, PopulatingFindsEachVolumeInOrder) {
    PopulateVolumes::Volumes volumes;
    std::vector<std::string> asked;
    test::StagedVolumes provider(log.logger);
    provider.find = [&](const std::string& uuid) {
        asked.push_back(uuid);
        return someVolume();
    };
    PopulateVolumes phase(log.logger, provider, {first, second}, volumes);
    EXPECT_EQ(phase.getName(), "Populate Volumes");
    phase.execute();
    EXPECT_EQ(asked, (std::vector<std::string>{first, second}));
    EXPECT_EQ(volumes.size(), 2U);
}

TEST_F(PhaseTest, PopulatingFailsWithAVolumeThatIsNotThere) {
    PopulateVolumes::Volumes volumes;
    test::StagedVolumes provider(log.logger);
    provider.find = [](const std::string& uuid) { return uuid == second ? nullptr : someVolume(); };
    PopulateVolumes phase(log.logger, provider, {first, second, first}, volumes);
    EXPECT_EQ(messageOf<std::runtime_error>([&] { phase.execute(); }), "Cannot backup non existing volume.");
    EXPECT_TRUE(log.has(1, "Volume " + second + " could not be found."));
    EXPECT_EQ(volumes.size(), 1U); // volumes found so far stay for what runs after every backup
}

} // namespace
} // namespace agent::core::backup::phase
