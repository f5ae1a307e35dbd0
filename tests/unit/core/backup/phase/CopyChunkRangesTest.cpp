#include "core/backup/phase/CopyChunkRanges.h"

#include "common/Exceptions.h"
#include "core/backup/BackupStatusHandler.h"
#include "support/CountedCancel.h"
#include "support/FakeTransport.h"
#include "support/FaultyTransport.h"
#include "support/FaultyVolume.h"
#include "support/FixedRanges.h"
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
using test::messageOf;
using testing::ElementsAre;
using testing::IsEmpty;
using Extent = test::FakeTransport::Extent;
using Line = test::RecordingLogger::Line;
using Request = test::MemoryVolume::Request;

constexpr std::uint32_t blockSize = 512;
constexpr std::uint64_t blockBytes = blockSize;
constexpr std::uint64_t blocks = 16;
constexpr std::uint64_t bufferBlocks = 4;
constexpr std::uint8_t poison = 0xA5;
const std::string uuid = "the-volume";

std::uint8_t contentOf(std::uint64_t block) {
    return static_cast<std::uint8_t>(block + 1);
}

class CopyChunkRangesTest : public testing::Test {
protected:
    CopyChunkRangesTest() {
        for (std::uint64_t block = 0; block < blocks; ++block) {
            for (std::uint64_t byte = 0; byte < blockSize; ++byte) {
                source.at(block * blockSize + byte) = contentOf(block);
            }
        }
        target->connect(false);
    }

    void copy(std::vector<BlockRange> ranges) {
        provider = std::make_unique<test::FixedRanges>(std::move(ranges));
        phase.execute();
    }

    /// The blocks of the target that equal the source's. Any other content is a failure.
    std::vector<std::uint64_t> copied() {
        std::vector<std::uint64_t> all;
        for (std::uint64_t block = 0; block < blocks; ++block) {
            const std::vector<std::uint8_t> found(
                target->image.begin() + static_cast<std::ptrdiff_t>(block * blockSize),
                target->image.begin() + static_cast<std::ptrdiff_t>((block + 1) * blockSize));
            if (found == std::vector<std::uint8_t>(blockSize, contentOf(block))) {
                all.push_back(block);
            } else {
                EXPECT_EQ(found, std::vector<std::uint8_t>(blockSize, poison)) << "block " << block;
            }
        }
        return all;
    }

    std::uint64_t transferred() { return status.getVolumeStatuses().front().bytesTransferred; }

    test::RecordingLogger log;
    test::MemoryVolume source{blocks * blockSize};
    std::shared_ptr<test::FakeTransport> target =
        std::make_shared<test::FakeTransport>(test::FakeTransport::Image(blocks * blockSize, poison));
    std::shared_ptr<ITransport> writer = target;
    std::unique_ptr<block::IBlockRangeProvider> provider;
    AlignedBuffer buffer{bufferBlocks * blockSize, 4096};
    BackupStatusHandler status{log.logger, {uuid}};
    test::CountedCancel cancel;
    CopyChunkRanges phase{log.logger, uuid, source, writer, provider, blockSize, buffer, status, cancel};
};

TEST_F(CopyChunkRangesTest, EachChunkIsReadAndWrittenWhereItStands) {
    EXPECT_EQ(phase.getName(), "Copy Chunk Ranges");
    copy({{0, 1}, {3, 4}, {15, 1}});
    EXPECT_THAT(copied(), ElementsAre(0, 3, 4, 5, 6, 15));
    EXPECT_THAT(source.requests, ElementsAre(Request{0, blockSize}, Request{3 * blockBytes, 4 * blockBytes},
                                             Request{15 * blockBytes, blockSize}));
    EXPECT_THAT(target->written, ElementsAre(Extent(0, blockSize), Extent(3 * blockBytes, 4 * blockBytes),
                                             Extent(15 * blockBytes, blockSize)));
    EXPECT_EQ(transferred(), 6 * blockBytes);
    EXPECT_THAT(log.lines(), ElementsAre(Line{debug, "Total bytes copied is 3072 (3 KiB)"}));
    EXPECT_EQ(cancel.checks, 3);
}

TEST_F(CopyChunkRangesTest, NothingToCopyIsNoFailure) {
    copy({});
    EXPECT_THAT(copied(), IsEmpty());
    EXPECT_EQ(target->writes, 0);
    EXPECT_THAT(log.lines(), ElementsAre(Line{debug, "Total bytes copied is 0 (0 B)"}));
}

TEST_F(CopyChunkRangesTest, EmptyRangesArePassedOver) {
    copy({{2, 0}, {5, 1}, {9, 0}});
    EXPECT_THAT(copied(), ElementsAre(5));
    EXPECT_EQ(source.requests.size(), 1U);
    EXPECT_EQ(cancel.checks, 3); // empty ranges check for a cancel, too
}

TEST_F(CopyChunkRangesTest, ProgressIsToldAfterEachChunk) {
    cancel = test::CountedCancel(2);
    EXPECT_THROW(copy({{0, 2}, {3, 3}, {8, 1}}), CancelableOperation::cancel_op);
    EXPECT_EQ(transferred(), 5 * blockBytes);
}

TEST_F(CopyChunkRangesTest, CancelIsSeenBeforeTheNextChunk) {
    cancel = test::CountedCancel(1);
    EXPECT_THROW(copy({{0, 1}, {3, 1}}), CancelableOperation::cancel_op);
    EXPECT_THAT(copied(), ElementsAre(0));
    EXPECT_EQ(source.requests.size(), 1U);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(CopyChunkRangesTest, ShortReadIsWrittenAsFarAsItGoes) {
    source.longest = 3 * blockBytes;
    copy({{0, 4}, {8, 1}});
    EXPECT_THAT(copied(), ElementsAre(0, 1, 2, 8));
    EXPECT_EQ(transferred(), 4 * blockBytes);
}

TEST_F(CopyChunkRangesTest, EndOfTheDeviceEndsTheCopy) {
    source.size = 6 * blockBytes;
    copy({{4, 4}, {8, 2}, {0, 1}});
    EXPECT_THAT(copied(), ElementsAre(4, 5));
    EXPECT_THAT(log.lines(), ElementsAre(Line{debug, "Total bytes copied is 1024 (1 KiB)"}));
}

TEST_F(CopyChunkRangesTest, PlaceThatCannotBeSoughtOnTheSourceFails) {
    test::FaultyVolume unseekable(source, 1);
    CopyChunkRanges failing(log.logger, uuid, unseekable, writer, provider, blockSize, buffer, status,
                            cancel);
    provider = std::make_unique<test::FixedRanges>(std::vector<BlockRange>{{0, 1}});
    EXPECT_EQ(messageOf<std::runtime_error>([&] { failing.execute(); }),
              "Failed to seek to the read offset!");
    EXPECT_EQ(target->writes, 0);
}

TEST_F(CopyChunkRangesTest, UnreadableChunkFailsAndIsNotWritten) {
    source.failReads(4 * blockBytes, 5 * blockBytes);
    std::string message = "a connection error, which this is not";
    try {
        copy({{0, 1}, {3, 4}});
    } catch (const transport_connection_error&) { // NOLINT(bugprone-empty-catch): the message tells
    } catch (const std::runtime_error& failure) {
        message = failure.what();
    }
    EXPECT_EQ(message, "Failed to read the chunk!");
    EXPECT_THAT(copied(), ElementsAre(0));
    EXPECT_THAT(log.lines(), ElementsAre(Line{error, "Failed to read the chunk at offset 1536"}));
}

TEST_F(CopyChunkRangesTest, PlaceThatCannotBeSoughtOnTheTargetIsAConnectionError) {
    writer = std::make_shared<test::FaultyTransport>(target, 3); // the seek of the second chunk
    EXPECT_EQ(messageOf<transport_connection_error>([&] { copy({{0, 1}, {3, 1}}); }),
              "Failed to seek to the write offset!");
    EXPECT_THAT(copied(), ElementsAre(0));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(CopyChunkRangesTest, ChunkThatCannotBeWrittenIsAConnectionError) {
    writer = std::make_shared<test::FaultyTransport>(target, 4); // the write of the second chunk
    EXPECT_EQ(messageOf<transport_connection_error>([&] { copy({{0, 1}, {3, 2}}); }),
              "Failed to write the chunk!");
    EXPECT_EQ(transferred(), blockSize);
    EXPECT_THAT(log.lines(),
                ElementsAre(Line{error, "Failed to write the chunk! (-1 bytes written out of 1024)"}));
    EXPECT_THAT(log.codes(info::Reason::Kind::failure), ElementsAre("target-lost"));
}

TEST_F(CopyChunkRangesTest, ChunkOfWhichNothingIsWrittenIsAConnectionError) {
    writer = std::make_shared<test::FaultyTransport>(target, 4, 0);
    EXPECT_EQ(messageOf<transport_connection_error>([&] { copy({{0, 1}, {3, 2}}); }),
              "Failed to write the chunk!");
    EXPECT_EQ(transferred(), blockSize);
    EXPECT_THAT(log.lines(),
                ElementsAre(Line{error, "Failed to write the chunk! (0 bytes written out of 1024)"}));
}

TEST_F(CopyChunkRangesTest, ShortWriteIsAConnectionError) {
    target->longestWrite = blockSize;
    EXPECT_EQ(messageOf<transport_connection_error>([&] { copy({{3, 2}}); }), "Failed to write the chunk!");
    EXPECT_EQ(transferred(), 0U);
    EXPECT_THAT(log.lines(),
                ElementsAre(Line{error, "Failed to write the chunk! (512 bytes written out of 1024)"}));
    EXPECT_THAT(log.codes(info::Reason::Kind::failure), ElementsAre("image-too-small"));
}

TEST_F(CopyChunkRangesTest, ChunkLargerThanTheBufferIsRefused) {
    EXPECT_EQ(messageOf<std::logic_error>([&] { copy({{0, bufferBlocks + 1}}); }),
              "A chunk to copy is larger than the buffer for it!");
    EXPECT_THAT(source.requests, IsEmpty());
}

TEST_F(CopyChunkRangesTest, RangesThatCannotBeHadFailTheCopy) {
    provider = std::make_unique<test::FixedRanges>(std::vector<BlockRange>{{0, 1}, {3, 1}}, 1);
    EXPECT_THROW(phase.execute(), int);
    EXPECT_THAT(copied(), ElementsAre(0));
}

} // namespace
} // namespace agent::core::backup::phase
