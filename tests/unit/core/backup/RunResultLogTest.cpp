#include "core/backup/RunResultLog.h"

#include "core/backup/BackupAttributes.h"
#include "core/backup/BackupStatusHandler.h"
#include "core/backup/BackupType.h"
#include "info/BackupableVolume.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <memory>
#include <string>
#include <vector>

namespace agent::core::backup {
namespace {

using nlohmann::json;

info::VolumeProvider::Volume volumeAt(const std::string& uuid, std::vector<std::string> mountPoints) {
    info::VolumeDescription description;
    description.uuid = uuid;
    description.mountPoints = std::move(mountPoints);
    return std::make_shared<info::BackupableVolume>(description);
}

class RunResultLogTest : public testing::Test {
protected:
    /// The records that were written, without the time.
    [[nodiscard]] std::vector<json> written() const {
        std::vector<json> records;
        const std::string head = "Backup record: ";
        for (const std::string& text : log.texts(info::level::info)) {
            EXPECT_EQ(text.substr(0, head.size()), head);
            records.push_back(json::parse(text.substr(head.size())));
            EXPECT_GE(records.back().at("seconds"), 0);
            EXPECT_LT(records.back().at("seconds"), 60);
            records.back().erase("seconds");
        }
        return records;
    }

    test::RecordingLogger log;
    BackupAttributes attributes{{{"one", {0, INCREMENTAL, {}}}, {"two", {0, FULL, {}}}}};
    BackupStatusHandler status{log.logger, {"two", "one"}};
    RunResultLog resultLog{log.logger, "the-backup", attributes};
};

TEST_F(RunResultLogTest, EachVolumeHasALine) {
    attributes.setBackupType("one", DIFFERENTIAL_MERGE);
    status.setVolumeBytesTransferred("one", 5'000'000'000);
    status.setVolumeTotalSize("one", 6'000'000'000);
    resultLog.write("success", status, {volumeAt("one", {"/mnt/one", "/mnt/also"}), volumeAt("two", {"/"})});
    EXPECT_THAT(written(), testing::ElementsAre(json{{"backup", "the-backup"},
                                                     {"volume", "two"},
                                                     {"mountPoint", "/"},
                                                     {"asked", "FULL"},
                                                     {"type", "FULL"},
                                                     {"outcome", "success"},
                                                     {"copiedBytes", 0},
                                                     {"totalBytes", -1}},
                                                json{{"backup", "the-backup"},
                                                     {"volume", "one"},
                                                     {"mountPoint", "/mnt/one"},
                                                     {"asked", "INCREMENTAL"},
                                                     {"type", "DIFFERENTIAL MERGE"},
                                                     {"outcome", "success"},
                                                     {"copiedBytes", 5'000'000'000},
                                                     {"totalBytes", 6'000'000'000}}));
}

TEST_F(RunResultLogTest, VolumesThatWereNotFoundHaveNoMountPoint) {
    resultLog.write("failed", status, {volumeAt("one", {})});
    for (const json& each : written()) {
        EXPECT_EQ(each.at("mountPoint"), "");
        EXPECT_EQ(each.at("outcome"), "failed");
    }
    EXPECT_EQ(written().size(), 2U);
}

TEST_F(RunResultLogTest, NameThatIsNoTextMakesNoBadLine) {
    resultLog.write("cancelled", status, {volumeAt("two", {"/mnt/\xff\n\"x"})});
    EXPECT_EQ(written().at(0).at("mountPoint"), "/mnt/\xEF\xBF\xBD\n\"x");
}

} // namespace
} // namespace agent::core::backup
