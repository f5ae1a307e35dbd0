#include "zephane/zephaned/Log.h"

#include "os/FileDescriptor.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <unistd.h>

namespace zephane {
namespace {

TEST(Log, WritesLinesThatNobodyElseCanMake) {
    const agent::test::TestDirectory directory;
    const std::string path = (directory / "log").str();
    const os::FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    Log log(file.get());
    log.info("one");
    log.error("two\n2026-01-01 error: \x1B[2J" + std::string(5000, 'x'));
    std::ifstream lines(path);
    std::string one;
    std::string two;
    std::string three;
    std::getline(lines, one);
    std::getline(lines, two);
    EXPECT_FALSE(std::getline(lines, three));
    EXPECT_TRUE(one.ends_with(" info: one")) << one;
    EXPECT_NE(two.find(" error: two?2026-01-01 error: ?[2Jxxx"), std::string::npos) << two;
    EXPECT_LT(two.size(), 2100U);
}

} // namespace
} // namespace zephane
