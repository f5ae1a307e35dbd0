#include "ordak/Host.h"

#include "ordak/BasicHost.h"
#include "support/MockEngine.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <stdexcept>

namespace agent::ordak {
namespace {

using info::BackupableVolume;
using info::VolumeDescription;
using info::level::error;
using nlohmann::json;
using test::MockEngine;
using testing::NiceMock;
using testing::Return;
using testing::Throw;

class MockSystemInfo : public info::SystemInfoProvider {
public:
    MOCK_METHOD(std::string, getOSVersion, (), (const, override));
    MOCK_METHOD(info::KernelVersion, getKernelVersion, (), (const, override));
    MOCK_METHOD(std::string, getArchitecture, (), (const, override));
    MOCK_METHOD(int, getArchitectureBits, (), (const, override));
    MOCK_METHOD(long, getCPUCount, (), (const, override));
    MOCK_METHOD(std::uint64_t, getTotalRAM, (), (const, override));
    MOCK_METHOD(std::uint64_t, getFreeRAM, (), (const, override));
    MOCK_METHOD(std::string, getHostName, (), (const, override));
    MOCK_METHOD(std::int64_t, getUptime, (), (const, override));
    MOCK_METHOD(std::string, getSMBIOSValue, (const std::string&), (const, override));
};

class MockDriverInfo : public IDriverInfoProvider {
public:
    MOCK_METHOD(std::string, getDriverVersion, (), (const, override));
    MOCK_METHOD(bool, isRebootRequired, (), (const, override));
    MOCK_METHOD(std::string, getDriverStatus, (), (const, override));
};

class MockVolumeProvider : public info::VolumeProvider {
public:
    using VolumeProvider::VolumeProvider;
    MOCK_METHOD(std::vector<Volume>, getBackupableVolumes, (), (const, override));
    MOCK_METHOD(std::vector<Volume>, getBackupableVolumes, (const Filter&), (const, override));
};

class MockVolume : public BackupableVolume {
public:
    using BackupableVolume::BackupableVolume;
    MOCK_METHOD(std::uint64_t, getSpaceFree, (), (const, override));
};

class MockWriters : public IVSSWriterDetailsProvider {
public:
    MOCK_METHOD(std::vector<VSSWriterDetails>, getWriters, (), (override));
};

class HostTest : public testing::Test {
protected:
    HostTest() {
        ON_CALL(systemInfo, getOSVersion).WillByDefault(Return("Debian GNU/Linux 12 (bookworm)"));
        ON_CALL(systemInfo, getKernelVersion).WillByDefault(Return(info::KernelVersion{6, 1, 44}));
        ON_CALL(systemInfo, getArchitecture).WillByDefault(Return("x86_64"));
        ON_CALL(systemInfo, getArchitectureBits).WillByDefault(Return(64));
        ON_CALL(systemInfo, getCPUCount).WillByDefault(Return(8));
        ON_CALL(systemInfo, getTotalRAM).WillByDefault(Return(1ULL << 40));
        ON_CALL(systemInfo, getFreeRAM).WillByDefault(Return(1ULL << 39));
        ON_CALL(systemInfo, getHostName).WillByDefault(Return("bücher"));
        ON_CALL(systemInfo, getUptime).WillByDefault(Return(86400));
        for (const char* name : {"product_serial", "product_name", "product_uuid", "sys_vendor"}) {
            ON_CALL(systemInfo, getSMBIOSValue(name)).WillByDefault(Return(std::string("the ") + name));
        }
        ON_CALL(driverInfo, getDriverVersion).WillByDefault(Return("1.2.3"));
    }

    json ask() {
        const APIResponse response = host("a body that means nothing");
        EXPECT_EQ(response.status, 200);
        EXPECT_EQ(response.contentType, APIResponse::ContentType::json);
        return json::parse(response.text);
    }

    /// Makes every system query fail.
    void failAll() {
        const std::runtime_error failure("why");
        ON_CALL(systemInfo, getOSVersion).WillByDefault(Throw(failure));
        ON_CALL(systemInfo, getKernelVersion).WillByDefault(Throw(failure));
        ON_CALL(systemInfo, getArchitecture).WillByDefault(Throw(failure));
        ON_CALL(systemInfo, getArchitectureBits).WillByDefault(Throw(failure));
        ON_CALL(systemInfo, getCPUCount).WillByDefault(Throw(failure));
        ON_CALL(systemInfo, getTotalRAM).WillByDefault(Throw(failure));
        ON_CALL(systemInfo, getFreeRAM).WillByDefault(Throw(failure));
        ON_CALL(systemInfo, getHostName).WillByDefault(Throw(failure));
        ON_CALL(systemInfo, getUptime).WillByDefault(Throw(failure));
        ON_CALL(systemInfo, getSMBIOSValue).WillByDefault(Throw(failure));
        ON_CALL(driverInfo, getDriverVersion).WillByDefault(Throw(failure));
        ON_CALL(engine, getQuiesceScripts).WillByDefault(Throw(failure));
    }

    void findVolume(std::shared_ptr<BackupableVolume> volume) {
        ON_CALL(volumes, getBackupableVolumes())
            .WillByDefault(Return(std::vector<info::VolumeProvider::Volume>{std::move(volume)}));
    }

    static VolumeDescription full() {
        return {.device = "/dev/sda1",
                .fileSystem = "xfs",
                .size = 1ULL << 33,
                .uuid = "some-uuid",
                .label = "some label",
                .mountPoints = {"/", "/mnt/Büro und Lager"},
                .blockSize = 4096,
                .blockCount = 7,
                .sectorSize = 512,
                .sectorCount = 1ULL << 24,
                .hiddenSectors = 0,
                .partScheme = "GPT",
                .volumeType = "",
                .mounted = true,
                .readOnly = true,
                .removable = true,
                .osVolume = true,
                .sysVolume = true};
    }

    test::RecordingLogger log;
    NiceMock<MockSystemInfo> systemInfo;
    NiceMock<MockDriverInfo> driverInfo;
    NiceMock<MockVolumeProvider> volumes{log.logger};
    NiceMock<MockEngine> engine;
    NiceMock<MockWriters> writers;
    Host host{log.logger, systemInfo, driverInfo, volumes, engine, writers, "2.1.23.0"};
};

/// Clients depend on the exact keys and types of this response.
TEST_F(HostTest, DescribesTheMachine) {
    ON_CALL(engine, getQuiesceScripts).WillByDefault(Return(std::vector<std::string>{"database", "mail"}));
    EXPECT_EQ(ask(), (json{{"kernel", "linux"},
                           {"os", "Debian GNU/Linux 12 (bookworm)"},
                           {"os_arch", "x86_64"},
                           {"os_version", {{"major", 6}, {"minor", 1}, {"build", 44}}},
                           {"hostname", "bücher"},
                           {"archBits", 64},
                           {"cpus", 8},
                           {"uptime", 86400},
                           {"ram", 1ULL << 40},
                           {"freeram", 1ULL << 39},
                           {"agentVersion", "2.1.23.0"},
                           {"driverVersion", "1.2.3"},
                           {"smbiosID", "the product_serial"},
                           {"smbiosName", "the product_name"},
                           {"smbiosUUID", "the product_uuid"},
                           {"smbiosVendor", "the sys_vendor"},
                           {"scriptsPrePost",
                            {{{"scriptname", "database"}, {"displayname", "database"}},
                             {{"scriptname", "mail"}, {"displayname", "mail"}}}},
                           {"VSSWriters", json::array()},
                           {"volumes", json::array()}}));
    EXPECT_TRUE(log.lines().empty());
}

/// Here, too, clients depend on the exact keys and types.
TEST_F(HostTest, DescribesAVolume) {
    const auto volume = std::make_shared<MockVolume>(full());
    EXPECT_CALL(*volume, getSpaceFree).WillOnce(Return(1ULL << 32));
    findVolume(volume);
    EXPECT_EQ(ask()["volumes"], (json::array({{{"guid", "some-uuid"},
                                               {"device", "/dev/sda1"},
                                               {"spaceTotal", 1ULL << 33},
                                               {"spaceFree", 1ULL << 32},
                                               {"filesystem", "xfs"},
                                               {"serialNumber", 0},
                                               {"label", "some label"},
                                               {"OSVolume", true},
                                               {"sysVolume", true},
                                               {"removable", true},
                                               {"mounted", true},
                                               {"readonly", true},
                                               {"partScheme", "GPT"},
                                               {"volumeType", ""},
                                               {"sectorSize", 512},
                                               {"sectorsTotal", 1ULL << 24},
                                               {"hiddenSectors", 0},
                                               {"clusterSizeInBytes", 4096},
                                               {"mountpoints", {"/", "/mnt/Büro und Lager"}}}})));
}

TEST_F(HostTest, FlagsOfAVolumeAreToldApart) {
    const auto flags = [this](bool VolumeDescription::* flag) {
        VolumeDescription description;
        description.*flag = true;
        findVolume(std::make_shared<NiceMock<MockVolume>>(description));
        const json volume = ask()["volumes"][0];
        std::string set;
        for (const char* key : {"mounted", "readonly", "removable", "OSVolume", "sysVolume"}) {
            set += volume[key].get<bool>() ? std::string(key) + " " : "";
        }
        return set;
    };
    EXPECT_EQ(flags(&VolumeDescription::mounted), "mounted ");
    EXPECT_EQ(flags(&VolumeDescription::readOnly), "readonly ");
    EXPECT_EQ(flags(&VolumeDescription::removable), "removable ");
    EXPECT_EQ(flags(&VolumeDescription::osVolume), "OSVolume ");
    EXPECT_EQ(flags(&VolumeDescription::sysVolume), "sysVolume ");
}

TEST_F(HostTest, FreeSpaceIsAskedOfMountedVolumesOnly) {
    VolumeDescription swap = full();
    swap.mountPoints = {"<swap>"};
    swap.mounted = false;
    const auto volume = std::make_shared<MockVolume>(swap);
    EXPECT_CALL(*volume, getSpaceFree).Times(0);
    findVolume(volume);
    const json described = ask()["volumes"][0];
    EXPECT_EQ(described["spaceFree"], 0);
    EXPECT_EQ(described["mountpoints"], json::array({"<swap>"}));
    EXPECT_EQ(described["mounted"], false);
}

TEST_F(HostTest, FreeSpaceThatCannotBeReadCostsOnlyItself) {
    const auto volume = std::make_shared<MockVolume>(full());
    EXPECT_CALL(*volume, getSpaceFree).WillOnce(Throw(std::runtime_error("no answer")));
    findVolume(volume);
    const json described = ask()["volumes"][0];
    EXPECT_EQ(described["spaceFree"], "[ERROR]");
    EXPECT_EQ(described["guid"], "some-uuid");
    EXPECT_TRUE(log.has(error, "no answer"));
}

TEST_F(HostTest, FactThatCannotBeHadCostsOnlyItself) {
    ON_CALL(systemInfo, getHostName).WillByDefault(Throw(std::runtime_error("no name")));
    const json host = ask();
    EXPECT_EQ(host["hostname"], "[ERROR]");
    EXPECT_EQ(host["os_arch"], "x86_64");
    EXPECT_TRUE(log.has(error, "no name"));
    EXPECT_EQ(log.lines().size(), 1);
}

TEST_F(HostTest, AllFactsMayFail) {
    failAll();
    const json host = ask();
    for (const char* key :
         {"os", "os_arch", "hostname", "archBits", "cpus", "uptime", "ram", "freeram", "driverVersion",
          "smbiosID", "smbiosName", "smbiosUUID", "smbiosVendor", "scriptsPrePost"}) {
        EXPECT_EQ(host[key], "[ERROR]") << key;
    }
    EXPECT_EQ(host["os_version"], (json{{"major", 0}, {"minor", 0}, {"build", 0}}));
    EXPECT_EQ(host["kernel"], "linux");
    EXPECT_EQ(host["volumes"], json::array());
    EXPECT_EQ(log.count(error, "why"), 15);
}

TEST_F(HostTest, WritersAreNamed) {
    ON_CALL(writers, getWriters).WillByDefault(Return(std::vector<VSSWriterDetails>{{"a writer"}}));
    EXPECT_EQ(ask()["VSSWriters"], json::array({{{"name", "a writer"}}}));
}

TEST_F(HostTest, WritersThatCannotBeAskedAreLeftOut) {
    ON_CALL(writers, getWriters).WillByDefault(Throw(std::runtime_error("silence")));
    EXPECT_FALSE(ask().contains("VSSWriters"));
    EXPECT_TRUE(log.has(info::level::info, "Failed to retreive VSS writers info: silence"));
}

TEST_F(HostTest, SearchForVolumesThatFailsFailsTheCall) {
    ON_CALL(volumes, getBackupableVolumes()).WillByDefault(Throw(std::runtime_error("no service")));
    EXPECT_THROW(host(""), std::runtime_error);
}

TEST_F(HostTest, BasicsAreThreeFacts) {
    const APIResponse response = BasicHost(log.logger, systemInfo)();
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.contentType, APIResponse::ContentType::json);
    EXPECT_EQ(
        json::parse(response.text),
        (json{{"os", "Debian GNU/Linux 12 (bookworm)"}, {"os_arch", "x86_64"}, {"hostName", "bücher"}}));
}

TEST_F(HostTest, BasicsMayFailToo) {
    failAll();
    EXPECT_EQ(json::parse(BasicHost(log.logger, systemInfo)().text),
              (json{{"os", "[ERROR]"}, {"os_arch", "[ERROR]"}, {"hostName", "[ERROR]"}}));
    EXPECT_EQ(log.count(error, "why"), 3);
}

} // namespace
} // namespace agent::ordak
