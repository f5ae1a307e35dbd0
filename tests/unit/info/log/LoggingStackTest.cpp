#include "info/log/LoggingStack.h"

#include "common/BaseDirectories.h"
#include "common/Directory.h"
#include "common/File.h"
#include "support/SystemLog.h"
#include "support/TestDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <thread>
#include <unistd.h>

namespace agent::info {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

class LoggingStackTest : public testing::Test {
protected:
    void SetUp() override { dir::make(dir::base()); }
    void TearDown() override { dir::remove(dir::base()); }

    static std::string todaysLog() {
        std::string all;
        for (const std::string& name : dir::list(FilePrinter::logDirectory())) {
            all += test::readFile(FilePrinter::logDirectory() / name);
        }
        return all;
    }

    /// The text that an action writes to standard output.
    template <typename Action>
    static std::string screen(const Action& action) {
        testing::internal::CaptureStdout();
        action();
        return testing::internal::GetCapturedStdout();
    }

    test::SystemLog systemLog;
    LoggingStack stack;
};

const std::string stampPattern = "[0-9]+-[0-9]+-[0-9]+ [0-9]+:[0-9]+:[0-9]+\\.[0-9]+ ";

TEST_F(LoggingStackTest, MainLoggerWritesScreenAndFile) {
    const std::string shown = screen([&] { stack.logger.log(level::warning, "disk is %d%% full", 90); });
    EXPECT_THAT(shown, MatchesRegex(stampPattern + "\\[WARNING:\\]  disk is 90% full\n"));
    EXPECT_EQ(todaysLog(), shown);
    EXPECT_EQ(systemLog.next(), "");
}

TEST_F(LoggingStackTest, ScreenIsNotFiltered) {
    stack.levelFilter.setLevel(level::min);
    const std::string shown = screen([&] {
        stack.logger.log(level::critical, "main");
        stack.securityLogger.log(level::critical, "security");
    });
    EXPECT_THAT(shown, HasSubstr("[CRITICAL:] main\n"));
    EXPECT_THAT(shown, HasSubstr("[CRITICAL:] security\n"));
    EXPECT_FALSE(file::exists(FilePrinter::logDirectory()));
    EXPECT_THAT(systemLog.next(), HasSubstr("[CRITICAL:] security"));
    EXPECT_EQ(systemLog.next(), "");
}

TEST_F(LoggingStackTest, FileTakesInfoButNotDebugAtFirst) {
    screen([&] {
        stack.logger.log(level::info, "kept");
        stack.logger.log(level::debug, "dropped");
    });
    EXPECT_THAT(todaysLog(), HasSubstr("[INFO:]     kept"));
    EXPECT_THAT(todaysLog(), Not(HasSubstr("dropped")));
}

TEST_F(LoggingStackTest, SystemLogStepsInWhereTheFileFails) {
    test::writeFile(FilePrinter::logDirectory(), "in the way");
    testing::internal::CaptureStderr();
    screen([&] { stack.logger.log(level::critical, "important"); });
    const std::string errors = testing::internal::GetCapturedStderr();
    EXPECT_THAT(errors, testing::StartsWith("~~Logging Error~~ "));
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1);
    const std::string entry = systemLog.next();
    EXPECT_THAT(entry, testing::StartsWith("<10>")); // LOG_USER | LOG_CRIT
    EXPECT_THAT(entry, HasSubstr("tolvubackupagent[" + std::to_string(::getpid()) + "]: "));
    EXPECT_THAT(entry, HasSubstr("[CRITICAL:] important"));
    file::remove(FilePrinter::logDirectory());
}

TEST_F(LoggingStackTest, SystemLogPriorities) {
    const std::array<const char*, 5> priorities = {"<10>", "<11>", "<12>", "<14>", "<15>"};
    screen([&] {
        for (int level = 0; level < 5; ++level) {
            stack.securityLogger.log(level, "x");
            EXPECT_THAT(systemLog.next(),
                        testing::StartsWith(priorities.at(static_cast<std::size_t>(level))));
        }
    });
}

TEST_F(LoggingStackTest, PercentSignsAreJustText) {
    screen([&] { LogEntry(stack.securityLogger, level::info) << "100%s%n"; });
    EXPECT_THAT(systemLog.next(), HasSubstr("100%s%n"));
    EXPECT_THAT(todaysLog(), HasSubstr("100%s%n\n"));
}

/// A name that would clear the screen and forge a line in the log.
TEST_F(LoggingStackTest, NoSinkGetsControlCharacters) {
    const std::string hostile = "\x1b[2J\u009b2J\r\n2026-01-01 00:00:00.000 [INFO:]     Agent daemon started";
    const std::string harmless =
        "\\x1b[2J\\xc2\\x9b2J\\r\\n2026-01-01 00:00:00.000 [INFO:]     Agent daemon started";
    const std::string shown = screen([&] {
        LogEntry(stack.logger, level::info) << hostile;
        stack.securityLogger.log(level::info, "%s", hostile.c_str());
    });
    EXPECT_THAT(systemLog.next(), HasSubstr("[INFO:]     " + harmless));
    EXPECT_EQ(todaysLog(), shown);
    EXPECT_EQ(std::count(shown.begin(), shown.end(), '\n'), 2);
    EXPECT_TRUE(std::none_of(shown.begin(), shown.end(), [](unsigned char byte) {
        return byte != '\n' && (byte < 0x20 || byte >= 0x7f);
    })) << shown;
    EXPECT_THAT(shown, HasSubstr("[INFO:]     " + harmless + "\n"));
}

TEST_F(LoggingStackTest, MessageMayHaveSeveralLines) {
    const std::string shown =
        screen([&] { LogEntry(stack.logger, level::info) << "one\n\n2026-01-01\x07\nfour"; });
    EXPECT_THAT(shown, testing::EndsWith("[INFO:]     one\n\n2026-01-01\\x07\nfour\n"));
    EXPECT_EQ(todaysLog(), shown);
}

TEST_F(LoggingStackTest, EndlessMessageIsCut) {
    const std::string shown =
        screen([&] { LogEntry(stack.logger, level::info) << std::string(5'000'000, 'x'); });
    EXPECT_THAT(shown, testing::EndsWith("xxx... (5000000 bytes)\n"));
    EXPECT_LT(shown.size(), EscapingPrinter::maxMessageBytes + 100);
    EXPECT_EQ(todaysLog(), shown);
}

TEST_F(LoggingStackTest, LinesCanBeTakenApartAgain) {
    const std::string shown = screen([&] { stack.logger.log(level::error, "text"); });
    int level = 0;
    LogTime time;
    EXPECT_EQ(stack.decorator().undecorate(shown, level, time), "text\n");
    EXPECT_EQ(level, level::error);
    EXPECT_LT(std::chrono::system_clock::now() - time, std::chrono::minutes(1));
}

TEST_F(LoggingStackTest, BothLoggersWriteWholeLinesAtOnce) {
    constexpr int count = 300;
    screen([&] {
        std::thread other([&] {
            for (int i = 0; i < count; ++i) {
                stack.securityLogger.log(level::info, "security %d", i);
                EXPECT_NE(systemLog.next(), ""); // an unread syslog socket would fill up and block
            }
        });
        for (int i = 0; i < count; ++i) {
            stack.logger.log(level::info, "main %d", i);
        }
        other.join();
    });
    std::istringstream log(todaysLog());
    int lines = 0;
    for (std::string line; std::getline(log, line); ++lines) {
        ASSERT_THAT(line, MatchesRegex(stampPattern + "\\[INFO:\\]     [a-z]+ [0-9]+"));
    }
    EXPECT_EQ(lines, 2 * count);
}

} // namespace
} // namespace agent::info
