#include "zephane/wire/Frame.h"

#include "zephane/wire/Digests.h"
#include "zephane/wire/ProtocolError.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <utility>
#include <vector>

namespace zephane::wire {
namespace {

/// Kinds and payloads; consecutive pieces of NBD data are merged.
using Pieces = std::vector<std::pair<FrameKind, Bytes>>;

void append(Bytes& stream, std::span<const std::uint8_t> bytes) {
    stream.insert(stream.end(), bytes.begin(), bytes.end());
}

void appendFrame(Bytes& stream, FrameKind kind, std::span<const std::uint8_t> payload) {
    append(stream, frameHead(kind, payload.size()));
    append(stream, payload);
}

void collect(FrameReader& reader, std::span<const std::uint8_t> input, Pieces& pieces) {
    while (const auto piece = reader.next(input)) {
        if (pieces.empty() || pieces.back().first != FrameKind::nbd || piece->kind != FrameKind::nbd) {
            pieces.emplace_back(piece->kind, Bytes());
        }
        append(pieces.back().second, piece->payload);
    }
    EXPECT_TRUE(input.empty());
}

Pieces readInTwo(const Bytes& stream, std::size_t cut) {
    FrameReader reader;
    Pieces pieces;
    collect(reader, std::span(stream).first(cut), pieces);
    collect(reader, std::span(stream).subspan(cut), pieces);
    return pieces;
}

/// The header of a frame that no correct sender makes.
Bytes headOf(std::uint8_t kind, std::uint32_t length) {
    return {kind, static_cast<std::uint8_t>(length >> 16U), static_cast<std::uint8_t>(length >> 8U),
            static_cast<std::uint8_t>(length)};
}

bool isRefused(const Bytes& head) {
    FrameReader reader;
    std::span<const std::uint8_t> input = head;
    try {
        reader.next(input);
    } catch (const ProtocolError&) {
        EXPECT_THROW(reader.next(input), ProtocolError) << "and for ever";
        return true;
    }
    return false;
}

class FrameTest : public testing::Test {
protected:
    FrameTest() {
        appendFrame(stream, FrameKind::nbd, Bytes{1, 2, 3, 4, 5});
        appendFrame(stream, FrameKind::digestRequest, request);
        appendFrame(stream, FrameKind::nbd, Bytes{6});
        appendFrame(stream, FrameKind::nbd, Bytes{7, 8});
        appendFrame(stream, FrameKind::digestAnswer, answer);
        appendFrame(stream, FrameKind::digestRequest, request);
    }

    const Bytes request = encode(DigestRequest{4096, 65536});
    const Bytes answer = encode(DigestAnswer{0, digestsOf(Bytes(digestUnit + 1))});
    const Pieces expected{{FrameKind::nbd, {1, 2, 3, 4, 5}},
                          {FrameKind::digestRequest, request},
                          {FrameKind::nbd, {6, 7, 8}},
                          {FrameKind::digestAnswer, answer},
                          {FrameKind::digestRequest, request}};
    Bytes stream;
};

TEST_F(FrameTest, HasItsKindAndItsLengthInFront) {
    using Head = std::array<std::uint8_t, 4>;
    EXPECT_EQ(frameHead(FrameKind::nbd, 1), (Head{0, 0, 0, 1}));
    EXPECT_EQ(frameHead(FrameKind::nbd, 0x010203), (Head{0, 1, 2, 3}));
    EXPECT_EQ(frameHead(FrameKind::digestRequest, 12), (Head{1, 0, 0, 12}));
    EXPECT_EQ(frameHead(FrameKind::digestAnswer, 0x0804), (Head{2, 0, 8, 4}));
}

TEST_F(FrameTest, IsTheSameWhereverTheStreamIsCut) {
    for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
        EXPECT_EQ(readInTwo(stream, cut), expected) << cut;
    }
}

TEST_F(FrameTest, IsTheSameByteByByte) {
    FrameReader reader;
    Pieces pieces;
    for (const std::uint8_t byte : stream) {
        collect(reader, {&byte, 1}, pieces);
    }
    EXPECT_EQ(pieces, expected);
}

TEST_F(FrameTest, IsHandedOutAtOnceIfItIsNbd) {
    Bytes bytes;
    append(bytes, frameHead(FrameKind::nbd, frameBytes));
    bytes.push_back(42);
    std::span<const std::uint8_t> input = bytes;
    FrameReader reader;
    const auto piece = reader.next(input);
    ASSERT_TRUE(piece);
    EXPECT_EQ(piece->payload.data(), &bytes.back()) << "and isn't copied";
    EXPECT_EQ(piece->payload.size(), 1U);
    EXPECT_FALSE(reader.next(input));
}

TEST_F(FrameTest, StaysWithinItself) {
    const Bytes large(frameBytes, 9);
    Bytes bytes;
    appendFrame(bytes, FrameKind::nbd, large);
    appendFrame(bytes, FrameKind::digestRequest, request);
    std::span<const std::uint8_t> input = bytes;
    FrameReader reader;
    EXPECT_EQ(reader.next(input)->payload.size(), frameBytes);
    EXPECT_EQ(input.size(), frameHeadBytes + request.size());
    EXPECT_EQ(reader.next(input)->kind, FrameKind::digestRequest);
}

TEST_F(FrameTest, IsRefusedWhereItCannotBe) {
    EXPECT_FALSE(isRefused(headOf(0, 1)));
    EXPECT_FALSE(isRefused(headOf(0, frameBytes)));
    EXPECT_FALSE(isRefused(headOf(1, 12)));
    EXPECT_FALSE(isRefused(headOf(2, 4)));
    EXPECT_FALSE(isRefused(headOf(2, 4 + 64 * 32)));

    EXPECT_TRUE(isRefused(headOf(0, 0)));
    EXPECT_TRUE(isRefused(headOf(0, frameBytes + 1)));
    EXPECT_TRUE(isRefused(headOf(0, 0xffffff)));
    EXPECT_TRUE(isRefused(headOf(1, 11)));
    EXPECT_TRUE(isRefused(headOf(1, 13)));
    EXPECT_TRUE(isRefused(headOf(2, 3)));
    EXPECT_TRUE(isRefused(headOf(2, 4 + 64 * 32 + 1)));
    for (std::uint8_t kind = 3; kind != 0; ++kind) {
        EXPECT_TRUE(isRefused(headOf(kind, 12))) << static_cast<int>(kind);
    }
}

TEST_F(FrameTest, IsNotMadeIfItWouldBeRefused) {
    EXPECT_THROW(frameHead(FrameKind::nbd, 0), std::invalid_argument);
    EXPECT_THROW(frameHead(FrameKind::nbd, frameBytes + 1), std::invalid_argument);
    EXPECT_THROW(frameHead(FrameKind::digestRequest, 11), std::invalid_argument);
    EXPECT_THROW(frameHead(FrameKind::digestAnswer, digestAnswerBytes + 1), std::invalid_argument);
}

} // namespace
} // namespace zephane::wire
