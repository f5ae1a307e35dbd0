#include "tools/restore/Pieces.h"

#include <gtest/gtest.h>

#include <array>

namespace restore {

bool operator==(const ByteRange& left, const ByteRange& right) {
    return left.begin == right.begin && left.length == right.length;
}

namespace {

constexpr std::uint64_t page = 4096;
constexpr std::uint64_t kibibyte = 1024;

std::vector<Piece> piecesOf(const std::vector<ByteRange>& ranges, std::uint64_t begin = 0,
                            std::uint64_t end = 1UL << 40U) {
    std::vector<Piece> pieces;
    forEachPiece(ranges, begin, end, [&](const Piece& piece) { pieces.push_back(piece); });
    return pieces;
}

TEST(Pieces, JoinWhatIsCloseTogether) {
    const auto pieces = piecesOf({{0, page}, {page + 64 * kibibyte, page}});
    ASSERT_EQ(pieces.size(), 1U);
    EXPECT_EQ(pieces[0].whole, (ByteRange{0, 2 * page + 64 * kibibyte}));
    EXPECT_EQ(pieces[0].parts.size(), 2U);
    EXPECT_EQ(pieces[0].used(), 2 * page);
}

TEST(Pieces, DontJoinWhatIsFarApart) {
    const auto pieces = piecesOf({{0, page}, {2 * page + 64 * kibibyte, page}});
    ASSERT_EQ(pieces.size(), 2U);
    EXPECT_EQ(pieces[1].whole, (ByteRange{2 * page + 64 * kibibyte, page}));
}

TEST(Pieces, AreNeverLargerThanABuffer) {
    std::vector<ByteRange> ranges;
    for (std::uint64_t at = 0; at < 5 * largestPiece; at += 12 * page) {
        ranges.push_back({at, 7 * page});
    }
    ranges.push_back({6 * largestPiece, 3 * largestPiece + page});
    std::uint64_t used = 0;
    std::uint64_t end = 0;
    for (const Piece& piece : piecesOf(ranges)) {
        EXPECT_LE(piece.whole.length, largestPiece);
        EXPECT_GE(piece.whole.begin, end);
        EXPECT_EQ(piece.whole.begin, piece.parts.front().begin);
        EXPECT_EQ(piece.whole.end(), piece.parts.back().end());
        end = piece.whole.end();
        used += piece.used();
    }
    EXPECT_EQ(used, bytesBetween(ranges, 0, end));
}

TEST(Pieces, KeepToTheirBounds) {
    const std::vector<ByteRange> ranges{{0, 10 * page}, {20 * page, 10 * page}};
    const auto pieces = piecesOf(ranges, 5 * page, 25 * page);
    ASSERT_EQ(pieces.size(), 1U);
    EXPECT_EQ(pieces[0].whole, (ByteRange{5 * page, 20 * page}));
    EXPECT_EQ(pieces[0].used(), 10 * page);
    EXPECT_EQ(bytesBetween(ranges, 5 * page, 25 * page), 10 * page);
    EXPECT_TRUE(piecesOf(ranges, 10 * page, 20 * page).empty());
    EXPECT_TRUE(piecesOf(ranges, 30 * page).empty());
    EXPECT_TRUE(piecesOf({}).empty());
}

TEST(Pieces, ClearWhatIsBetweenTheirParts) {
    Piece piece{{100, 8}, {{100, 2}, {103, 1}, {106, 2}}};
    std::array<std::byte, 8> bytes{};
    bytes.fill(std::byte{7});
    piece.clearGaps(bytes.data());
    constexpr std::array<int, 8> expected{7, 7, 0, 7, 0, 0, 7, 7};
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        EXPECT_EQ(std::to_integer<int>(bytes.at(index)), expected.at(index)) << index;
    }
}

} // namespace
} // namespace restore
