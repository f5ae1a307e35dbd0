#include "core/backup/phase/PhaseFactory.h"

#include "common/Exceptions.h"
#include "common/config/IConfig.h"
#include "core/backup/Backup.h"
#include "core/backup/BackupAttributes.h"
#include "core/backup/BackupSession.h"
#include "core/backup/BackupType.h"
#include "core/backup/SnapshotAttributes.h"
#include "core/operation/CancelableOperation.h"
#include "support/FakeSnapshotControl.h"
#include "support/FakeTransport.h"
#include "support/TestDatabase.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace agent::core::backup::phase {
namespace {

const std::string uuid = "11111111-1111-1111-1111-111111111111";

class NoScripts : public script::IQuiesce {
public:
    std::set<std::string> getScripts(const std::string& /*directory*/) override { return {}; }
    void runScript(const std::string& /*script*/, std::uint32_t /*timeoutSeconds*/, bool /*isPre*/) override {
    }
};

class NoOptions : public IConfig {
public:
    void get(const std::string& /*key*/, bool& out) const override { out = false; }
    void get(const std::string& /*key*/, unsigned long& out) const override { out = 0; }
    void get(const std::string& /*key*/, std::string& out) const override { out.clear(); }
};

std::shared_ptr<info::BackupableVolume> mountedVolume() {
    info::VolumeDescription description;
    description.uuid = uuid;
    description.device = "/dev/null";
    description.mounted = true;
    return std::make_shared<info::BackupableVolume>(description);
}

/// The phases of the agent in a real run.
class PhaseFactoryTest : public testing::Test {
protected:
    PhaseFactoryTest() { session->addTransport(uuid, transport); }

    void run() { backup.run(std::move(session)); }

    test::TestDatabase database;
    test::RecordingLogger log;
    NoScripts quiesce;
    NoOptions config;
    test::SnapshotScript snapshots;
    std::shared_ptr<info::BackupableVolume> found = mountedVolume();
    std::shared_ptr<test::FakeTransport> transport = std::make_shared<test::FakeTransport>(4096);
    std::unique_ptr<BackupSession> session = std::make_unique<BackupSession>(log.logger);
    PhaseFactory factory{
        {log.logger, database.provider, quiesce, config, [this](const std::string&) { return found; },
         [this] { return std::make_unique<test::FakeSnapshotControl>(log.logger, snapshots); }}};
    Backup backup{log.logger,
                  factory,
                  std::make_shared<BackupAttributes>(
                      std::unordered_map<std::string, VolumeAttributes>{{uuid, {0, INCREMENTAL, {}}}}),
                  std::make_shared<SnapshotAttributes>(1, std::vector<std::string>{}, 0),
                  std::make_unique<CancelableOperation>(),
                  nullptr,
                  "backup"};
};

TEST_F(PhaseFactoryTest, VolumeThatIsNotThereFailsTheBackupBeforeTheSessionOpens) {
    found = nullptr;
    run();
    EXPECT_TRUE(log.has(1, "Exception caught during backup run: Cannot backup non existing volume."));
    EXPECT_FALSE(log.hasPart(3, "Open Backup Session"));
    EXPECT_FALSE(backup.isActive());
    EXPECT_FALSE(backup.isFinished());
    EXPECT_EQ(snapshots.ends, std::vector<bool>{false});
}

TEST_F(PhaseFactoryTest, LostTargetIsToldApart) {
    transport->refusing = true;
    run();
    EXPECT_TRUE(log.hasPart(1, "Transport related error occurred during backup run: "));
    EXPECT_FALSE(log.hasPart(3, "Start Snapshotting"));
    BackupStatus status;
    backup.getStatus(status);
    EXPECT_TRUE(status.connectionError);
    EXPECT_FALSE(backup.isActive());
}

} // namespace
} // namespace agent::core::backup::phase
