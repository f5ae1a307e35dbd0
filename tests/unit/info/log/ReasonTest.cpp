#include "info/log/Reason.h"

#include "info/log/LoggingStack.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>

namespace agent::info {
namespace {

const Reason& differs = reason("image-differs");

class ReasonTest : public testing::Test {
protected:
    std::string printed;
    Logger logger{[this](const std::string& message, int, LogTime) { printed += message; }};
};

TEST_F(ReasonTest, StreamStatementEndsInTheMark) {
    LogEntry(logger, level::info, differs) << "sums " << 1 << " and " << 2;
    EXPECT_EQ(printed, "sums 1 and 2 [fallback:image-differs]\n");
}

TEST_F(ReasonTest, PrintfStatementEndsInTheMark) {
    logger.log(level::error, reason("volume-full"), "%s: %d%%", "full", 100);
    EXPECT_EQ(printed, "full: 100% [failure:volume-full]\n");
}

TEST_F(ReasonTest, WhatGoesOnBehindAStatementHasNoMark) {
    logger.log(level::info, differs, "first") << "second";
    EXPECT_EQ(printed, "first [fallback:image-differs]\nsecond\n");
}

TEST_F(ReasonTest, StatementWithoutAReasonHasNoMark) {
    LogEntry(logger, level::info, nullptr) << "text";
    EXPECT_EQ(printed, "text\n");
}

TEST_F(ReasonTest, EmptyStatementPrintsNothing) {
    {
        const LogEntry entry(logger, level::info, differs);
    }
    EXPECT_EQ(printed, "");
}

TEST_F(ReasonTest, MarkOfSeveralLinesStandsBehindTheLast) {
    LogEntry(logger, level::info, differs) << "one\ntwo";
    EXPECT_EQ(printed, "one\ntwo [fallback:image-differs]\n");
    EXPECT_EQ(findReason(printed), &differs);
}

TEST_F(ReasonTest, LineIsTakenApartAgain) {
    LoggingStack stack;
    const std::string message = "text" + markOf(differs);
    const std::string line =
        stack.decorator().decorate(message, level::info, LogTime(std::chrono::milliseconds(5)));
    int level = 0;
    LogTime time;
    EXPECT_EQ(stack.decorator().undecorate(line, level, time), message);
    EXPECT_EQ(findReason(line), &differs);
    EXPECT_EQ(findReason(line + "\n"), &differs);
}

TEST_F(ReasonTest, EachMarkNamesItsReason) {
    for (const Reason& each : reasons) {
        EXPECT_EQ(findReason("text" + markOf(each)), &each) << each.code;
        EXPECT_FALSE(each.meaning.empty()) << each.code;
        EXPECT_FALSE(each.remedy.empty()) << each.code;
    }
}

TEST_F(ReasonTest, OtherTextsHaveNone) {
    for (const char* const text :
         {"", "\n", "text", "[fallback:image-differs]", "text [failure:image-differs]",
          "text [fallback:image]", "text [fallback:image-differs] ", "text [fallback:image-differs].",
          "text [fallback:]", "text[fallback:image-differs]"}) {
        EXPECT_EQ(findReason(text), nullptr) << text;
    }
}

TEST_F(ReasonTest, ErrorCarriesItsReason) {
    try {
        throw WithReason<std::runtime_error>(differs, "text");
    } catch (const std::exception& error) {
        EXPECT_STREQ(error.what(), "text");
        EXPECT_EQ(&reasonOf(error, reason("backup-failed")), &differs);
    }
    EXPECT_EQ(&reasonOf(std::runtime_error("text"), reason("backup-failed")), &reason("backup-failed"));
}

} // namespace
} // namespace agent::info
