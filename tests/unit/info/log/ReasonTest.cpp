#include "info/log/Reason.h"

#include "info/log/LoggingStack.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>

namespace agent::info {
namespace {

using Lines = std::vector<test::RecordingLogger::Line>;

const Reason& differs = reason("image-differs");

class ReasonTest : public testing::Test {
protected:
    test::RecordingLogger record;
};

TEST_F(ReasonTest, StreamStatementEndsInTheMark) {
    LogEntry(record.logger, level::info, differs) << "sums " << 1 << " and " << 2;
    EXPECT_EQ(record.lines(), (Lines{{3, "sums 1 and 2 [fallback:image-differs]"}}));
}

TEST_F(ReasonTest, PrintfStatementEndsInTheMark) {
    record.logger.log(level::error, reason("volume-full"), "%s: %d%%", "full", 100);
    EXPECT_EQ(record.lines(), (Lines{{1, "full: 100% [failure:volume-full]"}}));
}

TEST_F(ReasonTest, WhatGoesOnBehindAStatementHasNoMark) {
    record.logger.log(level::info, differs, "first") << "second";
    EXPECT_EQ(record.lines(), (Lines{{3, "first [fallback:image-differs]"}, {3, "second"}}));
}

TEST_F(ReasonTest, EmptyStatementPrintsNothing) {
    {
        const LogEntry entry(record.logger, level::info, differs);
    }
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(ReasonTest, MarkOfSeveralLinesStandsBehindTheLast) {
    std::string printed;
    Logger raw([&](const std::string& message, int, LogTime) { printed += message; });
    LogEntry(raw, level::info, differs) << "one\ntwo";
    EXPECT_EQ(printed, "one\ntwo [fallback:image-differs]\n");
    EXPECT_EQ(reasonOf(printed), &differs);
}

TEST_F(ReasonTest, LineIsTakenApartAgain) {
    LoggingStack stack;
    const std::string message = "text" + markOf(differs);
    const std::string line =
        stack.decorator().decorate(message, level::info, LogTime(std::chrono::milliseconds(5)));
    int level = 0;
    LogTime time;
    EXPECT_EQ(stack.decorator().undecorate(line, level, time), message);
    EXPECT_EQ(reasonOf(line), &differs);
    EXPECT_EQ(reasonOf(line + "\n"), &differs);
}

TEST_F(ReasonTest, EachMarkNamesItsReason) {
    for (const Reason& each : reasons) {
        EXPECT_EQ(reasonOf("text" + markOf(each)), &each) << each.code;
        EXPECT_FALSE(each.meaning.empty()) << each.code;
        EXPECT_FALSE(each.remedy.empty()) << each.code;
    }
}

TEST_F(ReasonTest, OtherTextsHaveNone) {
    for (const char* const text :
         {"", "\n", "text", "[fallback:image-differs]", "text [failure:image-differs]",
          "text [fallback:image]", "text [fallback:image-differs] ", "text [fallback:image-differs].",
          "text [fallback:]", "text[fallback:image-differs]"}) {
        EXPECT_EQ(reasonOf(text), nullptr) << text;
    }
}

TEST_F(ReasonTest, ErrorCarriesItsReason) {
    try {
        throw Reasoned<std::runtime_error>(differs, "text");
    } catch (const std::exception& error) {
        EXPECT_STREQ(error.what(), "text");
        EXPECT_EQ(&reasonOf(error, reason("backup-failed")), &differs);
    }
    EXPECT_EQ(&reasonOf(std::runtime_error("text"), reason("backup-failed")), &reason("backup-failed"));
}

} // namespace
} // namespace agent::info
