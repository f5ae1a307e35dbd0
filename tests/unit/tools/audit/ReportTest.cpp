#include "tools/bek-audit/Report.h"

#include "tools/bek-audit/Bound.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace audit {
namespace {

using testing::HasSubstr;

class ReportTest : public testing::Test {
protected:
    Request request{"/mnt/data", "nbd://there/data", 0, {}, 1000, 0.95, 7};
    Result result{"UUID (/mnt/data)",
                  {Findings{"", 900000, 1000, 0, 0, {}, 2}, Findings{"", 100000, 1000, 3, 0, {}, 4}}};
};

TEST_F(ReportTest, BoundsOfBothHoldTogether) {
    const double each = upperBound(0, 1000, 0.975);
    EXPECT_NEAR(result.bound(0.95), each, 1e-12);
    result.findings[1].wrong.push_back({4096, "/file"});
    EXPECT_NEAR(result.bound(0.95), 0.9 * each + 0.1 * upperBound(1, 1000, 0.975), 1e-12);
    result.findings[1].skipReason = "not tracked";
    EXPECT_NEAR(result.bound(0.95), upperBound(0, 1000, 0.95), 1e-12);
}

TEST_F(ReportTest, WhatNobodyCouldJudgeCountsAsWrong) {
    result.findings[0].undecided = 5;
    EXPECT_EQ(result.findings[0].bound(0.95), upperBound(5, 1000, 0.95));
    EXPECT_TRUE(result.isClean());
}

TEST_F(ReportTest, ShareOfAllThatThereIsIsKnown) {
    const Findings all{"", 10, 10, 0, 0, {{0, ""}}, 1};
    EXPECT_EQ(all.bound(0.95), 0.1);
    EXPECT_EQ(Findings().bound(0.95), 0);
}

TEST_F(ReportTest, TextSaysWhatIsWrong) {
    EXPECT_THAT(textOf(request, result),
                HasSubstr("Nothing is wrong in the sample. Of all that a backup leaves "
                          "out, at most 0.368 % could be wrong (confidence 95 %)"));
    result.findings[1].wrong.push_back({8192, "/evil\n\x1b[2J"});
    const std::string text = textOf(request, result);
    EXPECT_THAT(text, HasSubstr("byte 8192, of /evil"));
    EXPECT_THAT(text, HasSubstr("1 differ, 3 set aside and never written"));
    EXPECT_EQ(text.find('\x1b'), std::string::npos);
}

TEST_F(ReportTest, ObjectHasTheSame) {
    result.findings[1].wrong.push_back({8192, ""});
    const tools::Json document = jsonOf(request, result);
    EXPECT_EQ(document["unchanged"]["wrongBlocks"].dump(), R"([{"offset":8192,"file":null}])");
    EXPECT_EQ(document["unchanged"]["blocksPerSecond"], 250);
    EXPECT_EQ(document["unused"]["sampled"], 1000);
    EXPECT_EQ(document["clean"], false);
}

} // namespace
} // namespace audit
