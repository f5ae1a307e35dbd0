#include "unit/info/DriverFixture.h"

#include <climits>
#include <filesystem>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace agent::info {
namespace {

using nlohmann::json;

class DriverTableTest : public test::DriverFixture {
protected:
    void show(const std::string& text) {
        test::writeFile(statusFiles.info, text);
        recorder.clear();
    }
    void showDevices(const json& devices) { show(json{{"version", "0.9.16"}, {"devices", devices}}.dump()); }

    static json element(const json& minor, const std::string& blockDevice = device) {
        return {{"minor", minor}, {"state", 2}, {"cow_file", "/.tolvu"}, {"block_device", blockDevice}};
    }
    static json elementWith(const std::string& key, const json& value) {
        json changed = element(4);
        changed[key] = value;
        return changed;
    }

    bool knows(int minor) {
        DriverDeviceInfo found;
        return controller.getDeviceByMinor(minor, found);
    }

    /// Whether parsing the table fails with a reason that starts with this.
    bool failsToParse(const std::string& text, const std::string& reason) {
        show(text);
        return !controller.Load() && recorder.lines().size() == 2 &&
               recorder.hasPart(level::error,
                                "Unable to parse tolvubd info from " + text + ": exception: " + reason);
    }
    bool deviceFailsToParse(const json& device, const std::string& reason) {
        return failsToParse(json{{"version", "0.9.16"}, {"devices", {device}}}.dump(), reason);
    }

    /// The lines that isDriverVersionSupported() logs about a version, after those that it always logs.
    Lines verdictOn(const std::string& version, bool expected) {
        show(json{{"version", version}, {"devices", json::array()}}.dump());
        EXPECT_EQ(controller.isDriverVersionSupported(), expected) << version;
        Lines all = recorder.lines();
        EXPECT_EQ(Lines(all.begin(), all.begin() + 3),
                  (Lines{{level::debug, "start isDriverVersionSupported"},
                         {level::debug, "start Load"},
                         {level::debug, "running tolvubd version: " + version}}));
        return {all.begin() + 3, all.end()};
    }

    static Lines tooOld(const std::string& version) {
        return {
            {level::error, "tolvubd version too old, minimum required: 0.9.16, running version: " + version}};
    }

    const std::string typeError = "[json.exception.type_error.302]";
    DriverDeviceInfo untouched{77, 77, "kept", "kept", 77};
};

TEST_F(DriverTableTest, SaysWhenItComesAndGoes) {
    recorder.clear();
    {
        DriverController(recorder.logger, nullptr, [this] { return statusFiles; });
    }
    EXPECT_EQ(recorder.lines(), (Lines{{level::debug, "DriverController created"},
                                       {level::debug, "DriverController destroyed"}}));
}

TEST_F(DriverTableTest, EveryFieldOfADevice) {
    driver.add({9, 3, "/.tolvu1", device, -5});
    DriverDeviceInfo found;
    recorder.clear();
    ASSERT_TRUE(controller.getDeviceByMinor(9, found));
    EXPECT_EQ(found.minor, 9);
    EXPECT_EQ(found.state, 3);
    EXPECT_EQ(found.cow_file, "/.tolvu1");
    EXPECT_EQ(found.block_device, device);
    EXPECT_EQ(found.error, -5);
    EXPECT_EQ(recorder.lines(),
              (Lines{{level::debug, "start getDeviceByMinor for minor: 9"},
                     {level::debug, "start Load"},
                     {level::debug, "Found device: minor: 9, state: 3, cowfile: /.tolvu1, blockdevice: "
                                    "/dev/fake1, error: -5"}}));
}

TEST_F(DriverTableTest, NoDevices) {
    std::string path = "kept";
    EXPECT_TRUE(controller.Load());
    EXPECT_FALSE(controller.getDeviceByMinor(0, untouched));
    EXPECT_FALSE(controller.getDeviceInfo(volume, untouched));
    EXPECT_FALSE(controller.getSnapshotPath(volume, path));
    EXPECT_EQ(untouched.minor, 77);
    EXPECT_EQ(path, "kept");
    int minor = 77;
    EXPECT_TRUE(controller.getUnusedMinor(minor));
    EXPECT_EQ(minor, 0);
    EXPECT_TRUE(recorder.has(level::debug, "No device for minor number found for minor 0"));
    EXPECT_TRUE(recorder.has(level::debug, std::string("Could not find device for ") + uuid));
    EXPECT_TRUE(recorder.has(level::error, "Unable to find device for getSnapshotPath: /dev/fake1"));
}

TEST_F(DriverTableTest, LowestUnusedMinor) {
    showDevices(json::array({element(0, "a"), element(1, "b"), element(3, "c")}));
    int minor = 77;
    EXPECT_TRUE(controller.getUnusedMinor(minor));
    EXPECT_EQ(minor, 2);
    EXPECT_EQ(recorder.lines().front(), (Line{level::debug, "start getUnusedMinor"}));
    EXPECT_EQ(recorder.lines().back(), (Line{level::debug, "Next available minor: 2"}));
}

TEST_F(DriverTableTest, UnusedMinorsEndAt255) {
    for (const int used : {254, 255, 256, 300}) {
        json devices = json::array();
        for (int minor = 0; minor < used; ++minor) {
            devices.push_back(element(minor, std::to_string(minor)));
        }
        showDevices(devices);
        int minor = 77;
        EXPECT_TRUE(controller.getUnusedMinor(minor));
        EXPECT_EQ(minor, std::min(used, 255));
    }
}

TEST_F(DriverTableTest, VolumeIsFoundByItsDevice) {
    driver.add({1, 2, "/.tolvu", "/dev/other", 0});
    driver.add({2, 3, "/.tolvu1", device, 0});
    std::string path;
    recorder.clear();
    EXPECT_TRUE(controller.getSnapshotPath(volume, path));
    EXPECT_EQ(path, "/dev/tolvu2");
    EXPECT_EQ(recorder.lines().at(0), (Line{level::debug, "start getSnapshotPath for device: /dev/fake1"}));
    EXPECT_EQ(recorder.lines().at(1), (Line{level::debug, "start getDeviceInfo"}));
    EXPECT_EQ(recorder.lines().at(2), (Line{level::debug, "start Load"}));
}

TEST_F(DriverTableTest, SnapshotPathDoesNotDependOnTheState) {
    addDevice(2, "/.tolvu", 12);
    std::string path;
    EXPECT_TRUE(controller.getSnapshotPath(volume, path));
    EXPECT_EQ(path, "/dev/tolvu12");
}

TEST_F(DriverTableTest, VolumeIsFoundByItsUuid) {
    driver.add({5, 2, "/.tolvu", std::string("/dev/disk/by-uuid/") + uuid, 0});
    ASSERT_TRUE(controller.getDeviceInfo(volume, untouched));
    EXPECT_EQ(untouched.minor, 5);
}

TEST_F(DriverTableTest, LaterElementsReplaceEarlierOnes) {
    showDevices(json::array({element(1, "/dev/a"), element(1, device), element(2, device)}));
    ASSERT_TRUE(controller.getDeviceByMinor(1, untouched));
    EXPECT_EQ(untouched.block_device, device);
    ASSERT_TRUE(controller.getDeviceInfo(volume, untouched));
    EXPECT_EQ(untouched.minor, 2);
}

TEST_F(DriverTableTest, TableIsNeverOlderThanTheCall) {
    addDevice(2);
    EXPECT_TRUE(knows(0));
    showDevices(json::array());
    EXPECT_FALSE(knows(0));
    showDevices(json::array({element(3)}));
    EXPECT_TRUE(knows(3));
}

TEST_F(DriverTableTest, InvalidElementsAreLeftOut) {
    const std::vector<std::pair<json, std::string>> invalid = {
        {elementWith("minor", -1),
         "minor: -1, state: 2, cowfile: /.tolvu, blockdevice: /dev/fake1, error: 0"},
        {elementWith("minor", INT_MIN),
         "minor: -2147483648, state: 2, cowfile: /.tolvu, blockdevice: /dev/fake1, error: 0"},
        {elementWith("state", 6), "minor: 4, state: 6, cowfile: /.tolvu, blockdevice: /dev/fake1, error: 0"},
        {elementWith("state", -1),
         "minor: 4, state: -1, cowfile: /.tolvu, blockdevice: /dev/fake1, error: 0"},
        {elementWith("cow_file", ""), "minor: 4, state: 2, cowfile: , blockdevice: /dev/fake1, error: 0"},
        {elementWith("block_device", ""), "minor: 4, state: 2, cowfile: /.tolvu, blockdevice: , error: 0"},
    };
    for (const auto& [bad, shown] : invalid) {
        showDevices(json::array({bad, element(8, "/dev/good")}));
        EXPECT_TRUE(controller.Load());
        EXPECT_TRUE(recorder.has(level::error, "Invalid data from driver, ignoring this device: " + shown));
        EXPECT_FALSE(knows(4)) << shown;
        EXPECT_FALSE(controller.getDeviceInfo(volume, untouched)) << shown;
        EXPECT_TRUE(knows(8)) << shown;
    }
}

TEST_F(DriverTableTest, StatesUpTo5AreTaken) {
    for (int state = 0; state <= 5; ++state) {
        showDevices(json::array({elementWith("state", state)}));
        ASSERT_TRUE(controller.getDeviceByMinor(4, untouched));
        EXPECT_EQ(untouched.state, state);
    }
}

TEST_F(DriverTableTest, MissingErrorIsNone) {
    showDevices(json::array({element(4)}));
    ASSERT_TRUE(controller.getDeviceByMinor(4, untouched));
    EXPECT_EQ(untouched.error, 0);
}

TEST_F(DriverTableTest, ValuesOfAnObjectAreWalkedToo) {
    showDevices(json{{"a", element(1, "/dev/a")}, {"b", element(2)}});
    EXPECT_TRUE(knows(1));
    EXPECT_TRUE(knows(2));
}

TEST_F(DriverTableTest, MissingFileIsEmptyText) {
    std::filesystem::remove(statusFiles.info);
    recorder.clear();
    EXPECT_FALSE(controller.Load());
    ASSERT_EQ(recorder.lines().size(), 2U);
    EXPECT_EQ(recorder.lines().at(0), (Line{level::debug, "start Load"}));
    EXPECT_TRUE(recorder.lines().at(1).text.starts_with("Unable to parse tolvubd info from : exception: "
                                                        "[json.exception.parse_error.101]"));
    EXPECT_EQ(recorder.lines().at(1).level, level::error);
}

TEST_F(DriverTableTest, ReadErrorIsNamed) {
    std::filesystem::remove(statusFiles.info);
    std::filesystem::create_directory(statusFiles.info);
    recorder.clear();
    EXPECT_FALSE(controller.Load());
    const std::string& file = statusFiles.info;
    EXPECT_EQ(
        recorder.lines().at(1),
        (Line{level::error, "Unable to read tolvubd info from " + file + ": exception: read of \"" + file +
                                "\" failed: Is a directory | ERROR(Posix) : 21 (0x15), errno: 21"}));
}

TEST_F(DriverTableTest, EndlessFileIsRefused) {
    DriverController endless(recorder.logger, nullptr, [] { return DriverStatusFiles{"/dev/zero", ""}; });
    recorder.clear();
    EXPECT_FALSE(endless.Load());
    EXPECT_TRUE(recorder.hasPart(
        level::error, "Unable to read tolvubd info from /dev/zero: exception: \"/dev/zero\" is too large"));
}

/// Some drivers update their files when they are asked for the files' paths.
TEST_F(DriverTableTest, EachLoadAsksTheDriverForItsFiles) {
    addDevice(2);
    DriverController asking(recorder.logger, nullptr, [this] {
        driver.add({1, 2, "/.tolvu", "/dev/fake2", 5});
        return statusFiles;
    });
    DriverDeviceInfo found;
    ASSERT_TRUE(asking.getDeviceByMinor(1, found));
    EXPECT_EQ(found.error, 5);
}

TEST_F(DriverTableTest, PipeIsEmptyText) {
    std::filesystem::remove(statusFiles.info);
    ASSERT_EQ(::mkfifo(statusFiles.info.c_str(), 0600), 0);
    recorder.clear();
    EXPECT_FALSE(controller.Load());
    EXPECT_TRUE(recorder.hasPart(level::error, "Unable to parse tolvubd info from : exception: "));
}

/// stat() reports size 0 for files in /proc.
TEST_F(DriverTableTest, FileWithoutASizeIsReadToItsEnd) {
    struct ::stat found{};
    ASSERT_EQ(::stat("/proc/self/mountinfo", &found), 0);
    ASSERT_EQ(found.st_size, 0);
    EXPECT_EQ(readDriverStatusFile("/proc/self/mountinfo"), test::readFile("/proc/self/mountinfo"));
}

TEST_F(DriverTableTest, TextsThatAreNoTable) {
    const std::string devices = R"("devices":[])";
    EXPECT_TRUE(failsToParse("", "[json.exception.parse_error.101]"));
    EXPECT_TRUE(failsToParse("{", "[json.exception.parse_error.101]"));
    EXPECT_TRUE(failsToParse("tolvubd is away", "[json.exception.parse_error.101]"));
    EXPECT_TRUE(failsToParse("[]", "[json.exception.type_error.304]"));
    EXPECT_TRUE(failsToParse("{" + devices + "}", "[json.exception.out_of_range.403] key 'version'"));
    EXPECT_TRUE(failsToParse(R"({"version":"0.9.16"})", "[json.exception.out_of_range.403] key 'devices'"));
    EXPECT_TRUE(failsToParse(R"({"version":9,)" + devices + "}", typeError));
    for (const char* wrong : {"null", "7", "\"x\"", "true"}) {
        EXPECT_TRUE(failsToParse(R"({"version":"0.9.16","devices":)" + std::string(wrong) + "}", typeError));
    }
    EXPECT_TRUE(failsToParse(std::string(100'000, '['), "[json.exception.parse_error.101]"));
    EXPECT_TRUE(failsToParse(R"({"version":"0.9.16","devices":[)" + std::string(500, '[') +
                                 std::string(500, ']') + "]}",
                             "[json.exception.parse_error.101]"));
}

TEST_F(DriverTableTest, ElementsThatAreNoDevices) {
    for (const char* key : {"minor", "state", "cow_file", "block_device"}) {
        json incomplete = element(4);
        incomplete.erase(key);
        EXPECT_TRUE(
            deviceFailsToParse(incomplete, std::string("[json.exception.out_of_range.403] key '") + key));
    }
    for (const char* key : {"minor", "state", "error"}) {
        for (const json& wrong : {json("4"), json(true), json(nullptr), json(4.0), json::array({4})}) {
            EXPECT_TRUE(deviceFailsToParse(elementWith(key, wrong), typeError)) << key << wrong;
        }
        // None of these may be truncated to a number that looks valid.
        for (const json& wrong : {json(4'294'967'296 + 4), json(2'147'483'648), json(-2'147'483'649),
                                  json(18'446'744'073'709'551'615U)}) {
            EXPECT_TRUE(deviceFailsToParse(elementWith(key, wrong), "[json.exception.out_of_range.406]"))
                << key << wrong;
        }
    }
    for (const char* key : {"cow_file", "block_device"}) {
        EXPECT_TRUE(deviceFailsToParse(elementWith(key, 4), typeError)) << key;
    }
    EXPECT_TRUE(deviceFailsToParse(json(4), "[json.exception.type_error.304]"));
}

/// If the table has no device list, the maps stay as they were.
TEST_F(DriverTableTest, FailedLoadKeepsTheTable) {
    addDevice(2);
    ASSERT_TRUE(controller.isDriverVersionSupported());
    int minor = 77;
    show(R"({"version":"0.9.17","devices":7})");
    EXPECT_FALSE(controller.getUnusedMinor(minor));
    EXPECT_FALSE(controller.getDeviceByMinor(0, untouched));
    EXPECT_FALSE(controller.getDeviceInfo(volume, untouched));
    EXPECT_FALSE(controller.isDriverVersionSupported());
    EXPECT_EQ(minor, 77);
    EXPECT_EQ(untouched.minor, 77);
}

TEST_F(DriverTableTest, TenThousandDevices) {
    json devices = json::array();
    for (int minor = 0; minor < 10'000; ++minor) {
        devices.push_back(element(minor, "/dev/many" + std::to_string(minor)));
    }
    showDevices(devices);
    EXPECT_TRUE(controller.Load());
    EXPECT_TRUE(knows(0));
    EXPECT_TRUE(knows(9999));
}

TEST_F(DriverTableTest, SupportedVersions) {
    for (const char* version : {"0.9.16", "0.9.16.1", "0.9.17", "0.10", "0.10.0", "1.0.0", "1.0.0-rc1"}) {
        EXPECT_EQ(verdictOn(version, true), Lines()) << version;
    }
    for (const char* version : {"0.9.15", "0.9.15.99", "0.8.99", "0.9.x", "lab-1.0", "0.9.-16"}) {
        EXPECT_EQ(verdictOn(version, false), tooOld(version)) << version;
    }
    for (const char* version : {"", "1.0", "10", "9.9"}) {
        EXPECT_EQ(verdictOn(version, false),
                  (Lines{{level::error, std::string("Invalid tolvubd version: ") + version}}));
    }
}

TEST_F(DriverTableTest, VersionWithoutATable) {
    show("");
    EXPECT_FALSE(controller.isDriverVersionSupported());
    EXPECT_FALSE(recorder.hasPart(level::debug, "running tolvubd version"));
}

} // namespace
} // namespace agent::info
