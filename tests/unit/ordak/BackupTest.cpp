#include "support/BodyMutation.h"
#include "unit/ordak/BackupFixture.h"

#include <gmock/gmock.h>

namespace agent::ordak {
namespace {

using core::backup::VolumeScript;
using testing::Contains;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

TEST_F(BackupTest, AnnouncesItsFeature) {
    EXPECT_EQ(features.getFeatures().at("zephane"), (Feature{"zephane", "2.0", "2.0"}));
}

TEST_F(BackupTest, AnswersWithTheIdOfTheBackup) {
    const APIResponse response = start(request({volume()}));
    EXPECT_EQ(response.text, "backup-1");
    EXPECT_EQ(response.status, 201);
    EXPECT_EQ(response.contentType, APIResponse::ContentType::plainText);
    EXPECT_EQ(record.lines().at(1), (test::RecordingLogger::Line{3, "Handling backup start call"}));
}

TEST_F(BackupTest, VolumesReachTheTransportsAndTheEngine) {
    start(request({volume("uuid-1"), volume("uuid-2")}));
    const std::vector<std::string> calls = connectionOf("uuid-2");
    EXPECT_THAT(calls, Contains("iscsi_set_targetname iqn.x:y"));
    EXPECT_THAT(calls, Contains("iscsi_set_initiator_username_pwd user secret"));
    EXPECT_THAT(calls, Contains("iscsi_full_connect_sync 10.0.0.1 3"));
    EXPECT_THAT(harness.backupAttributes->getVolumeUUIDs(), UnorderedElementsAre("uuid-1", "uuid-2"));
    EXPECT_EQ(harness.backupAttributes->getBackupType("uuid-1"), 1U);
    EXPECT_TRUE(harness.backupAttributes->getScripts("uuid-1").empty());
    EXPECT_TRUE(record.has(3, "Backup session added a transport for volume UUID uuid-2"));
}

TEST_F(BackupTest, ImageBeginsAtItsOffset) {
    iscsi.lastBlock = 15;
    start(request({volume()}));
    const std::shared_ptr<core::ITransport> transport = harness.takeTransport("uuid-1");
    ASSERT_TRUE(transport->connect(false));
    EXPECT_EQ(transport->write(std::string(512, 'x').data(), 512), 512);
    EXPECT_THAT(iscsi.calls, Contains("iscsi_write16_task 3 8 512 512 0 0 0 0 0")); // offset 4096 is LBA 8
}

TEST_F(BackupTest, VolumesMayBeTheValuesOfAnObject) {
    start({{"volumes", {{"first", volume("uuid-1")}, {"second", volume("uuid-2")}}}});
    EXPECT_THAT(harness.backupAttributes->getVolumeUUIDs(), UnorderedElementsAre("uuid-1", "uuid-2"));
}

TEST_F(BackupTest, NoVolumesAreAValidRequest) {
    EXPECT_EQ(backup(R"({"volumes": []})").text, "backup-1");
    EXPECT_TRUE(harness.backupAttributes->getVolumeUUIDs().empty());
    EXPECT_FALSE(hasMadeTransports());
}

TEST_F(BackupTest, RequestedType) {
    EXPECT_EQ(typeOf(json::object()), 1U);
    EXPECT_EQ(typeOf({{"forceDiffMerge", true}}), 2U);
    EXPECT_EQ(typeOf({{"forceCopyFull", true}}), 0U);
    EXPECT_EQ(typeOf({{"forceDiffMerge", true}, {"forceCopyFull", true}}), 0U);
    EXPECT_EQ(typeOf({{"forceDiffMerge", false}, {"forceCopyFull", false}}), 1U);
}

TEST_F(BackupTest, SnapshotAttributes) {
    start(request({volume()}));
    EXPECT_EQ(harness.snapshotAttributes->getSnapshotMethod(), 1U);
    EXPECT_TRUE(harness.snapshotAttributes->getVSSExclusions().empty());
    EXPECT_EQ(harness.snapshotAttributes->getFlags(), 0U);
    json body = request({volume()});
    body["snapshotMethod"] = "TVD";
    body["VSSExclusions"] = {"a", "b"};
    start(body);
    EXPECT_EQ(harness.snapshotAttributes->getSnapshotMethod(), 0U);
    EXPECT_THAT(harness.snapshotAttributes->getVSSExclusions(), ElementsAre("a", "b"));
    body["snapshotMethod"] = "tvd";
    start(body);
    EXPECT_EQ(harness.snapshotAttributes->getSnapshotMethod(), 1U);
}

TEST_F(BackupTest, Timeouts) {
    EXPECT_EQ(timeoutOf(90), 90U);
    EXPECT_EQ(timeoutOf(90.5), 90U);
    for (const json& value : std::vector<json>{0, -5, "10", 0.9, nullptr, true, 1e300, -1e300, 2147483648}) {
        EXPECT_EQ(timeoutOf(value), 60U) << value;
    }
    EXPECT_FALSE(record.hasPart(4, "No timeout value given"));
}

TEST_F(BackupTest, ScriptWithoutATimeoutIsLogged) {
    json entry = volume();
    entry["scriptsPrePost"] = {{{"scriptname", "first"}}, {{"scriptname", "second"}, {"timeout", 5}}};
    start(request({entry}));
    EXPECT_THAT(harness.backupAttributes->getScripts("uuid-1"),
                ElementsAre(VolumeScript{"first", 60}, VolumeScript{"second", 5}));
    EXPECT_TRUE(record.has(4, "No timeout value given for PPS script 'first'; using default (err: "
                              "[json.exception.out_of_range.403] key 'timeout' not found)"));
}

class RefusingEngine : public core::IEngine {
public:
    void start() override {}
    void stop() override {}
    std::string createBackup(std::unique_ptr<core::backup::BackupSession> /*session*/,
                             std::shared_ptr<core::backup::IBackupAttributes> /*attributes*/,
                             std::shared_ptr<core::backup::ISnapshotAttributes> /*snapshot*/) override {
        ++refused;
        throw exception::bad_request("Too many backup requests while waiting for cancelling backup");
    }
    void cancelBackup(const std::string& /*backupId*/) override {}
    [[nodiscard]] bool isBackupRunning() override { return false; }
    [[nodiscard]] std::vector<std::string> getQuiesceScripts() override { return {}; }
    void waitForBackup() override {}

    int refused = 0;
};

TEST_F(BackupTest, RefusalOfTheEnginePasses) {
    RefusingEngine refusing;
    Backup refused(record.logger, refusing, features);
    EXPECT_EQ(messageOf<exception::bad_request>([&] { refused(request({volume()}).dump()); }),
              "Too many backup requests while waiting for cancelling backup");
    EXPECT_TRUE(record.has(4, "Backup session destroyed"));
}

TEST_F(BackupTest, SurvivesHostileBodies) {
    json entry = volume();
    entry["target"] = "host:21";
    entry["scriptsPrePost"] = {{{"scriptname", "a"}, {"timeout", 5}}, {{"scriptname", "b"}}};
    json body = request({entry, volume("uuid-2")});
    body["interface"] = "zephaneftp";
    body["VSSExclusions"] = {"a"};
    body["snapshotMethod"] = "TVD";
    body["forceCopyFull"] = false;
    RefusingEngine refusing;
    Backup handler(record.logger, refusing, features);
    test::countAnswersToMutations(body.dump(), [&](const std::string& mutated) { handler(mutated); });
    EXPECT_GT(refusing.refused, 0); // the rest were still valid requests
}

} // namespace
} // namespace agent::ordak
