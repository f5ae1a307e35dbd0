#include "info/log/FilePrinter.h"

#include "common/BaseDirectories.h"
#include "common/Directory.h"
#include "common/File.h"
#include "support/Messages.h"
#include "support/TestDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <sys/mount.h>

namespace agent::info {
namespace {

using test::messageOf;
using test::readFile;
using test::writeFile;
using namespace std::chrono_literals;

class FilePrinterTest : public testing::Test {
protected:
    void SetUp() override {
        setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        tzset();
        dir::make(dir::base());
    }
    void TearDown() override {
        unsetenv("TZ");
        tzset();
        if (file::exists(dir::base())) {
            dir::remove(dir::base());
        }
    }

    static std::string log(const std::string& name) { return FilePrinter::logDirectory() / name; }

    FilePrinter printer;
    const LogTime morning{1457085296s}; // 2016-03-04 10:54:56 in this zone
};

TEST_F(FilePrinterTest, AppendsToTheFileOfTheLocalDay) {
    EXPECT_TRUE(printer.print("one\n", 3, morning));
    EXPECT_TRUE(printer.print("two\n", 3, morning));
    EXPECT_EQ(readFile("/etc/tolvu/bek/logs/bek_2016-03-04.log"), "one\ntwo\n");
}

TEST_F(FilePrinterTest, DayBeginsAtLocalMidnight) {
    const LogTime midnight = FilePrinter::parseLogFileDate("bek_2016-03-05.log");
    EXPECT_EQ(FilePrinter::logFileName(midnight - 1ns), "bek_2016-03-04.log");
    EXPECT_EQ(FilePrinter::logFileName(midnight), "bek_2016-03-05.log");
    EXPECT_EQ(midnight, LogTime(1457132400s)); // 2016-03-04 23:00:00 UTC
}

TEST_F(FilePrinterTest, DeletedFileOrDirectoryIsMadeAgain) {
    EXPECT_TRUE(printer.print("one\n", 3, morning));
    file::remove(log("bek_2016-03-04.log"));
    EXPECT_TRUE(printer.print("two\n", 3, morning));
    EXPECT_EQ(readFile(log("bek_2016-03-04.log")), "two\n");
    dir::remove(FilePrinter::logDirectory());
    EXPECT_TRUE(printer.print("three\n", 3, morning));
    EXPECT_EQ(readFile(log("bek_2016-03-04.log")), "three\n");
}

TEST_F(FilePrinterTest, DirectoryThatCannotBeMade) {
    writeFile(FilePrinter::logDirectory(), "in the way");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(printer.print("one\n", 3, morning));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "~~Logging Error~~ dir::make(\"/etc/tolvu/bek/logs\"), mkdir(\"/etc/tolvu/bek/logs\") failed: "
              "Not a directory | ERROR(Posix) : 20 (0x14)\n");
}

TEST_F(FilePrinterTest, FileThatCannotBeOpened) {
    dir::make(log("bek_2016-03-04.log"));
    testing::internal::CaptureStderr();
    EXPECT_FALSE(printer.print("one\n", 3, morning));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "~~Logging Error~~ Could not open output log file\n");
}

TEST_F(FilePrinterTest, FullDisk) {
    dir::make(FilePrinter::logDirectory());
    const std::string directory = FilePrinter::logDirectory();
    ASSERT_EQ(::mount("tmpfs", directory.c_str(), "tmpfs", 0, "size=4k"), 0);
    writeFile(log("filler"), std::string(4096, 'x'));
    testing::internal::CaptureStderr();
    EXPECT_FALSE(printer.print("one\n", 3, morning));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "~~Logging Error~~ File stream error occurred while outputting log message\n");
    file::remove(log("filler"));
    EXPECT_TRUE(printer.print("two\n", 3, morning));
    EXPECT_EQ(readFile(log("bek_2016-03-04.log")), "two\n");
    ASSERT_EQ(::umount(directory.c_str()), 0);
}

TEST_F(FilePrinterTest, FirstMessageOfADayRemovesOldFiles) {
    dir::make(FilePrinter::logDirectory());
    for (const char* name : {"bek_2016-02-20.log", "bek_2016-02-26.log", "bek_2016-02-27.log",
                             "bek_2016-03-03.log", "bek_2015-01-01.log.gz", "notes.txt"}) {
        writeFile(log(name), "x");
    }
    EXPECT_TRUE(printer.print("one\n", 3, morning));
    EXPECT_THAT(dir::list(FilePrinter::logDirectory()),
                testing::UnorderedElementsAre("bek_2016-02-27.log", "bek_2016-03-03.log",
                                              "bek_2015-01-01.log.gz", "notes.txt", "bek_2016-03-04.log"));
}

TEST_F(FilePrinterTest, RetentionRunsOnlyWhenADaysFileIsBegun) {
    EXPECT_TRUE(printer.print("one\n", 3, morning));
    writeFile(log("bek_2016-02-20.log"), "x");
    EXPECT_TRUE(printer.print("two\n", 3, morning));
    EXPECT_TRUE(file::exists(log("bek_2016-02-20.log")));
    EXPECT_TRUE(printer.print("three\n", 3, morning + 24h));
    EXPECT_FALSE(file::exists(log("bek_2016-02-20.log")));
}

TEST_F(FilePrinterTest, FileOfSevenDaysAgoGoesWhenItsMidnightIsSevenDaysPast) {
    const LogTime midnight = FilePrinter::parseLogFileDate("bek_2016-03-04.log");
    dir::make(FilePrinter::logDirectory());
    writeFile(log("bek_2016-02-26.log"), "x");
    EXPECT_TRUE(printer.print("one\n", 3, midnight)); // the start of its day is exactly seven days ago
    EXPECT_TRUE(file::exists(log("bek_2016-02-26.log")));
    file::remove(log("bek_2016-03-04.log"));
    EXPECT_TRUE(printer.print("two\n", 3, midnight + 1ns));
    EXPECT_FALSE(file::exists(log("bek_2016-02-26.log")));
}

TEST_F(FilePrinterTest, FileThatCannotBeRemovedIsSkipped) {
    dir::make(log("bek_2016-02-20.log") + "/held"); // a directory that isn't empty
    writeFile(log("bek_2016-02-21.log"), "x");
    EXPECT_TRUE(printer.print("one\n", 3, morning));
    EXPECT_TRUE(file::exists(log("bek_2016-02-20.log")));
    EXPECT_FALSE(file::exists(log("bek_2016-02-21.log")));
}

std::string refusalOf(const std::string& name) {
    return messageOf<std::logic_error>([&] { (void)FilePrinter::parseLogFileDate(name); });
}

TEST_F(FilePrinterTest, NamesAreCheckedPartByPart) {
    EXPECT_EQ(refusalOf("bek_2016-03-04.log.gz"), "Invalid log file: bad filename length 21");
    EXPECT_EQ(refusalOf(""), "Invalid log file: bad filename length 0");
    EXPECT_EQ(refusalOf("xxx_2016-03-04.log"), "Invalid log file: bad filename prefix");
    EXPECT_EQ(refusalOf("bek_2016x03-04.log"), "Invalid log file: bad filename format");
    EXPECT_EQ(refusalOf("bek_2016-03x04.log"), "Invalid log file: bad filename format");
    EXPECT_EQ(refusalOf("bek_2016-03-04.txt"), "Invalid log file: bad filename suffix");
}

TEST_F(FilePrinterTest, DateThatTheClockCannotShowIsRefused) {
    setenv("TZ", "WST0:00:01", 1);
    tzset();
    EXPECT_EQ(refusalOf("bek_1970-01-01.log"), "nothing was thrown");
    setenv("TZ", "EST-0:00:01", 1); // the local midnight of 1970-01-01 is then a second before the epoch
    tzset();
    EXPECT_EQ(refusalOf("bek_1970-01-01.log"), "Could not interpret string as date stamp");
    EXPECT_EQ(refusalOf("bek_9999-12-31.log"), "Could not interpret string as date stamp");
    EXPECT_EQ(refusalOf("bek_0001-01-01.log"), "Could not interpret string as date stamp");
}

} // namespace
} // namespace agent::info
