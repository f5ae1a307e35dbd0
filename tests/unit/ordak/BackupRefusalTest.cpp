#include "unit/ordak/BackupFixture.h"

#include <gmock/gmock.h>

#include <stdexcept>

namespace agent::ordak {
namespace {

using testing::Contains;
using testing::HasSubstr;

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

} // namespace
} // namespace agent::ordak
