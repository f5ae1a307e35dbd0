#include "core/transport/IscsiTransport.h"
#include "core/transport/Libiscsi.h"
#include "support/FakeIscsi.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <string>
#include <vector>

/// Reads and writes that take more than one command.
namespace agent::core {
namespace {

using info::level::error;
using test::FakeIscsi;
using testing::IsEmpty;
using Bytes = std::vector<unsigned char>;
using Outcome = FakeIscsi::Outcome;
using enum FakeIscsi::Outcome;

constexpr std::uint64_t kibibyte = 1024;
constexpr std::uint64_t piece = 256 * kibibyte; ///< the most that one write command carries
constexpr std::uint64_t readPiece = 128 * kibibyte;
constexpr std::uint64_t call = 4096 * kibibyte;
constexpr std::uint64_t diskBytes = 3 * call;
const std::string readCall = "iscsi_read16_task";
const std::string writeCall = "iscsi_write16_task";
const std::string loginCall = "iscsi_full_connect_sync";

Bytes randomBytes(std::size_t length, unsigned seed) {
    std::minstd_rand source(seed);
    Bytes bytes(length);
    std::ranges::generate(bytes, [&] { return static_cast<unsigned char>(source() >> 8U); });
    return bytes;
}

class IscsiPiecesTest : public testing::Test {
protected:
    IscsiPiecesTest() {
        static const Bytes filled = randomBytes(diskBytes, 1000);
        iscsi.disk = filled;
        setBlocks(512);
    }

    ~IscsiPiecesTest() override {
        transport.disconnect();
        EXPECT_EQ(iscsi.contexts, 0);
        EXPECT_EQ(iscsi.tasks, 0);
        EXPECT_EQ(iscsi.lostCommands, 0);
    }

    void setBlocks(std::uint32_t size) {
        iscsi.blockSize = size;
        iscsi.lastBlock = diskBytes / size - 1;
    }

    void connect(bool diffMerge = false) {
        ASSERT_TRUE(transport.connect(diffMerge));
        log.clear();
        iscsi.calls.clear();
    }

    [[nodiscard]] Bytes onDisk(std::uint64_t offset, std::uint64_t length) const {
        const auto begin = iscsi.disk.begin() + static_cast<std::ptrdiff_t>(offset);
        return {begin, begin + static_cast<std::ptrdiff_t>(length)};
    }

    /// Writes random bytes at the offset. Expects them on the disk, and expects that no other bytes change.
    void write(std::uint64_t offset, std::uint64_t length) {
        static const Bytes source = randomBytes(2 * call, 1);
        const auto begin = source.begin() + static_cast<std::ptrdiff_t>(++writes * 512);
        const Bytes data(begin, begin + static_cast<std::ptrdiff_t>(length));
        Bytes expected = iscsi.disk;
        std::ranges::copy(data, expected.begin() + static_cast<std::ptrdiff_t>(offset));
        ASSERT_EQ(transport.seek(static_cast<std::int64_t>(offset), 0), offset);
        ASSERT_EQ(transport.write(data.data(), data.size()), length);
        EXPECT_EQ(transport.seek(0, 1), offset + length);
        EXPECT_TRUE(iscsi.disk == expected);
    }

    void read(std::uint64_t offset, std::uint64_t length) {
        Bytes received(length);
        ASSERT_EQ(transport.seek(static_cast<std::int64_t>(offset), 0), offset);
        ASSERT_EQ(transport.read(received.data(), received.size()), length);
        EXPECT_EQ(transport.seek(0, 1), offset + length);
        EXPECT_TRUE(received == onDisk(offset, length));
    }

    [[nodiscard]] std::size_t countOf(const std::string& function) const {
        return static_cast<std::size_t>(std::ranges::count_if(
            iscsi.calls, [&](const std::string& line) { return line.starts_with(function + " "); }));
    }

    /// The lengths of the commands of a function, in bytes.
    [[nodiscard]] std::vector<std::uint64_t> lengths(const std::string& function) const {
        std::vector<std::uint64_t> all;
        for (const std::string& line : iscsi.calls) {
            std::istringstream words(line);
            std::string name;
            std::uint64_t lun = 0;
            std::uint64_t lba = 0;
            std::uint64_t length = 0;
            words >> name >> lun >> lba >> length;
            if (name == function) {
                all.push_back(length);
            }
        }
        return all;
    }

    FakeIscsi iscsi;
    test::RecordingLogger log;
    IscsiTransport transport{log.logger, "iqn.2026-01.example:images", "127.0.0.1:3260", 3, 0, "", ""};
    std::uint64_t writes = 0;
};

TEST_F(IscsiPiecesTest, ALargeWriteIsManyCommandsAtOnce) {
    connect();
    write(call, call);
    EXPECT_EQ(lengths(writeCall), std::vector<std::uint64_t>(call / piece, piece));
    EXPECT_EQ(iscsi.mostInFlight, call / piece);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(IscsiPiecesTest, ALargeReadIsManyCommandsAtOnce) {
    connect();
    read(512, 10240 * kibibyte);
    EXPECT_EQ(lengths(readCall), std::vector<std::uint64_t>(80, readPiece));
    EXPECT_EQ(iscsi.mostInFlight, 64U) << "and no more";
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(IscsiPiecesTest, TheLastCommandHasWhatIsLeft) {
    connect();
    write(512, piece + 1536);
    EXPECT_EQ(lengths(writeCall), (std::vector<std::uint64_t>{piece, 1536}));
    read(512, 2 * readPiece + 512);
    EXPECT_EQ(lengths(readCall), (std::vector<std::uint64_t>{readPiece, readPiece, 512}));
}

TEST_F(IscsiPiecesTest, AReadThatEndsWithinABlockIsDeliveredAsFarAsItGoes) {
    connect();
    read(512, readPiece + 100);
    EXPECT_EQ(lengths(readCall), (std::vector<std::uint64_t>{readPiece, 512}));
    ASSERT_EQ(transport.seek(100, 0), 100);
    Bytes received(readPiece);
    EXPECT_EQ(transport.read(received.data(), received.size()), readPiece);
    EXPECT_TRUE(received == onDisk(0, readPiece))
        << "from the start of the block, and the last one is for nothing";
}

TEST_F(IscsiPiecesTest, CommandsAreOfWholeBlocks) {
    for (const auto& [blockSize, expected] :
         std::vector<std::pair<std::uint32_t, std::vector<std::uint64_t>>>{
             {4096, {piece, piece, 4096}},
             {1536, {261120, 261120, 6144}},
             {piece, {piece, piece, piece}},
             {1024 * kibibyte, {1024 * kibibyte}}}) {
        SCOPED_TRACE(blockSize);
        transport.disconnect();
        setBlocks(blockSize);
        connect();
        write(0, (2 * piece + 4096 + blockSize - 1) / blockSize * blockSize);
        EXPECT_EQ(lengths(writeCall), expected);
    }
}

TEST_F(IscsiPiecesTest, ATargetMayAnswerInAnotherOrder) {
    iscsi.newestFirst = true;
    connect();
    write(piece, call);
    read(512, call);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(IscsiPiecesTest, OneCommandThatFailsFailsAllOfThem) {
    for (const std::string& function : {readCall, writeCall}) {
        for (const Outcome outcome : {failed, refused, broken, shorter}) {
            if (function == writeCall && outcome == shorter) {
                continue;
            }
            SCOPED_TRACE(function + std::to_string(static_cast<int>(outcome)));
            transport.disconnect();
            connect();
            const std::size_t all = call / (function == readCall ? readPiece : piece);
            std::vector<Outcome> outcomes(all / 2 + 1, good); // half of the commands are answered by then
            outcomes.back() = outcome;
            iscsi.script(function, outcomes);
            if (function == readCall) {
                read(call, call);
            } else {
                write(call, call);
            }
            EXPECT_EQ(countOf(loginCall), 1U);
            const std::size_t sentInVain = outcome == failed ? outcomes.size() : all;
            EXPECT_EQ(countOf(function), sentInVain + all) << "all of it again";
            EXPECT_EQ(log.count(error, function == readCall ? "Failed during iscsi read command."
                                                            : "Failed during iscsi write command."),
                      1);
        }
    }
}

TEST_F(IscsiPiecesTest, TheEndOfTheImageIsOneOfTheTransferNotOfACommand) {
    connect();
    const auto end = static_cast<std::int64_t>(diskBytes);
    Bytes data(call, 7);
    ASSERT_EQ(transport.seek(end - static_cast<std::int64_t>(piece + 512), 0), end - piece - 512);
    EXPECT_EQ(transport.write(data.data(), data.size()), piece + 512);
    ASSERT_EQ(transport.seek(end - static_cast<std::int64_t>(piece + 512), 0), end - piece - 512);
    EXPECT_EQ(transport.read(data.data(), data.size()), piece + 512);
    EXPECT_EQ(transport.read(data.data(), data.size()), 0);
}

// --- a target that is busy

TEST_F(IscsiPiecesTest, ACommandThatFindsTheTargetBusyIsSentAgain) {
    for (const std::string& function : {readCall, writeCall}) {
        iscsi.calls.clear();
        transport.disconnect();
        connect();
        std::vector<Outcome> outcomes(16, good);
        outcomes[3] = outcomes[7] = outcomes[15] = busy;
        iscsi.script(function, outcomes);
        if (function == readCall) {
            read(0, call);
        } else {
            write(0, call);
        }
        EXPECT_EQ(countOf(function), call / (function == readCall ? readPiece : piece) + 3);
        EXPECT_EQ(countOf(loginCall), 0U);
        EXPECT_THAT(log.lines(), IsEmpty());
    }
}

TEST_F(IscsiPiecesTest, AsManyAreUnderWayAsTheTargetHasRoomFor) {
    iscsi.queueDepth = 10;
    connect();
    write(0, call);
    EXPECT_EQ(iscsi.refusals, 6U) << "of the first 16";
    iscsi.refusals = 0;
    constexpr std::size_t later = 20;
    for (std::size_t number = 0; number < later; ++number) {
        write(number * piece, call);
        read(call, call);
    }
    EXPECT_LE(iscsi.refusals, 3 * later * call / piece / 20)
        << "one in twenty, where it was tried whether there is more room now";
    EXPECT_GE(iscsi.mostInFlight, 10U);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(IscsiPiecesTest, RoomThatHasBecomeFreeIsFound) {
    iscsi.queueDepth = 1;
    connect();
    write(0, call);
    iscsi.queueDepth = 1024;
    iscsi.mostInFlight = 0;
    for (int number = 0; number < 16; ++number) {
        write(0, 2 * piece);
    }
    write(0, call);
    EXPECT_EQ(iscsi.mostInFlight, call / piece);
}

TEST_F(IscsiPiecesTest, ACommandThatIsRefusedWhileItIsAloneHasFailed) {
    connect();
    iscsi.script(writeCall, {busy});
    write(0, 512);
    EXPECT_EQ(log.count(error, "Failed during iscsi write command."), 1);
    EXPECT_EQ(countOf(loginCall), 1U);
    EXPECT_EQ(countOf(writeCall), 2U);
}

TEST_F(IscsiPiecesTest, ATargetThatStaysBusyFails) {
    connect();
    iscsi.script(readCall, std::vector<Outcome>(10000, busy));
    Bytes received(call);
    EXPECT_EQ(transport.read(received.data(), received.size()), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(transport.seek(0, 1), 0);
    EXPECT_EQ(countOf(loginCall), 5U);
    EXPECT_LE(countOf(readCall), 64U * 64U);
}

// --- after a failure

TEST_F(IscsiPiecesTest, ASessionThatHasBrokenIsNotUsedAgain) {
    connect();
    iscsi.script(writeCall, std::vector<Outcome>(6, broken));
    const Bytes data(512, 1);
    EXPECT_EQ(transport.write(data.data(), data.size()), -1);
    EXPECT_EQ(countOf(writeCall), 6U);
    EXPECT_EQ(transport.write(data.data(), data.size()), 512) << "over a new one";
    EXPECT_EQ(countOf(writeCall), 7U);
    EXPECT_EQ(countOf(loginCall), 6U);
}

TEST_F(IscsiPiecesTest, ACommandThatIsNotAnsweredEndsTheTransfer) {
    connect();
    const std::unique_ptr<iscsi_context, int (*)(iscsi_context*)> context(iscsi_create_context("a"),
                                                                          iscsi_destroy_context);
    iscsi::CommandWindow window;
    std::vector<Outcome> outcomes(20, good);
    outcomes.back() = silent;
    iscsi.script(readCall, outcomes);
    Bytes received(call);
    iscsi::Transfer transfer({context.get(), 3, 512}, window, std::chrono::seconds(1));
    EXPECT_FALSE(transfer.read(0, call, call, [&](std::uint64_t at, std::span<const unsigned char> part) {
        std::ranges::copy(part, received.begin() + static_cast<std::ptrdiff_t>(at));
    }));
    EXPECT_TRUE(std::equal(received.begin(), received.begin() + 19 * readPiece, iscsi.disk.begin()));
}

// --- comparing

TEST_F(IscsiPiecesTest, WhatEqualsTheImageIsReadInPiecesAndNotWritten) {
    connect(true);
    ASSERT_EQ(transport.seek(call, 0), call);
    const Bytes same = onDisk(call, call);
    EXPECT_EQ(transport.write(same.data(), same.size()), call);
    EXPECT_EQ(countOf(readCall), call / readPiece);
    EXPECT_EQ(countOf(writeCall), 0U);
}

TEST_F(IscsiPiecesTest, OneByteThatDiffersHasAllOfItWritten) {
    connect(true);
    Bytes other = onDisk(call, call);
    other[call / 2] ^= 1U;
    ASSERT_EQ(transport.seek(call, 0), call);
    EXPECT_EQ(transport.write(other.data(), other.size()), call);
    EXPECT_TRUE(onDisk(call, call) == other);
    EXPECT_EQ(countOf(writeCall), call / piece);
}

TEST_F(IscsiPiecesTest, AComparisonOfWhichHalfIsAnsweredIsRepeatedWhole) {
    connect(true);
    const Bytes before = iscsi.disk;
    const Bytes same = onDisk(0, call);
    std::vector<Outcome> outcomes(call / readPiece / 2, good);
    outcomes.back() = broken;
    iscsi.script(readCall, outcomes);
    EXPECT_EQ(transport.write(same.data(), same.size()), call);
    EXPECT_EQ(countOf(readCall), 2 * call / readPiece);
    EXPECT_EQ(countOf(writeCall), 0U);
    EXPECT_TRUE(iscsi.disk == before);
}

} // namespace
} // namespace agent::core
