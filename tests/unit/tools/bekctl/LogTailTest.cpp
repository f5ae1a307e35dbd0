#include "LogTail.h"

#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sys/stat.h>

namespace bekctl {
namespace {

using Lines = std::vector<std::string>;

class LogTailTest : public testing::Test {
protected:
    void append(const std::string& name, const std::string& text) const {
        std::ofstream(directory / name, std::ios::app) << text;
    }

    static Lines all(LogTail& tail) {
        Lines lines;
        for (std::string line; tail.next(line);) {
            lines.push_back(line);
        }
        return lines;
    }

    Lines last(std::size_t count) {
        LogTail tail(directory.path());
        tail.goToLast(count);
        return all(tail);
    }

    agent::test::TestDirectory directory;
};

TEST_F(LogTailTest, BeginsAtTheLastLines) {
    append("bek_2026-03-04.log", "a\nb\nc\n");
    EXPECT_EQ(last(2), (Lines{"b", "c"}));
    EXPECT_EQ(last(3), (Lines{"a", "b", "c"}));
    EXPECT_EQ(last(9), (Lines{"a", "b", "c"}));
    EXPECT_EQ(last(0), Lines{});
}

TEST_F(LogTailTest, GoesBackToEarlierDays) {
    append("bek_2026-03-03.log", "a\nb\n");
    append("bek_2026-03-04.log", "");
    append("bek_2026-03-05.log", "c\n");
    EXPECT_EQ(last(2), (Lines{"b", "c"}));
}

TEST_F(LogTailTest, CountsOverTheEdgesOfBlocks) {
    Lines lines;
    for (int number = 0; number < 5000; ++number) {
        lines.push_back(std::to_string(number) + std::string(static_cast<std::size_t>(number % 97), 'x'));
        append("bek_2026-03-04.log", lines.back() + "\n");
    }
    EXPECT_EQ(last(4000), Lines(lines.end() - 4000, lines.end()));
}

TEST_F(LogTailTest, WaitsForTheEndOfALine) {
    append("bek_2026-03-04.log", "a\nb");
    LogTail tail(directory.path());
    tail.goToLast(9);
    EXPECT_EQ(all(tail), Lines{"a"});
    append("bek_2026-03-04.log", "c\n");
    EXPECT_EQ(all(tail), Lines{"bc"});
}

TEST_F(LogTailTest, GoesOnWithTheNextDay) {
    LogTail tail(directory / "logs");
    tail.goToLast(9);
    EXPECT_EQ(all(tail), Lines{});
    agent::dir::make(directory / "logs");
    append("logs/bek_2026-03-03.log", "a\nrest");
    EXPECT_EQ(all(tail), Lines{"a"});
    append("logs/bek_2026-03-04.log", "b\n");
    append("logs/bek_2026-03-05.log.gz", "c\n");
    EXPECT_EQ(all(tail), (Lines{"rest", "b"}));
}

TEST_F(LogTailTest, CutsALineThatNeverEnds) {
    append("bek_2026-03-04.log", std::string(LogTail::longestLine + 10, 'x') + "\n");
    const Lines lines = last(1);
    ASSERT_EQ(lines.size(), 2);
    EXPECT_GE(lines[0].size(), LogTail::longestLine);
    EXPECT_EQ(lines[0].size() + lines[1].size(), LogTail::longestLine + 10);
}

TEST_F(LogTailTest, DoesNotWaitForAPipe) {
    ASSERT_EQ(::mkfifo(std::string(directory / "bek_2026-03-04.log").c_str(), 0600), 0);
    EXPECT_EQ(last(5), Lines{});
}

} // namespace
} // namespace bekctl
