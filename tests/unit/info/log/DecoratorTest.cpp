#include "info/log/DateDecorator.h"
#include "info/log/MultiDecorator.h"
#include "info/log/TagDecorator.h"
#include "support/Messages.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <ctime>
#include <stdexcept>

namespace agent::info {
namespace {

using test::messageOf;
using namespace std::chrono_literals;

/// Uses a fixed time zone with daylight saving time.
class Decorators : public testing::Test {
protected:
    void SetUp() override {
        setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        tzset();
    }
    void TearDown() override {
        unsetenv("TZ");
        tzset();
    }

    DateDecorator date;
    TagDecorator tag;
    MultiDecorator both{{&date, &tag}};
    const LogTime winter{1457085296s + 7ms + 999us}; // 2016-03-04 10:54:56.007 in this zone
};

TEST_F(Decorators, DateIsLocalTimeWithMilliseconds) {
    EXPECT_EQ(date.decorate("text\n", 3, winter), "2016-03-04 10:54:56.007 text\n");
}

TEST_F(Decorators, DateComesBackTruncatedToMilliseconds) {
    int level = 77;
    LogTime time;
    EXPECT_EQ(date.undecorate("2016-03-04 10:54:56.007 text", level, time), "text");
    EXPECT_EQ(time, LogTime(1457085296s + 7ms));
    EXPECT_EQ(level, 77);
}

TEST_F(Decorators, DateKnowsDaylightSavingTime) {
    const LogTime summer(1467712496s); // 2016-07-05 11:54:56
    int level = 0;
    LogTime time;
    const std::string line = date.decorate("x", 3, summer);
    EXPECT_EQ(line, "2016-07-05 11:54:56.000 x");
    EXPECT_EQ(date.undecorate(line, level, time), "x");
    EXPECT_EQ(time, summer);
}

TEST_F(Decorators, LinesWithoutADateAreRefused) {
    for (const std::string line :
         {"", "text", "2016-03-04 10:54:56.007", "2016-03-04 10:54:56.007text and more",
          "2016-03-04 10:54:56,007 text", "2016-03-04 10:54:56.0x7 text", "2016-03-04 10:54:56.-07 text",
          "2016-13-04 10:54:56.007 text", "2016-3-04 10:54:56.0070 text", "xxxx-xx-xx xx:xx:xx.xxx text",
          "9999-12-31 23:59:59.999 text", "0001-01-01 00:00:00.000 text"}) {
        int level = 77;
        LogTime time;
        EXPECT_EQ(messageOf<std::logic_error>([&] { (void)date.undecorate(line, level, time); }),
                  "Could not parse date out of formatted log message: " + line);
        EXPECT_EQ(time, LogTime());
    }
}

TEST_F(Decorators, TagsHaveTwelveCharacters) {
    const std::array<std::string, 5> tags = {"[CRITICAL:] ", "[ERROR:]    ", "[WARNING:]  ", "[INFO:]     ",
                                             "[DEBUG:]    "};
    for (int level = 0; level < 5; ++level) {
        const std::string line = tag.decorate("text", level, winter);
        EXPECT_EQ(line, tags.at(static_cast<std::size_t>(level)) + "text");
        int found = 77;
        LogTime time;
        EXPECT_EQ(tag.undecorate(line, found, time), "text");
        EXPECT_EQ(found, level);
        EXPECT_EQ(time, LogTime());
    }
}

TEST_F(Decorators, LevelsBeyondTheTableHaveNoTag) {
    EXPECT_EQ(tag.decorate("text", 5, winter), "text");
}

TEST_F(Decorators, LinesWithoutATagAreRefused) {
    for (const std::string line : {"", "[INFO:]", "[INFO:]    text", "text that is long enough"}) {
        int level = 77;
        LogTime time;
        EXPECT_EQ(messageOf<std::logic_error>([&] { (void)tag.undecorate(line, level, time); }),
                  "Could not parse tag information out of formatted log message: " + line);
        EXPECT_EQ(level, 77);
    }
}

TEST_F(Decorators, TogetherTheyPutTheDateInFront) {
    const std::string line = both.decorate("text", 1, winter);
    EXPECT_EQ(line, "2016-03-04 10:54:56.007 [ERROR:]    text");
    EXPECT_EQ(line.find("text"), 36U);
    int level = 0;
    LogTime time;
    EXPECT_EQ(both.undecorate(line, level, time), "text");
    EXPECT_EQ(level, 1);
    EXPECT_EQ(time, LogTime(1457085296s + 7ms));
}

TEST_F(Decorators, NoDecoratorsChangeNothing) {
    MultiDecorator none({});
    int level = 0;
    LogTime time;
    EXPECT_EQ(none.decorate("text", 1, winter), "text");
    EXPECT_EQ(none.undecorate("text", level, time), "text");
}

} // namespace
} // namespace agent::info
