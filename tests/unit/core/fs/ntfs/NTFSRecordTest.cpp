#include "core/fs/ntfs/NTFSRecord.h"

#include "core/fs/ntfs/NTFSAttributeCursor.h"
#include "core/fs/ntfs/NTFSError.h"
#include "core/fs/ntfs/NTFSRecordReader.h"
#include "support/NtfsImage.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace agent::core::fs {
namespace {

using test::NtfsImage;

constexpr std::uint32_t fileMagic = 0x454C4946;

class NTFSRecordTest : public testing::Test {
protected:
    /// Record 20 as it is on the disk, read as a record of `bytes` bytes.
    NTFSRecord onDisk(std::size_t bytes = 1024) {
        NTFSRecord record(bytes);
        image.volume.seek(static_cast<std::int64_t>(place), SEEK_SET);
        image.volume.read(record.bytes.data(), bytes);
        return record;
    }

    void expectTorn(std::size_t bytes = 1024) { EXPECT_FALSE(onDisk(bytes).applyFixups()); }

    std::int64_t read(std::uint64_t inode = 20) {
        NTFSRecordReader reader(log.logger, image.volume, 512);
        record = NTFSRecord(1024);
        return reader.readMftRecord(inode, place, record);
    }

    NtfsImage image{NtfsImage::Geometry{}};
    std::uint64_t place = image.placeOf(20);
    test::RecordingLogger log;
    NTFSRecord record{1024};
};

TEST_F(NTFSRecordTest, FixupsPutBackTheEndsOfSectors) {
    NtfsImage::Content value(900);
    for (std::size_t i = 0; i < value.size(); ++i) {
        value[i] = static_cast<std::uint8_t>(i * 7);
    }
    image.setRecord(20, {NtfsImage::resident(NtfsImage::fileName, value)});
    NTFSRecord fixed = onDisk();
    EXPECT_TRUE(fixed.applyFixups());
    EXPECT_TRUE(fixed.hasMagic(fileMagic));
    NTFSAttributeCursor cursor(log.logger, fixed);
    ASSERT_TRUE(cursor.findAttribute(NtfsImage::fileName));
    const Bytes found = cursor.attribute().value();
    EXPECT_TRUE(std::equal(found.begin(), found.end(), value.begin(), value.end()));
}

TEST_F(NTFSRecordTest, TornOneIsMarked) {
    image.setRecord(20, {});
    for (const std::uint64_t end : {510U, 511U, 1022U, 1023U}) {
        image.volume.at(place + end) ^= 1;
        NTFSRecord torn = onDisk();
        EXPECT_FALSE(torn.applyFixups());
        EXPECT_EQ(std::string(torn.bytes.begin(), torn.bytes.begin() + 4), "BAAD");
        image.volume.at(place + end) ^= 1;
    }
    EXPECT_TRUE(onDisk().applyFixups());
}

TEST_F(NTFSRecordTest, UpdateSequenceMustSuitTheRecord) {
    image.setRecord(20, {});
    expectTorn(1000);
    expectTorn(512);
    expectTorn(1536);
    const auto change = [this](std::uint64_t offset, std::uint64_t value) {
        image.setRecord(20, {});
        image.volume.writeLittle(place + offset, value, 2);
        expectTorn();
    };
    change(4, 1022);
    change(4, 1024);
    change(4, 0xFFFE);
    change(6, 0);
    change(6, 1);
    change(6, 2);
    change(6, 4);
    change(6, 0xFFFF);
}

TEST_F(NTFSRecordTest, SequenceMustBeginAtAnEvenByte) {
    for (const std::uint64_t offset : {48U, 49U, 50U}) {
        image.setRecord(20, {});
        image.volume.writeLittle(place + 4, offset, 2);
        for (const std::uint64_t same : {offset, std::uint64_t{510}, std::uint64_t{1022}}) {
            image.volume.writeLittle(place + same, 0x5555, 2);
        }
        EXPECT_EQ(onDisk().applyFixups(), offset % 2 == 0);
    }
}

TEST_F(NTFSRecordTest, SequenceMayStandAtTheEndAndNotBehindIt) {
    image.setRecord(20, {});
    for (const std::uint64_t same : {510U, 1018U, 1020U, 1022U}) {
        image.volume.writeLittle(place + same, 0x5555, 2);
    }
    image.volume.writeLittle(place + 4, 1020, 2);
    expectTorn(); // the last two bytes of the array are outside
    image.volume.writeLittle(place + 4, 1018, 2);
    image.volume.writeLittle(place + 1020, 0xAAAA, 2);
    NTFSRecord fixed = onDisk();
    EXPECT_TRUE(fixed.applyFixups());
    EXPECT_EQ(fixed.bytes[510], 0xAA);
}

TEST_F(NTFSRecordTest, ReaderTellsWhatIsWrong) {
    image.setRecord(20, {});
    EXPECT_EQ(read(), 0);
    EXPECT_TRUE(log.has(info::level::debug, "Reading $MFT for inode 20 at offset 36864"));
    EXPECT_EQ(read(21), -331);
    image.volume.at(place + 510) ^= 1;
    EXPECT_EQ(read(), -324);
    EXPECT_EQ(std::string(record.bytes.begin(), record.bytes.begin() + 4), "BAAD");
    image.volume.at(place) = 'f';
    EXPECT_EQ(read(), -320);
    EXPECT_TRUE(log.has(info::level::debug, "MFT record 20 is invalid."));
    image.volume.size = place + 1023;
    EXPECT_EQ(read(), -312);
    image.volume.failReads(place, place + 1);
    EXPECT_EQ(read(), -308);
}

TEST_F(NTFSRecordTest, OldOnesDoNotKnowTheirNumber) {
    image.setRecord(20, {}, 0, false);
    image.volume.writeLittle(place + 44, 99, 2); // part of the update sequence array in this format
    EXPECT_NE(read(), -331);
    image.setRecord(20, {}, 0, false);
    EXPECT_EQ(read(21), 0);
}

TEST_F(NTFSRecordTest, BaseIsWithoutItsSequenceNumber) {
    image.setRecord(20, {}, 0xABCDEF012345);
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(record.baseRecord(), 0xABCDEF012345U);
}

TEST_F(NTFSRecordTest, AttributesAreFoundInOrder) {
    image.setRecord(
        20, {NtfsImage::resident(0x10, {1}), NtfsImage::resident(0x30, {2}), NtfsImage::resident(0x30, {3})});
    ASSERT_EQ(read(), 0);
    log.clear();
    NTFSAttributeCursor cursor(log.logger, record);
    EXPECT_FALSE(cursor.findAttribute(0));
    EXPECT_TRUE(cursor.findAttribute(0x30));
    EXPECT_EQ(cursor.attribute().value()[0], 2);
    EXPECT_TRUE(cursor.findAttribute(0x30)); // the current attribute already has this type
    EXPECT_EQ(cursor.attribute().value()[0], 2);
    EXPECT_FALSE(cursor.findAttribute(0x10));
    EXPECT_FALSE(cursor.findAttribute(0xFFFFFFFF));
    EXPECT_EQ(log.count(info::level::debug, "Searching for attribute 48"), 2);
    EXPECT_TRUE(log.has(info::level::debug, "Searching for attribute 0"));
    EXPECT_TRUE(log.has(info::level::debug, "Searching for attribute 4294967295"));
}

TEST_F(NTFSRecordTest, AttributesMustBeWithinTheRecord) {
    const auto refuse = [this](std::uint64_t offset, std::uint64_t value, unsigned width) {
        image.setRecord(20, {NtfsImage::resident(0x10, {1})});
        image.volume.writeLittle(place + offset, value, width);
        ASSERT_EQ(read(), 0);
        NTFSAttributeCursor cursor(log.logger, record);
        EXPECT_THROW(cursor.findAttribute(0x80), NTFSError) << offset << " " << value;
    };
    const std::uint64_t attribute = 56;
    for (const std::uint64_t length : {0U, 1U, 23U, 969U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        refuse(attribute + 4, length, 4);
    }
    for (const std::uint64_t first : {1021U, 1024U, 0xFFFFU}) {
        refuse(20, first, 2);
    }
    refuse(attribute + 4, 968, 4); // without an end marker
}

TEST_F(NTFSRecordTest, LastAttributeNeedsNoMoreThanItsType) {
    image.setRecord(20, {NtfsImage::resident(0x10, NtfsImage::Content(1024 - 56 - 24 - 8))});
    ASSERT_EQ(read(), 0);
    record.bytes[1020] = record.bytes[1021] = record.bytes[1022] = record.bytes[1023] = 0xFF;
    record.bytes[60] = static_cast<std::uint8_t>(1020 - 56);
    NTFSAttributeCursor cursor(log.logger, record);
    EXPECT_FALSE(cursor.findAttribute(0x80));
}

} // namespace
} // namespace agent::core::fs
