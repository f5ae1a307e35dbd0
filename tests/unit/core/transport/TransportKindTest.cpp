#include "core/transport/TransportKind.h"

#include "support/FakeIscsi.h"
#include "support/FakeZephane.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <stdexcept>

namespace agent::core {
namespace {

using testing::Contains;

const RemoteImage image{"iqn.x:y", "host:21", 3, 4096, "user", "secret"};

class TransportKindTest : public testing::Test {
protected:
    std::shared_ptr<ITransport> make(const std::string& interface) {
        return transportKindOf(interface).make(log.logger, image);
    }

    test::RecordingLogger log;
    test::FakeIscsi iscsi;
    test::FakeZephane zephane;
};

TEST_F(TransportKindTest, EachIsAskedForByItsWord) {
    EXPECT_STREQ(transportKindOf("zephaneftp").name, "zephaneftp");
    for (const char* word : {"", "iscsi", "foo", "ZEPHANEFTP", "zephaneftp "}) {
        EXPECT_STREQ(transportKindOf(word).name, "iSCSI") << word;
    }
}

TEST_F(TransportKindTest, MakingOneConnectsNothing) {
    for (const char* word : {"", "zephaneftp"}) {
        EXPECT_NE(make(word), nullptr) << word;
    }
    EXPECT_THAT(iscsi.calls, testing::IsEmpty());
    EXPECT_THAT(zephane.calls, testing::IsEmpty());
}

TEST_F(TransportKindTest, IscsiTransportIsThatOfTheImage) {
    iscsi.lastBlock = 15;
    iscsi.disk.resize(std::size_t{16} * 512);
    iscsi.disk[4096] = 7;
    const std::shared_ptr<ITransport> transport = make("");
    ASSERT_TRUE(transport->connect(false));
    EXPECT_THAT(iscsi.calls, Contains("iscsi_set_targetname iqn.x:y"));
    EXPECT_THAT(iscsi.calls, Contains("iscsi_set_initiator_username_pwd user secret"));
    EXPECT_THAT(iscsi.calls, Contains("iscsi_full_connect_sync host:21 3"));
    std::array<unsigned char, 512> block{};
    EXPECT_EQ(transport->read(block.data(), block.size()), 512);
    EXPECT_EQ(block[0], 7);
}

TEST_F(TransportKindTest, ZephaneFTPTransportIsThatOfTheImage) {
    zephane.image.resize(4097);
    zephane.image[4096] = 7;
    RemoteImage largest = image;
    largest.lun = transportKindOf("zephaneftp").maxLun;
    const std::shared_ptr<ITransport> transport = transportKindOf("zephaneftp").make(log.logger, largest);
    ASSERT_TRUE(transport->connect(false));
    EXPECT_THAT(zephane.calls, Contains("ZephaneFTPClient host 21 iqn.x:y 18446744073709551615 10 secret "
                                        "reading: Decompressor writing: Compressor"));
    unsigned char byte = 0;
    EXPECT_EQ(transport->read(&byte, 1), 1);
    EXPECT_EQ(byte, 7);
}

TEST_F(TransportKindTest, LogicalUnitsOfIscsiHave31Bits) {
    RemoteImage largest = image;
    largest.lun = transportKindOf("").maxLun;
    EXPECT_EQ(largest.lun, 2147483647U);
    ASSERT_TRUE(transportKindOf("").make(log.logger, largest)->connect(false));
    EXPECT_THAT(iscsi.calls, Contains("iscsi_full_connect_sync host:21 2147483647"));
}

TEST_F(TransportKindTest, FileProtocolNeedsAPort) {
    RemoteImage other = image;
    other.address = "host";
    EXPECT_THROW(transportKindOf("zephaneftp").make(log.logger, other), std::invalid_argument);
}

} // namespace
} // namespace agent::core
