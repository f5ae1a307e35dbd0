#include "common/PeerText.h"

#include <gtest/gtest.h>

namespace agent {
namespace {

TEST(PeerText, PrintableLeavesTextAlone) {
    for (const std::string text : {"", "plain, with \"quotes\" and \\", "\u00e4 \u20ac \U0001f4be"}) {
        EXPECT_EQ(printable(text), text);
    }
}

TEST(PeerText, PrintableWritesControlCharactersOut) {
    EXPECT_EQ(printable("a\nb\tc\rd"), "a\\nb\\tc\\rd");
    EXPECT_EQ(printable("\x1b[2J\x07"), "\\x1b[2J\\x07");
    EXPECT_EQ(printable(std::string("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(printable("\x7f"), "\\x7f");
    EXPECT_EQ(printable("\u0085\u009b2J\u00a0"), "\\xc2\\x85\\xc2\\x9b2J\u00a0");
}

/// Terminals with 8-bit control codes obey 0x9b, too. Other bytes that are not UTF-8 are harmless.
TEST(PeerText, PrintableFindsControlCharactersInWhatIsNoUtf8) {
    EXPECT_EQ(printable("\x9b"
                        "2J\xff"),
              "\\x9b"
              "2J\xff");
    EXPECT_EQ(printable("\xc3"), "\xc3");
    EXPECT_EQ(printable("\xc3\x1b"), "\xc3\\x1b");
    EXPECT_EQ(printable("\xe2\x82"), "\xe2\\x82");
    EXPECT_EQ(printable("\xc1\x9b\xc0\x8a"), "\xc1\\x9b\xc0\\x8a"); // overlong encodings
    EXPECT_EQ(printable("\xe0\x82\x9b"), "\xe0\\x82\\x9b");
    EXPECT_EQ(printable("\xed\xa0\x80"), "\xed\xa0\\x80"); // a lone surrogate
    EXPECT_EQ(printable("\xf4\x90\x80\x80"), "\xf4\\x90\\x80\\x80");
}

TEST(PeerText, EveryByteAloneIsShownOrWrittenOut) {
    for (int byte = 0; byte < 256; ++byte) {
        const std::string shown = printable(std::string(1, static_cast<char>(byte)));
        const bool isControl = byte < 0x20 || (byte >= 0x7f && byte < 0xa0);
        EXPECT_EQ(shown.size() > 1, isControl) << byte;
        EXPECT_EQ(printable(shown), shown) << byte;
    }
}

TEST(PeerText, ShortenedKeepsWhatFits) {
    EXPECT_EQ(shortened("12345", 5), "12345");
    EXPECT_EQ(shortened("123456", 5), "12345... (6 bytes)");
    EXPECT_EQ(shortened("", 0), "");
    EXPECT_LT(shortened(std::string(1'000'000, 'x')).size(), maxPeerTextBytes + 100);
}

TEST(PeerText, ShortenedCutsBetweenCharacters) {
    EXPECT_EQ(shortened("ab\u20ac", 3), "ab... (5 bytes)");
    EXPECT_EQ(shortened("ab\u20ac", 4), "ab... (5 bytes)");
    EXPECT_EQ(shortened("ab\u20ac", 5), "ab\u20ac");
    EXPECT_EQ(shortened("\x80\x80\x80", 2), "... (3 bytes)");
}

} // namespace
} // namespace agent
