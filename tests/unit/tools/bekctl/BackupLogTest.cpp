#include "BackupLog.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <string_view>

namespace bekctl {
namespace {

constexpr const char* one = "0d9dc930-0000-4000-8000-000000000001";
constexpr const char* two = "0d9dc930-0000-4000-8000-000000000002";

/// Builds a log whose lines are one second apart.
class LogText {
public:
    LogText& line(const std::string& text, const std::string& level = "[INFO:]     ") {
        const std::string second = std::to_string(10 + count++ % 50);
        log.add("2026-03-04 10:54:" + second + ".123 " + level + text);
        return *this;
    }
    LogText& error(const std::string& text) { return line(text, "[ERROR:]    "); }
    LogText& begin() { return line("Backup run beginning..."); }
    LogText& copy(const std::string& uuid) {
        return line("Beginning execution of the Copy Volume " + uuid + " phase.");
    }
    LogText& copied(const std::string& uuid) {
        return line("Finished execution of the Copy Volume " + uuid + " phase.");
    }
    LogText& record(const std::string& uuid, const std::string& outcome = "success") {
        return line(R"(Backup record: {"asked":"INCREMENTAL","backup":"b","copiedBytes":1234,)"
                    R"("mountPoint":"/mnt/data",)"
                    R"("outcome":")" +
                    outcome + R"(","seconds":12.5,"totalBytes":-1,"type":"FULL","volume":")" + uuid + "\"}");
    }
    LogText& end() { return line("Backup run finished"); }

    [[nodiscard]] std::string codesOf(const std::string& uuid) const {
        std::string codes;
        for (const agent::info::Reason* const reason : log.lastRecords().at(uuid).reasons) {
            codes += (codes.empty() ? "" : " ") + std::string(reason->code);
        }
        return codes;
    }

    BackupLog log;

private:
    int count = 0;
};

TEST(BackupLog, TakesARecordAsItStands) {
    LogText text;
    text.begin().record(one).end();
    ASSERT_EQ(text.log.lastRecords().size(), 1U);
    const BackupRecord& record = text.log.lastRecords().at(one);
    EXPECT_EQ(record.requestedType, "INCREMENTAL");
    EXPECT_EQ(record.type, "FULL");
    EXPECT_EQ(record.outcome, "success");
    EXPECT_EQ(record.mountPoint, "/mnt/data");
    EXPECT_EQ(record.copiedBytes, 1234U);
    EXPECT_EQ(record.totalBytes, std::nullopt);
    EXPECT_EQ(record.seconds, 12.5);
    std::tm broken{};
    ASSERT_NE(::localtime_r(&record.end, &broken), nullptr);
    EXPECT_EQ((broken.tm_year + 1900) * 10000 + (broken.tm_mon + 1) * 100 + broken.tm_mday, 20260304);
    EXPECT_EQ(broken.tm_hour * 60 + broken.tm_min, 10 * 60 + 54);
}

TEST(BackupLog, KeepsTheLastOfEachVolume) {
    LogText text;
    text.begin().record(one).record(two).end().begin().record(one, "failed").end();
    EXPECT_EQ(text.log.lastRecords().at(one).outcome, "failed");
    EXPECT_EQ(text.log.lastRecords().at(two).outcome, "success");
}

TEST(BackupLog, JoinsTheReasonsThatNameAVolumeOrStandInItsCopy) {
    LogText text;
    text.begin()
        .line("No db entry found for volume " + std::string(one) + ", forcing FULL [fallback:volume-unknown]")
        .copy(two)
        .error("A logical error occurred [fallback:ext-bitmaps]")
        .line("Beginning execution of the Open Volume I/O phase.") // inside the copy
        .error("Another one [fallback:driver-file-copied]")
        .copied(two)
        .record(one)
        .record(two)
        .end();
    EXPECT_EQ(text.codesOf(one), "volume-unknown");
    EXPECT_EQ(text.codesOf(two), "ext-bitmaps driver-file-copied");
}

TEST(BackupLog, GivesAllVolumesWhatNamesNone) {
    LogText text;
    text.begin()
        .error("Iscsi login failed [failure:target-refused]")
        .record(one, "failed")
        .record(two, "failed")
        .end();
    EXPECT_EQ(text.codesOf(one), "target-refused");
    EXPECT_EQ(text.codesOf(two), "target-refused");
}

TEST(BackupLog, ShowsAReasonOnceAndOnlyWithItsRun) {
    LogText text;
    text.begin().error("a [failure:target-refused]").error("b [failure:target-refused]").record(one).end();
    EXPECT_EQ(text.codesOf(one), "target-refused");
    text.begin().record(one).end();
    EXPECT_EQ(text.codesOf(one), "");
}

TEST(BackupLog, EndsACopyWithThePhaseBehindIt) {
    LogText text;
    text.begin()
        .copy(one)
        .line("Beginning execution of the Transition To Incremental phase.")
        .error("c [failure:backup-failed]")
        .record(one, "failed")
        .record(two, "failed")
        .end();
    EXPECT_EQ(text.codesOf(two), "backup-failed");
}

TEST(BackupLog, TellsOfABackupThatRuns) {
    LogText text;
    EXPECT_EQ(text.log.runningSince(), std::nullopt);
    text.begin().copy(one);
    EXPECT_NE(text.log.runningSince(), std::nullopt);
    EXPECT_EQ(text.log.copying(), one);
    text.copied(one);
    EXPECT_EQ(text.log.copying(), "");
    text.end();
    EXPECT_EQ(text.log.runningSince(), std::nullopt);
}

TEST(BackupLog, KnowsThatOneWaitsForAnotherToEnd) {
    LogText text;
    text.begin().begin().record(one, "cancelled").end();
    EXPECT_NE(text.log.runningSince(), std::nullopt);
    text.record(two).end();
    EXPECT_EQ(text.log.runningSince(), std::nullopt);
    EXPECT_EQ(text.log.lastRecords().size(), 2U);
}

TEST(BackupLog, EveryKindOfEndEndsARun) {
    for (const char* const end :
         {"Exception occurred during backup run: why", "Unknown exception occurred during backup run",
          "Exception occurred during backup run: why [failure:clean-up-failed]"}) {
        LogText text;
        text.begin().error(end);
        EXPECT_EQ(text.log.runningSince(), std::nullopt) << end;
    }
}

TEST(BackupLog, BackupThatTheAgentsEndCutOff) {
    LogText text;
    text.begin().copy(one).line("Agent daemon started");
    EXPECT_EQ(text.log.runningSince(), std::nullopt);
    EXPECT_NE(text.log.beginOfInterrupted(), std::nullopt);
    text.begin().record(one).end();
    EXPECT_EQ(text.log.beginOfInterrupted(), std::nullopt);
}

TEST(BackupLog, KnowsTheTargetThatWasNamedLast) {
    LogText text;
    EXPECT_EQ(text.log.lastTarget(), "");
    text.error("Iscsi target connect or Login failed: Try: 5 Target name: iqn.x Target portal: 10.0.0.1:3260 "
               "LUN: 1. "
               "Error: no [failure:target-refused]");
    EXPECT_EQ(text.log.lastTarget(), "10.0.0.1:3260");
    text.error("Try: 1 Couldn't connect to zephane://store.example:25568/a/7 code: -5 message: no");
    EXPECT_EQ(text.log.lastTarget(), "store.example:25568");
    text.error("Target portal: $(reboot) LUN");
    text.line("Target portal: 10.9.9.9:1 said a script");
    EXPECT_EQ(text.log.lastTarget(), "store.example:25568");
}

TEST(BackupLog, TakesNoRecordFromAnotherTongue) {
    LogText text;
    const std::string forged = R"(Backup record: {"volume":"forged"})";
    text.begin().line("/etc/tolvu/bek/pps/script: " + forged);
    text.log.add(forged);                                          // the second line of a message
    text.log.add("2026-03-04 10:54:99.123 [INFO:]     " + forged); // not a valid time
    text.log.add("2026-03-04 10:54:10.123 [WHATEVER:] " + forged); // not a valid level
    text.line("Backup record: {").line("Backup record: []").line("Backup record: {\"volume\":7}");
    text.line("Backup record: {\"volume\":\"" + std::string(70'000, 'x') + "\"}");
    text.line("Backup record: " + std::string(60'000, '['));
    text.end();
    EXPECT_TRUE(text.log.lastRecords().empty());
}

TEST(BackupLog, UnknownCodesAndNumbersAreLeftOut) {
    LogText text;
    text.begin()
        .error("d [failure:no-such-code]")
        .error("e [failure:target-refused")
        .line(R"(Backup record: {"volume":"v","copiedBytes":1e300,"totalBytes":18446744073709551000,)"
              R"("seconds":"x",)"
              R"("outcome":["a"],"type":"a\u001b[2Jb"})")
        .end();
    const BackupRecord& record = text.log.lastRecords().at("v");
    EXPECT_TRUE(record.reasons.empty());
    EXPECT_EQ(record.copiedBytes, std::nullopt);
    EXPECT_EQ(record.totalBytes, std::nullopt);
    EXPECT_EQ(record.seconds, 0);
    EXPECT_EQ(record.outcome, "");
    EXPECT_EQ(record.type, "a\\x1b[2Jb");
}

TEST(BackupLog, HoldsNoMoreThanItHasTo) {
    LogText text;
    text.begin();
    for (int number = 0; number < 5000; ++number) {
        text.error("f [failure:target-refused]").record("volume " + std::to_string(number));
    }
    text.end();
    EXPECT_EQ(text.log.lastRecords().size(), 1000U);
}

TEST(BackupLog, AnyBytesAreALine) {
    BackupLog log;
    for (int length = 0; length < 80; ++length) {
        for (const char byte : {'\0', '\xff', ']', ' ', '['}) {
            log.add(std::string(static_cast<std::size_t>(length), byte));
        }
    }
    EXPECT_TRUE(log.lastRecords().empty());
}

} // namespace
} // namespace bekctl
