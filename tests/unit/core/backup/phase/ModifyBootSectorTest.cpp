#include "core/backup/phase/ModifyBootSector.h"

#include "common/Exceptions.h"
#include "support/FakeTransport.h"
#include "support/FaultyTransport.h"
#include "support/FaultyVolume.h"
#include "support/MemoryVolume.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace agent::core::backup::phase {
namespace {

using exception::transport_connection_error;
using info::level::debug;
using info::level::error;
using info::level::warning;
using test::messageOf;
using testing::ElementsAre;
using testing::IsEmpty;
using Extent = test::FakeTransport::Extent;
using Line = test::RecordingLogger::Line;

constexpr int level3 = info::level::info;
constexpr std::size_t sectorBytes = 512;
constexpr std::uint64_t sectorsPerTrackOffset = 24;
constexpr std::uint8_t poison = 0xA5;

class ModifyBootSectorTest : public testing::Test {
protected:
    ModifyBootSectorTest() {
        for (std::uint64_t byte = 0; byte < sectorBytes; ++byte) {
            volume.at(byte) = static_cast<std::uint8_t>(byte);
        }
        volume.writeLittle(sectorsPerTrackOffset, 255, 2);
        target->connect(false);
    }

    void run(const std::string& filesystem = "NTFS", std::uint32_t sectorSize = 512) {
        ModifyBootSector(log.logger, filesystem, sectorSize, volume, writer).execute();
    }

    /// The boot sector that the target must have.
    static test::FakeTransport::Image expectedSector() {
        test::FakeTransport::Image sector(sectorBytes);
        for (std::size_t byte = 0; byte < sectorBytes; ++byte) {
            sector[byte] = static_cast<std::uint8_t>(byte);
        }
        sector[sectorsPerTrackOffset] = 63;
        sector[sectorsPerTrackOffset + 1] = 0;
        return sector;
    }

    test::RecordingLogger log;
    test::MemoryVolume volume{2 * sectorBytes};
    std::shared_ptr<test::FakeTransport> target =
        std::make_shared<test::FakeTransport>(test::FakeTransport::Image(2 * sectorBytes, poison));
    std::shared_ptr<ITransport> writer = target;

    const Line seeking{debug, "Seeking to 0 for the boot sector"};
    const Line reading{debug, "Reading 512 bytes out of the boot sector"};
    const Line setting{level3, "Setting the sectors per track to 63"};
    const Line seekingRemote{debug, "Seeking to 0 to write remote boot sector"};
    const Line writing{debug, "Writing 512 to remote boot sector"};
};

TEST_F(ModifyBootSectorTest, ImageGetsTheSectorsOfAVirtualDisk) {
    EXPECT_EQ(ModifyBootSector(log.logger, "NTFS", 512, volume, writer).getName(), "Modify Boot Sector");
    target->seek(sectorBytes, 0);
    volume.seek(sectorBytes, SEEK_SET);
    run();
    test::FakeTransport::Image expected = expectedSector();
    expected.resize(2 * sectorBytes, poison);
    EXPECT_EQ(target->image, expected);
    EXPECT_THAT(log.lines(), ElementsAre(seeking, reading, setting, seekingRemote, writing));
}

TEST_F(ModifyBootSectorTest, BothBytesOfTheFieldCount) {
    volume.writeLittle(sectorsPerTrackOffset, 0x0100 + 63, 2);
    run();
    EXPECT_EQ(target->image[sectorsPerTrackOffset], 63);
    EXPECT_EQ(target->image[sectorsPerTrackOffset + 1], 0);
}

TEST_F(ModifyBootSectorTest, SectorThatIsRightAlreadyIsNotWritten) {
    volume.writeLittle(sectorsPerTrackOffset, 63, 2);
    run();
    EXPECT_EQ(target->writes, 0);
    EXPECT_THAT(log.lines(), ElementsAre(seeking, reading, setting));
}

TEST_F(ModifyBootSectorTest, OtherVolumesAreNotTouched) {
    run("NTFS", 4096);
    run("ntfs");
    run("ext4");
    run("");
    EXPECT_THAT(volume.requests, IsEmpty());
    EXPECT_EQ(target->writes, 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ModifyBootSectorTest, ShortReadIsWrittenAsFarAsItGoes) {
    volume.longest = 100;
    target->blockBytes = 1;
    run();
    EXPECT_THAT(target->written, ElementsAre(Extent(0, 100)));
    EXPECT_EQ(target->image[sectorsPerTrackOffset], 63);
    EXPECT_EQ(target->image[100], poison);
    EXPECT_THAT(log.lines(),
                ElementsAre(seeking, reading,
                            Line{warning, "Read only 100 bytes instead of the expected 512 bytes"}, setting,
                            seekingRemote, Line{debug, "Writing 100 to remote boot sector"}));
}

TEST_F(ModifyBootSectorTest, ShortReadFailsWithATargetOfWholeBlocks) {
    volume.longest = 100;
    EXPECT_EQ(messageOf<exception::transport_connection_error>([&] { run(); }),
              "Failed to write the remote boot sector back!");
    EXPECT_EQ(target->image, test::FakeTransport::Image(2 * sectorBytes, poison));
}

TEST_F(ModifyBootSectorTest, NothingReadIsNothingWritten) {
    volume.longest = 0;
    run();
    EXPECT_EQ(target->image, test::FakeTransport::Image(2 * sectorBytes, poison));
    EXPECT_TRUE(log.has(warning, "Read only 0 bytes instead of the expected 512 bytes"));
}

TEST_F(ModifyBootSectorTest, VolumeThatCannotBeSoughtFails) {
    test::FaultyVolume unseekable(volume, 1);
    ModifyBootSector phase(log.logger, "NTFS", sectorBytes, unseekable, writer);
    EXPECT_EQ(messageOf<std::runtime_error>([&] { phase.execute(); }),
              "Failed to seek to boot sector, offset 0!");
    EXPECT_THAT(log.lines(), ElementsAre(seeking));
}

TEST_F(ModifyBootSectorTest, VolumeThatCannotBeReadFails) {
    volume.failReads(0, 1);
    EXPECT_EQ(messageOf<std::runtime_error>([&] { run(); }), "Failed to read boot sector, offset 0!");
    EXPECT_EQ(target->writes, 0);
    EXPECT_THAT(log.lines(), ElementsAre(seeking, reading));
}

TEST_F(ModifyBootSectorTest, TargetThatCannotBeSoughtIsAConnectionError) {
    writer = std::make_shared<test::FaultyTransport>(target, 1);
    EXPECT_EQ(messageOf<transport_connection_error>([&] { run(); }),
              "Failed to seek to remote boot sector offset!");
    EXPECT_THAT(log.lines(), ElementsAre(seeking, reading, setting, seekingRemote));
}

TEST_F(ModifyBootSectorTest, TargetThatCannotBeWrittenIsAConnectionError) {
    for (const std::int64_t failure : {-1, 0}) {
        log.clear();
        writer = std::make_shared<test::FaultyTransport>(target, 2, failure);
        EXPECT_EQ(messageOf<transport_connection_error>([&] { run(); }),
                  "Failed to write the remote boot sector back!");
        EXPECT_THAT(log.lines(),
                    ElementsAre(seeking, reading, setting, seekingRemote, writing,
                                Line{error, "Only written " + std::to_string(failure) +
                                                " instead of 512 bytes to the remote boot sector!"}));
    }
}

TEST_F(ModifyBootSectorTest, ShortWriteIsAConnectionError) {
    target->longestWrite = 256;
    EXPECT_EQ(messageOf<transport_connection_error>([&] { run(); }),
              "Failed to write the remote boot sector back!");
    EXPECT_TRUE(log.has(error, "Only written 256 instead of 512 bytes to the remote boot sector!"));
}

} // namespace
} // namespace agent::core::backup::phase
