#include "tools/common/Progress.h"

#include <gtest/gtest.h>

#include <sstream>

namespace tools {
namespace {

using std::chrono::milliseconds;
constexpr Progress::Clock::time_point start{};

TEST(ProgressText, TellsRateAndTimeLeft) {
    EXPECT_EQ(progressText("copying", 370'000'000, 1'000'000'000, 63e6),
              "copying  37 %  370.0 MB of 1.0 GB  63.0 MB/s  10.0 s left");
}

TEST(ProgressText, TellsNothingOfARateThatIsUnknown) {
    EXPECT_EQ(progressText("copying", 0, 1000, 0), "copying  0 %  0 bytes of 1.0 kB");
    EXPECT_EQ(progressText("copying", 0, 0, 0), "copying  100 %  0 bytes of 0 bytes");
}

TEST(Progress, ShowsNothingWithoutATerminal) {
    std::ostringstream out;
    {
        Progress progress(out, 0);
        progress.show("copying", 1, 2, start);
    }
    EXPECT_EQ(out.str(), "");
}

TEST(Progress, ShowsALineAFewTimesASecondAndLeavesNone) {
    std::ostringstream out;
    {
        Progress progress(out, 80);
        progress.show("copying", 0, 1000, start);
        progress.show("copying", 100, 1000, start + milliseconds(100));
        progress.show("copying", 500, 1000, start + milliseconds(1000));
    }
    EXPECT_EQ(out.str(), "\r\x1b[Kcopying  0 %  0 bytes of 1.0 kB"
                         "\r\x1b[Kcopying  50 %  500 bytes of 1.0 kB  500 bytes/s  1.0 s left\r\x1b[K");
}

TEST(Progress, BeginsAnewWithOtherWork) {
    std::ostringstream out;
    Progress progress(out, 80);
    progress.show("copying", 0, 1000, start);
    progress.show("comparing", 10, 1000, start + milliseconds(10));
    EXPECT_NE(out.str().find("comparing  1 %  10 bytes of 1.0 kB"), std::string::npos);
    EXPECT_EQ(out.str().find("bytes/s"), std::string::npos);
}

TEST(Progress, FitsTheTerminal) {
    std::ostringstream out;
    Progress progress(out, 20);
    progress.show("copying", 0, 1000, start);
    EXPECT_EQ(out.str(), "\r\x1b[Kcopying  0 %  0 byt");
}

} // namespace
} // namespace tools
