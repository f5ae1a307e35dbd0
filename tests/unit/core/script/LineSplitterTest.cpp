#include "core/script/LineSplitter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace agent::core::script {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> split(const std::vector<std::string>& pieces) {
    LineSplitter splitter;
    std::vector<std::string> lines;
    for (const std::string& piece : pieces) {
        splitter.add(piece, [&](const std::string& line) { lines.push_back(line); });
    }
    return lines;
}

TEST(LineSplitter, CutsAtEachNewline) {
    EXPECT_THAT(split({"a\nb\n"}), ElementsAre("a", "b"));
    EXPECT_THAT(split({"\n\na\n"}), ElementsAre("", "", "a"));
}

TEST(LineSplitter, KeepsAnIncompleteLine) {
    EXPECT_THAT(split({"a"}), IsEmpty());
    EXPECT_THAT(split({""}), IsEmpty());
    EXPECT_THAT(split({"a\nb"}), ElementsAre("a"));
    EXPECT_THAT(split({"a", "b", "\nc", "", "d\n"}), ElementsAre("ab", "cd"));
}

TEST(LineSplitter, BackslashKeepsTwoLinesTogether) {
    EXPECT_THAT(split({"a\\\nb\nc\n"}), ElementsAre("a\\\nb", "c"));
    EXPECT_THAT(split({"a\\\n"}), IsEmpty());
    EXPECT_THAT(split({"\\\n\n"}), ElementsAre("\\\n"));
}

TEST(LineSplitter, BackslashAndNewlineMayComeApart) {
    EXPECT_THAT(split({"a\\", "\nb\n"}), ElementsAre("a\\\nb"));
    EXPECT_THAT(split({"a\\", "", "\nb\n"}), ElementsAre("a\\\nb"));
    EXPECT_THAT(split({"a\\", "x\nb\n"}), ElementsAre("a\\x", "b"));
}

TEST(LineSplitter, KeepsNulBytes) {
    EXPECT_THAT(split({std::string("a\0b\n", 4)}), ElementsAre(std::string("a\0b", 3)));
}

TEST(LineSplitter, KeepsALineOfTheLargestLengthWhole) {
    const std::string line(LineSplitter::maxLineBytes, 'x');
    EXPECT_THAT(split({line + "\n"}), ElementsAre(line));
    EXPECT_THAT(split({line, "\n"}), ElementsAre(line));
}

TEST(LineSplitter, CutsALongerLineShort) {
    const std::string line(LineSplitter::maxLineBytes, 'x');
    EXPECT_THAT(split({line + "y\nz\n"}), ElementsAre(line, "z"));
    EXPECT_THAT(split({line, "y", "y", "\nz\n"}), ElementsAre(line, "z"));
}

TEST(LineSplitter, ADroppedBackslashStillCounts) {
    const std::string line(LineSplitter::maxLineBytes, 'x');
    EXPECT_THAT(split({line + "\\\nmore\nz\n"}), ElementsAre(line, "z"));
}

} // namespace
} // namespace agent::core::script
