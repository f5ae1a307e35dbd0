#include "unit/ordak/BackupFixture.h"

#include <gmock/gmock.h>

#include <stdexcept>

namespace agent::ordak {
namespace {

using testing::ElementsAre;

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

} // namespace
} // namespace agent::ordak
