#include "ordak/Backup.h"

#include "common/Exceptions.h"
#include "support/BodyMutation.h"
#include "support/EngineHarness.h"
#include "support/FakeIscsi.h"
#include "support/FakeZephane.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <stdexcept>
#include <vector>

namespace agent::ordak {
namespace {

using core::backup::VolumeScript;
using nlohmann::json;
using test::messageOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::UnorderedElementsAre;

json volume(const std::string& guid = "uuid-1") {
    return {{"guid", guid},
            {"offset", 4096},
            {"qualifiedName", "iqn.x:y"},
            {"target", "10.0.0.1"},
            {"lun", 3},
            {"username", "user"},
            {"password", "secret"},
            {"scriptsPrePost", json::array()}};
}

json request(const std::vector<json>& volumes) {
    return {{"volumes", volumes}};
}

class BackupTest : public testing::Test {
protected:
    APIResponse start(const json& body) { return backup(body.dump()); }

    template <typename Exception = exception::bad_request>
    std::string refusalOf(const json& body) {
        return messageOf<Exception>([&] { start(body); });
    }

    /// The timeout that a script gets for a value of "timeout".
    std::uint32_t timeoutOf(const json& value) {
        json entry = volume();
        entry["scriptsPrePost"] = json::array({{{"scriptname", "a"}, {"timeout", value}}});
        start(request({entry}));
        return harness.backupAttributes->getScripts("uuid-1").at(0).timeout;
    }

    std::uint32_t typeOf(const json& flags) {
        json body = request({volume()});
        body.update(flags);
        start(body);
        return harness.backupAttributes->getBackupType("uuid-1");
    }

    /// The calls to the iSCSI library when the transport of the last backup's volume connects.
    std::vector<std::string> connectionOf(const std::string& uuid) {
        const std::shared_ptr<core::ITransport> transport = harness.takeTransport(uuid);
        iscsi.calls.clear();
        EXPECT_TRUE(transport->connect(false));
        return iscsi.calls;
    }

    [[nodiscard]] bool hasMadeTransports() const {
        return record.hasPart(3, "Backup session added a transport");
    }

    test::RecordingLogger record;
    test::EngineHarness harness{record.logger};
    FeatureManager features;
    test::FakeIscsi iscsi;
    test::FakeZephane zephane;
    Backup backup{record.logger, harness.engine, features};
};

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

TEST_F(BackupTest, BodyThatIsNoRequest) {
    EXPECT_THROW(backup("{"), json::parse_error);
    EXPECT_THROW(backup(""), json::parse_error);
    EXPECT_THROW(backup(std::string(10'000'000, '[')), json::parse_error);
    EXPECT_THROW(backup("[]"), json::type_error);
    EXPECT_THROW(backup("7"), json::type_error);
    EXPECT_TRUE(record.has(3, "Handling backup start call"));
}

TEST_F(BackupTest, OptionsOfTheWrongType) {
    for (const char* key :
         {"interface", "forceDiffMerge", "forceCopyFull", "VSSExclusions", "snapshotMethod"}) {
        json body = request({volume()});
        body[key] = 5;
        EXPECT_THAT(refusalOf<json::type_error>(body), HasSubstr("but is number")) << key;
    }
    EXPECT_EQ(harness.backupsMade, 0);
}

TEST_F(BackupTest, FirstZephaneIsRefused) {
    EXPECT_EQ(refusalOf<std::invalid_argument>({{"interface", "zephane"}}), "Zephane v1 not supported!");
}

TEST_F(BackupTest, VolumesAreRequired) {
    EXPECT_EQ(refusalOf(json::object()), "request missing key: volumes");
}

TEST_F(BackupTest, EveryKeyOfAVolumeIsRequiredInOrder) {
    json entry = json::object();
    for (const char* key :
         {"guid", "offset", "qualifiedName", "target", "lun", "username", "password", "scriptsPrePost"}) {
        EXPECT_EQ(refusalOf(request({entry})),
                  std::string("[json.exception.out_of_range.403] key '") + key + "' not found");
        entry[key] = volume()[key];
    }
    EXPECT_EQ(harness.backupsMade, 0);
    EXPECT_FALSE(hasMadeTransports());
    start(request({entry}));
    EXPECT_EQ(harness.backupsMade, 1);
}

TEST_F(BackupTest, EveryKeyOfAVolumeHasItsType) {
    const json valid = volume();
    for (const auto& [key, value] : valid.items()) {
        for (const json& wrong : std::vector<json>{nullptr, true, json::object(), json{{"a", 1}}}) {
            json entry = volume();
            entry[key] = wrong;
            EXPECT_THAT(refusalOf(request({entry})), HasSubstr("type must be ")) << key << wrong;
        }
    }
    for (const json& entry : std::vector<json>{7, "x", nullptr, json::array()}) {
        EXPECT_THAT(refusalOf(request({entry})), HasSubstr("cannot use at()")) << entry;
    }
    EXPECT_THAT(refusalOf({{"volumes", "x"}}), HasSubstr("cannot use at()"));
    EXPECT_EQ(harness.backupsMade, 0);
}

TEST_F(BackupTest, NumbersThatFitNoVolumeAreRefused) {
    for (const json& wrong : std::vector<json>{-1, -1.0, 1e300, -1e300}) {
        for (const char* key : {"offset", "lun"}) {
            json entry = volume();
            entry[key] = wrong;
            EXPECT_NE(refusalOf(request({entry})), "nothing was thrown") << key << wrong;
        }
    }
    json entry = volume();
    entry["lun"] = -1.5;
    EXPECT_EQ(refusalOf(request({entry})), "'lun': the logical unit number -1 is negative");
    entry["lun"] = 2147483648;
    EXPECT_EQ(refusalOf(request({entry})), "'lun': number out of range: 2147483648");
    entry["lun"] = 2147483647;
    entry["offset"] = -1;
    EXPECT_EQ(refusalOf(request({entry})), "'offset': number out of range: -1");
    entry["offset"] = UINT64_MAX;
    start(request({entry}));
    EXPECT_THAT(connectionOf("uuid-1"), Contains("iscsi_full_connect_sync 10.0.0.1 2147483647"));
}

TEST_F(BackupTest, ScriptsNeedANameAndMustBeObjects) {
    json entry = volume();
    entry["scriptsPrePost"] = json::array({{{"timeout", 5}}});
    EXPECT_EQ(refusalOf(request({entry})), "[json.exception.out_of_range.403] key 'scriptname' not found");
    entry["scriptsPrePost"] = json::array({{{"scriptname", 5}}});
    EXPECT_EQ(refusalOf(request({entry})),
              "[json.exception.type_error.302] type must be string, but is number");
    entry["scriptsPrePost"] = json::array({5});
    EXPECT_THAT(refusalOf(request({entry})), HasSubstr("cannot use at()"));
    entry["scriptsPrePost"] = "a";
    EXPECT_EQ(refusalOf(request({entry})),
              "[json.exception.type_error.302] type must be array, but is string");
}

/// As a path, a script name or a C string, the text would end at the NUL and name something else.
TEST_F(BackupTest, TextsWithANulAreRefused) {
    for (const char* key : {"guid", "qualifiedName", "target", "username", "password"}) {
        json entry = volume();
        entry[key] = std::string("a\0b", 3);
        EXPECT_EQ(refusalOf(request({entry})),
                  "the text of '" + std::string(key) + "' holds a NUL character");
    }
    json entry = volume();
    entry["scriptsPrePost"] = json::array({{{"scriptname", std::string("stop\0.old", 9)}}});
    EXPECT_EQ(refusalOf(request({entry})), "the text of 'scriptname' holds a NUL character");
    json body = request({volume()});
    body["interface"] = std::string("zephane\0", 8);
    EXPECT_EQ(refusalOf(body), "the text of 'interface' holds a NUL character");
    body = request({volume()});
    body["VSSExclusions"] = json::array({"a", std::string("\0", 1)});
    EXPECT_EQ(refusalOf(body), "the text of 'VSSExclusions' holds a NUL character");
    EXPECT_FALSE(hasMadeTransports());
}

/// These names appear in the log.
TEST_F(BackupTest, NamesWithControlCharactersAreRefused) {
    for (const char* key : {"guid", "qualifiedName", "target"}) {
        for (const char* name : {"a\nb", "\x1b[2J", "a\x7f"}) {
            json entry = volume();
            entry[key] = name;
            EXPECT_EQ(refusalOf(request({entry})),
                      "the text of '" + std::string(key) + "' holds a control character");
        }
    }
    json entry = volume();
    entry["scriptsPrePost"] = json::array({{{"scriptname", "a\rb"}}});
    EXPECT_EQ(refusalOf(request({entry})), "the text of 'scriptname' holds a control character");
    entry = volume();
    entry["password"] = "\t\u00e4";
    json body = request({entry});
    body["interface"] = "a\nb";
    EXPECT_EQ(start(body).status, 201);
    EXPECT_TRUE(record.has(4, "Backup transport interface requested: a\\nb"));
}

TEST_F(BackupTest, EndlessTextsAreRefused) {
    for (const char* key : {"guid", "qualifiedName", "target", "username", "password"}) {
        json entry = volume();
        entry[key] = std::string(4096, 'x');
        EXPECT_EQ(start(request({entry})).status, 201);
        entry[key] = std::string(4097, 'x');
        EXPECT_EQ(refusalOf(request({entry})),
                  "the text of '" + std::string(key) + "' is longer than 4096 bytes");
    }
}

TEST_F(BackupTest, DuplicateVolumesAreRefusedAndTheirTransportsGone) {
    EXPECT_EQ(refusalOf<std::invalid_argument>(request({volume(), volume()})),
              "Could not insert a volume attributes object into the attributes map.");
    EXPECT_EQ(harness.backupsMade, 0);
    EXPECT_TRUE(record.has(3, "Backup session added a transport for volume UUID uuid-1"));
    EXPECT_TRUE(record.has(4, "Backup session destroyed"));
}

TEST_F(BackupTest, OtherInterfacesAreIscsi) {
    json entry = volume();
    entry["target"] = "10.0.0.1:3260:1";
    json body = request({entry});
    start(body);
    EXPECT_TRUE(record.has(4, "Backup transport interface requested: <not specified>"));
    EXPECT_TRUE(record.has(3, "Backup transport interface: iSCSI"));
    record.clear();
    body["interface"] = "foo";
    start(body);
    EXPECT_TRUE(record.has(4, "Backup transport interface requested: foo"));
    EXPECT_TRUE(record.has(3, "Backup transport interface: iSCSI"));
    EXPECT_THAT(connectionOf("uuid-1"), Contains("iscsi_full_connect_sync 10.0.0.1:3260:1 3"));
}

class ZephaneFTPTest : public BackupTest {
protected:
    json to(const std::string& target) {
        json entry = volume();
        entry["target"] = target;
        json body = request({entry});
        body["interface"] = "zephaneftp";
        return body;
    }

    /// The arguments, except the filters, of the client that the transport of the last backup's volume makes.
    std::string clientOf(const std::string& uuid) {
        const std::shared_ptr<core::ITransport> transport = harness.takeTransport(uuid);
        zephane.calls.clear();
        EXPECT_TRUE(transport->connect(false));
        const std::string call = zephane.calls.at(4);
        return call.substr(0, call.find(" reading:"));
    }
};

TEST_F(ZephaneFTPTest, IsAskedForByItsName) {
    start(to("10.0.0.1:3260"));
    EXPECT_TRUE(record.has(4, "Backup transport interface requested: zephaneftp"));
    EXPECT_TRUE(record.has(3, "Backup transport interface: zephaneftp"));
    EXPECT_EQ(clientOf("uuid-1"), "ZephaneFTPClient 10.0.0.1 3260 iqn.x:y 3 10 secret");
    EXPECT_THAT(iscsi.calls, testing::IsEmpty());
}

TEST_F(ZephaneFTPTest, ImageBeginsAtItsOffset) {
    zephane.image.resize(8192);
    start(to("host:21"));
    const std::shared_ptr<core::ITransport> transport = harness.takeTransport("uuid-1");
    ASSERT_TRUE(transport->connect(false));
    EXPECT_EQ(transport->write("x", 1), 1);
    EXPECT_EQ(zephane.image[4096], 'x');
}

TEST_F(ZephaneFTPTest, LogicalUnitMayHave64Bits) {
    for (const json& lun : std::vector<json>{0, 2147483648, UINT64_MAX, 18446744073709549568.0}) {
        json body = to("host:21");
        body["volumes"][0]["lun"] = lun;
        start(body);
        const auto number = std::to_string(lun.get<std::uint64_t>());
        EXPECT_EQ(clientOf("uuid-1"), "ZephaneFTPClient host 21 iqn.x:y " + number + " 10 secret");
    }
}

TEST_F(ZephaneFTPTest, LogicalUnitIsNotNegativeAndNoLarger) {
    for (const auto& [lun, text] : std::vector<std::pair<json, std::string>>{
             {-1, "'lun': the logical unit number -1 is negative"},
             {-1.5, "'lun': the logical unit number -1 is negative"},
             {-1e300, "'lun': number out of range: -1e+300"},
             {18446744073709551616.0, "'lun': number out of range: 1.8446744073709552e+19"}}) {
        json body = to("host:21");
        body["volumes"][0]["lun"] = lun;
        EXPECT_EQ(refusalOf(body), text);
    }
    EXPECT_FALSE(hasMadeTransports());
}

TEST_F(ZephaneFTPTest, PortMayHaveMoreThan16Bits) {
    EXPECT_EQ(start(to("host:70000")).status, 201);
    EXPECT_EQ(clientOf("uuid-1"), "ZephaneFTPClient host 4464 iqn.x:y 3 10 secret");
}

TEST_F(ZephaneFTPTest, AddressesOfAnotherForm) {
    for (const char* target : {"10.0.0.1:3260:1", "10.0.0.1", "", "::"}) {
        EXPECT_EQ(refusalOf<std::invalid_argument>(to(target)), "Could not interpret target as address:host");
    }
    EXPECT_FALSE(hasMadeTransports());
}

TEST_F(ZephaneFTPTest, PortsThatAreNoNumber) {
    EXPECT_EQ(refusalOf<std::invalid_argument>(to("host:")), "stoi");
    EXPECT_EQ(refusalOf<std::invalid_argument>(to("host:ftp")), "stoi");
    EXPECT_EQ(refusalOf<std::out_of_range>(to("host:99999999999")), "stoi");
    EXPECT_EQ(harness.backupsMade, 0);
}

TEST_F(ZephaneFTPTest, LinesOfOneRequestInOrder) {
    start(to("host:21"));
    std::vector<std::string> texts;
    for (const auto& line : record.lines()) {
        texts.push_back(line.text);
    }
    texts.resize(7);
    EXPECT_THAT(texts,
                ElementsAre("Core engine created", "Handling backup start call", "Backup session created",
                            "Backup transport interface requested: zephaneftp",
                            "Backup transport interface: zephaneftp",
                            "Backup session added a transport for volume UUID uuid-1",
                            "Core engine was asked to create a backup"));
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
