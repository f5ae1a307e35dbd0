#include "MachineChecks.h"

#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace bekctl {
namespace {

TEST(CheckClock, OneThatIsNotSynchronisedIsAWarning) {
    EXPECT_EQ(checkClock(true).verdict, Verdict::ok);
    EXPECT_EQ(checkClock(false).verdict, Verdict::warning);
}

TEST(CheckDisk, RoomForTheLog) {
    EXPECT_EQ(checkDisk(std::nullopt).verdict, Verdict::failure);
    EXPECT_EQ(checkDisk(DiskSpace{1'000'000'000, true}).verdict, Verdict::failure);
    EXPECT_EQ(checkDisk(DiskSpace{15'999'999, false}).verdict, Verdict::failure);
    EXPECT_EQ(checkDisk(DiskSpace{16'000'000, false}).verdict, Verdict::warning);
    EXPECT_EQ(checkDisk(DiskSpace{200'000'000, false}).verdict, Verdict::ok);
}

TEST(FindDiskSpace, AsksTheFileSystem) {
    EXPECT_FALSE(findDiskSpace("/no/such/directory"));
    EXPECT_TRUE(findDiskSpace("/proc")->free == 0);
}

TEST(CheckScripts, EachOfADirectory) {
    EXPECT_TRUE(checkScripts("/no/such/directory").empty());
    const agent::test::TestDirectory directory;
    agent::test::writeFile(directory / "script", "#!/bin/sh\n");
    const Findings found = checkScripts(directory.path());
    ASSERT_EQ(found.size(), 1U); // everybody may write to its parent directory
    EXPECT_EQ(found.front().verdict, Verdict::failure);
    EXPECT_NE(found.front().text.find("others than root can write"), std::string::npos);
}

TEST(CheckTarget, TheOneThatIsGivenComesFirst) {
    EXPECT_EQ(checkTarget("", "").verdict, Verdict::open);
    const Finding found = checkTarget("127.0.0.1:1", "127.0.0.2:2"); // nothing listens there
    EXPECT_EQ(found.verdict, Verdict::failure);
    EXPECT_NE(found.text.find("127.0.0.1 port 1 can't be reached: "), std::string::npos) << found.text;
    EXPECT_NE(checkTarget("", "127.0.0.2:2").text.find("127.0.0.2 port 2"), std::string::npos);
}

} // namespace
} // namespace bekctl
