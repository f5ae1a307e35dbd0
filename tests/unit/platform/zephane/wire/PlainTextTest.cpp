#include "zephane/wire/PlainText.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace zephane::wire {
namespace {

TEST(PlainTextTest, TakesCharactersOfEachLength) {
    EXPECT_TRUE(isPlainText(""));
    EXPECT_TRUE(isPlainText("host1/data ~"));
    EXPECT_TRUE(isPlainText("\u00e4\u00a0\u07ff\u0800\ud7ff\ue000\uffff"));
    EXPECT_TRUE(isPlainText("\U00010000\U0010ffff"));
}

TEST(PlainTextTest, RefusesControlCharacters) {
    for (int character = 0; character < 0x20; ++character) {
        EXPECT_FALSE(isPlainText(std::string("a") + static_cast<char>(character) + "b")) << character;
    }
    EXPECT_FALSE(isPlainText("\x7f"));
    EXPECT_FALSE(isPlainText("\xc2\x80"));
    EXPECT_FALSE(isPlainText("\xc2\x9f"));
}

TEST(PlainTextTest, RefusesWhatIsNoUtf8) {
    const std::array<std::string, 14> texts{
        "\x80",             // a continuation byte without a start
        "\xc3",             // cut short
        "\xe2\x82",         // cut short
        "\xf0\x9f\x92",     // cut short
        "\xc3 ",            // not continued
        "\xe2\x82 ",        // not continued
        "\xc0\xaf",         // "/" in two bytes: overlong
        "\xe0\x80\xaf",     // in three bytes
        "\xf0\x80\x80\xaf", // in four bytes
        "\xed\xa0\x80",     // a lone high surrogate
        "\xed\xbf\xbf",     // a lone low surrogate
        "\xf4\x90\x80\x80", // beyond the last code point
        "\xf8\x88\x80\x80", // a sequence of five bytes
        "\xff",
    };
    for (const std::string& text : texts) {
        EXPECT_FALSE(isPlainText(text)) << testing::PrintToString(text);
        EXPECT_FALSE(isPlainText("a" + text)) << testing::PrintToString(text);
    }
}

} // namespace
} // namespace zephane::wire
