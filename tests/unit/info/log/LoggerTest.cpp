#include "info/log/Logger.h"

#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

namespace agent::info {
namespace {

using Lines = std::vector<test::RecordingLogger::Line>;

class LoggerTest : public testing::Test {
protected:
    test::RecordingLogger record;
};

TEST_F(LoggerTest, StreamStatementEndsItsLine) {
    LogEntry(record.logger, level::info) << "Driver version: " << 2 << '.' << 1;
    EXPECT_EQ(record.lines(), (Lines{{3, "Driver version: 2.1"}}));
}

TEST_F(LoggerTest, PrintfStatement) {
    record.logger.log(level::warning, "%s %d%%", "disk", 90);
    EXPECT_EQ(record.lines(), (Lines{{2, "disk 90%"}}));
}

TEST_F(LoggerTest, PrintfTextHasNoLimit) {
    const std::string text(1'000'000, 'x');
    record.logger.log(level::info, "%s", text.c_str());
    EXPECT_EQ(record.lines().at(0).text, text);
}

TEST_F(LoggerTest, OneShotReturnsAnEmptyEntryToGoOnWith) {
    record.logger.log(level::info, "first").format("second %d", 2);
    EXPECT_EQ(record.lines(), (Lines{{3, "first"}, {3, "second 2"}}));
}

TEST_F(LoggerTest, LevelsAreClamped) {
    LogEntry(record.logger, 7) << "high";
    LogEntry(record.logger, -3) << "low";
    EXPECT_EQ(record.lines(), (Lines{{4, "high"}, {0, "low"}}));
}

TEST_F(LoggerTest, FlushedEntryAddsNothing) {
    {
        LogEntry entry(record.logger, level::info);
        entry << "one\n";
        entry.flush();
        EXPECT_EQ(record.lines().size(), 1U);
    }
    EXPECT_EQ(record.lines(), (Lines{{3, "one"}}));
}

TEST_F(LoggerTest, EntryMayBeFlushedSeveralTimes) {
    {
        LogEntry entry(record.logger, level::info);
        entry << "one\n";
        entry.flush();
        entry << "two";
    }
    EXPECT_EQ(record.lines(), (Lines{{3, "one"}, {3, "two"}}));
}

TEST_F(LoggerTest, NewlinesWithinAreKept) {
    std::string printed;
    Logger raw([&](const std::string& message, int, LogTime) { printed += message; });
    LogEntry(raw, level::info) << "one\ntwo";
    EXPECT_EQ(printed, "one\ntwo\n");
}

TEST_F(LoggerTest, EmptyStatementPrintsNothing) {
    {
        const LogEntry entry(record.logger, level::info);
    }
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(LoggerTest, CopiedEntryStartsEmpty) {
    {
        LogEntry entry(record.logger, level::error);
        entry << "original";
        LogEntry copy(entry);
        copy << "copy";
    }
    EXPECT_EQ(record.lines(), (Lines{{1, "copy"}, {1, "original"}}));
}

TEST_F(LoggerTest, FailedStreamIsDroppedSilently) {
    {
        LogEntry entry(record.logger, level::info);
        entry << "lost";
        entry.setstate(std::ios::failbit);
        entry.flush();
    }
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(LoggerTest, EmptyPrinterIsNoError) {
    Logger silent{PrinterFunction()};
    EXPECT_NO_THROW(LogEntry(silent, level::info) << "into the void");
}

TEST_F(LoggerTest, DestructorLetsNothingEscape) {
    Logger broken([](const std::string&, int, LogTime) { throw std::runtime_error("sink"); });
    EXPECT_NO_THROW(LogEntry(broken, level::info) << "x");
    LogEntry entry(broken, level::info);
    entry << "x";
    EXPECT_THROW(entry.flush(), std::runtime_error);
    EXPECT_NO_THROW(LogEntry(broken, level::info) << "the mutex is free again");
}

TEST_F(LoggerTest, CopiesShareTheMutex) {
    int inside = 0;
    bool overlapped = false;
    Logger logger([&](const std::string&, int, LogTime) {
        overlapped = overlapped || inside != 0;
        ++inside;
        std::this_thread::yield();
        --inside;
    });
    Logger copy = logger;
    std::thread other([&] {
        for (int i = 0; i < 2000; ++i) {
            copy.log(level::info, "%d", i);
        }
    });
    for (int i = 0; i < 2000; ++i) {
        logger.log(level::info, "%d", i);
    }
    other.join();
    EXPECT_FALSE(overlapped);
}

TEST_F(LoggerTest, TimesNeverRunBackwards) {
    std::vector<LogTime> times;
    Logger logger([&](const std::string&, int, LogTime time) { times.push_back(time); });
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 500; ++n) {
                LogEntry(logger, level::info) << n;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(times.size(), 2000U);
    EXPECT_TRUE(std::is_sorted(times.begin(), times.end()));
}

TEST_F(LoggerTest, TellsWhichLevelsReachAnybody) {
    EXPECT_TRUE(record.logger.isEnabled(level::debug));
    EXPECT_FALSE(Logger({}).isEnabled(level::critical));
    Logger upToInfo([](const std::string&, int, LogTime) {}, [](int level) { return level <= level::info; });
    EXPECT_TRUE(upToInfo.isEnabled(level::info));
    EXPECT_FALSE(upToInfo.isEnabled(level::debug));
}

} // namespace
} // namespace agent::info
