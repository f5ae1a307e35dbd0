#include "ordak/BackupStatus.h"

#include "common/Exceptions.h"
#include "ordak/BackupCancel.h"
#include "ordak/BackupList.h"
#include "support/EngineHarness.h"
#include "support/Messages.h"
#include "support/MockEngine.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <stdexcept>
#include <tuple>

namespace agent::ordak {
namespace {

using core::backup::VolumeBackupStatus;
using nlohmann::json;
using test::messageOf;

APIExtendedData about(const std::string& id) {
    APIExtendedData request;
    request.urlData = id;
    return request;
}

class BackupCallsTest : public testing::Test {
protected:
    std::shared_ptr<test::FixedBackup> add(const std::string& id) {
        auto backup = std::make_shared<test::FixedBackup>(id);
        harness.manager.addBackup(backup);
        return backup;
    }

    json statusOf(const std::vector<VolumeBackupStatus>& volumes) {
        backup->status.volumes = volumes;
        return json::parse(status("ignored", about("the-backup")).text);
    }

    std::string overallOf(const std::vector<std::uint32_t>& states) {
        std::vector<VolumeBackupStatus> volumes;
        for (const std::uint32_t state : states) {
            volumes.push_back({"uuid", state, 1, 0, 0});
        }
        return statusOf(volumes).at("status");
    }

    test::RecordingLogger record;
    test::EngineHarness harness{record.logger};
    std::shared_ptr<test::FixedBackup> backup = add("the-backup");
    BackupStatus status{harness.manager};
    BackupList list{harness.manager, record.logger};
    BackupCancel cancel{harness.engine};
};

TEST_F(BackupCallsTest, StatusTellsEverything) {
    backup->status = {12.9, true, false, {{"uuid-1", 0, 1, 10, 20}, {"uuid-2", 2, 2, UINT64_MAX, -1}}};
    const APIResponse response = status("", about("the-backup"));
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.contentType, APIResponse::ContentType::json);
    EXPECT_EQ(json::parse(response.text), json::parse(R"({
        "elapsedTime": 12, "connection_error": true, "snapshot_error": false, "status": "active",
        "details": [
            {"volume": "uuid-1", "status": "active", "type": "incremental",
             "transfer": {"bytesTransferred": 10, "totalSize": 20}},
            {"volume": "uuid-2", "status": "finished", "type": "differential",
             "transfer": {"bytesTransferred": 18446744073709551615, "totalSize": 18446744073709551615}}]})"));
    EXPECT_EQ(response.text.substr(0, 6), "{\n    ");
    EXPECT_EQ(backup->pings, 1);
}

TEST_F(BackupCallsTest, BackupWithoutVolumesIsFinished) {
    const json answer = statusOf({});
    EXPECT_TRUE(answer.at("details").is_null());
    EXPECT_EQ(answer.at("status"), "finished");
}

TEST_F(BackupCallsTest, OverallState) {
    EXPECT_EQ(overallOf({2, 2}), "finished");
    EXPECT_EQ(overallOf({2, 1}), "failed");
    EXPECT_EQ(overallOf({0, 1}), "active");
    EXPECT_EQ(overallOf({1, 2, 0}), "active");
    EXPECT_EQ(overallOf({3}), "failed");
}

TEST_F(BackupCallsTest, NamesOfStatesAndTypes) {
    const json details =
        statusOf({{"a", 1, 0, 0, 0}, {"b", 3, 1, 0, 0}, {"c", 2, 2, 0, 0}, {"d", 0, 7, 0, 0}}).at("details");
    for (const auto& [index, state, type] :
         std::vector<std::tuple<int, std::string, std::string>>{{0, "failed", "full"},
                                                                {1, "failed", "incremental"},
                                                                {2, "finished", "differential"},
                                                                {3, "active", "full"}}) {
        EXPECT_EQ(details.at(index).at("status"), state);
        EXPECT_EQ(details.at(index).at("type"), type);
    }
}

TEST_F(BackupCallsTest, StatusOfAnUnknownBackup) {
    for (const std::string id : {"", "abc", "%s%n", "\xff\xfe"}) {
        EXPECT_EQ(messageOf<exception::bad_request>([&] { status("", about(id)); }),
                  "A backup with ID " + id + " does not exist.");
    }
}

TEST_F(BackupCallsTest, ListSortsByState) {
    backup->active = true;
    backup->finished = false;
    add("failed")->finished = false;
    add("finished");
    const APIResponse response = list();
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(json::parse(response.text),
              (json{{"active", {"the-backup"}}, {"failed", {"failed"}}, {"finished", {"finished"}}}));
    EXPECT_TRUE(record.has(3, "Handling getting all backup statuses"));
}

TEST_F(BackupCallsTest, ListOfNothingHasItsKeys) {
    core::backup::BackupManager empty(record.logger);
    const json none = {{"active", json::array()}, {"failed", json::array()}, {"finished", json::array()}};
    const APIResponse response = BackupList(empty, record.logger)();
    EXPECT_EQ(response.text, none.dump(4));
}

/// A backup manager that reports fixed states.
class States : public core::backup::BackupManager {
public:
    using BackupManager::BackupManager;
    void getStatuses(std::unordered_map<std::string, std::uint32_t>& out) override {
        out = {{"zero", 0}, {"two", 2}, {"three", 3}, {"four", 4}};
    }
};

TEST_F(BackupCallsTest, EveryOtherStateIsFailed) {
    States states(record.logger);
    json answer = json::parse(BackupList(states, record.logger)().text);
    std::sort(answer["failed"].begin(), answer["failed"].end());
    EXPECT_EQ(answer, (json{{"active", {"zero"}}, {"failed", {"four", "two"}}, {"finished", {"three"}}}));
}

TEST_F(BackupCallsTest, CancelSucceedsOnce) {
    const APIResponse first = cancel("", about("the-backup"));
    EXPECT_EQ(first.status, 200);
    EXPECT_EQ(json::parse(first.text), (json{{"success", true}, {"errorString", ""}}));
    EXPECT_TRUE(backup->cancelled);
    const APIResponse second = cancel("", about("the-backup"));
    EXPECT_EQ(second.status, 200);
    const std::string refusal =
        messageOf<exception::bad_request>([&] { harness.engine.cancelBackup("the-backup"); });
    EXPECT_EQ(json::parse(second.text), (json{{"success", false}, {"errorString", refusal}}));
}

TEST_F(BackupCallsTest, CancelOfAnUnknownBackupIsAnAnswer) {
    const json answer = json::parse(cancel("", about("abc")).text);
    EXPECT_EQ(answer, (json{{"success", false}, {"errorString", "A backup with ID abc does not exist."}}));
}

TEST_F(BackupCallsTest, OtherFailuresOfACancelPass) {
    test::MockEngine broken;
    EXPECT_CALL(broken, cancelBackup("x")).WillOnce(testing::Throw(std::invalid_argument("out of order")));
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { BackupCancel{broken}("", about("x")); }),
              "out of order");
}

} // namespace
} // namespace agent::ordak
