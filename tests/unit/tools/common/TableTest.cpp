#include "tools/common/Table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

namespace tools {
namespace {

std::string printed(const Table& table, const Screen& screen = {}) {
    std::ostringstream out;
    table.print(out, screen);
    return out.str();
}

Table makeTable() {
    return Table({{"NAME", false, true}, {"SIZE", true, false}, {"STATE", false, false}});
}

TEST(Table, LinesUpWhatStandsBelowEachOther) {
    Table table = makeTable();
    table.add({"/", "1.0 MB", "ok"});
    table.add({"/mnt/Büro", "12.5 GB", "full"});
    EXPECT_EQ(printed(table), "NAME          SIZE  STATE\n"
                              "/           1.0 MB  ok\n"
                              "/mnt/Büro  12.5 GB  full\n");
}

TEST(Table, HasNoLineOfTitlesWithoutTitles) {
    Table table({{"", false, false}, {"", false, false}});
    table.add({"Agent", "runs"});
    table.add({"Version", ""});
    EXPECT_EQ(printed(table), "Agent    runs\nVersion\n");
}

TEST(Table, TakesFromTheColumnThatMayShrink) {
    Table table = makeTable();
    table.add({"/mnt/a/very/long/path/that/is/of/no/use", "1.0 MB", "ok"});
    EXPECT_EQ(printed(table, {false, 26}), "NAME           SIZE  STATE\n"
                                           "/mnt/a/ver…  1.0 MB  ok\n");
}

TEST(Table, CutsBetweenCharacters) {
    Table table = makeTable();
    table.add({"üüüüüüüüüüüüüüüü", "1 B", "ok"});
    EXPECT_NE(printed(table, {false, 23}).find("üüüüüüüüü…  "), std::string::npos)
        << printed(table, {false, 23});
}

TEST(Table, IsWiderThanTheScreenWhereNothingMayShrink) {
    Table table({{"A", false, false}});
    table.add({"as long as it is"});
    EXPECT_EQ(printed(table, {false, 5}), "A\nas long as it is\n");
}

TEST(Table, WrapsNotes) {
    Table table = makeTable();
    table.add({"/", "1 B", "ok"}, {"one two three four five six"});
    const std::string shown = printed(table, {false, 20});
    EXPECT_NE(shown.find("\n    one two three\n    four five six\n"), std::string::npos) << shown;
}

TEST(Table, PaintsTheTextAndNotTheGap) {
    Table table({{"", false, false}, {"", false, false}});
    table.add({{"a", Colour::red}, "b"});
    table.add({"cc", "d"});
    EXPECT_EQ(printed(table, {true, 0}), "\x1b[31ma\x1b[0m   b\ncc  d\n");
}

TEST(Wrapped, KeepsAWordThatIsTooLong) {
    EXPECT_EQ(wrapped("a bcdefgh i", 4), (std::vector<std::string>{"a", "bcdefgh", "i"}));
    EXPECT_EQ(wrapped("a b", 0), std::vector<std::string>{"a b"});
}

} // namespace
} // namespace tools
