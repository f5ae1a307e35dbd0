#include "core/backup/phase/OpenVolumeIO.h"

#include "common/Exceptions.h"
#include "support/FakeTransport.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace agent::core::backup::phase {
namespace {

using test::messageOf;

const std::string uuid = "the-volume";

class FakeDevice : public IVolumeDevice {
public:
    std::int64_t read(void* /*buffer*/, std::size_t /*length*/) override { return -1; }
    std::int64_t seek(std::int64_t /*offset*/, int /*whence*/) override { return -1; }
    [[nodiscard]] std::int32_t getFd() const override { return -1; }
    bool open() override { return ++opens > 0 && present; }
    [[nodiscard]] std::uint64_t getSize() const override { return 0; }

    bool present = true;
    int opens = 0;
};

class OpenVolumeIOTest : public testing::Test {
protected:
    OpenVolumeIOTest() {
        session.addTransport(uuid, target);
        session.open();
    }

    void run(bool isDiffMerge) {
        OpenVolumeIO phase(session, uuid, device, writer, isDiffMerge);
        EXPECT_EQ(phase.getName(), "Open Volume I/O");
        phase.execute();
    }

    test::RecordingLogger log;
    std::shared_ptr<test::FakeTransport> target = std::make_shared<test::FakeTransport>(4096);
    BackupSession session{log.logger};
    FakeDevice device;
    std::shared_ptr<ITransport> writer;
};

TEST_F(OpenVolumeIOTest, OpensBothEnds) {
    run(false);
    EXPECT_EQ(device.opens, 1);
    EXPECT_EQ(writer, target);
    EXPECT_TRUE(target->connected);
    EXPECT_FALSE(target->diffMerge);
}

TEST_F(OpenVolumeIOTest, TargetIsToldToCompare) {
    run(true);
    EXPECT_TRUE(target->diffMerge);
}

TEST_F(OpenVolumeIOTest, DeviceThatCannotBeOpenedFailsBeforeTheTargetIsAsked) {
    device.present = false;
    EXPECT_EQ(messageOf<std::runtime_error>([&] { run(false); }), "Failed to open volume for reading!");
    EXPECT_EQ(target->connects, 0);
    EXPECT_FALSE(writer);
}

TEST_F(OpenVolumeIOTest, TargetThatRefusesIsAConnectionError) {
    target->refusing = true;
    EXPECT_EQ(messageOf<exception::transport_connection_error>([&] { run(false); }),
              "Failed to open transport connection for volume UUID the-volume");
    EXPECT_FALSE(writer);
}

} // namespace
} // namespace agent::core::backup::phase
