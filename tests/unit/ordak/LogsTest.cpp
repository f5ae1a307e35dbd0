#include "ordak/Logs.h"

#include "common/File.h"
#include "info/log/LoggingStack.h"
#include "ordak/LogEntries.h"
#include "ordak/LogFileReader.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"
#include "support/TestDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <random>
#include <stdexcept>
#include <sys/stat.h>

namespace agent::ordak {
namespace {

using info::FilePrinter;
using info::LogTime;
using nlohmann::json;
using test::messageOf;
using testing::ElementsAre;
using testing::StartsWith;
using namespace std::chrono_literals;

using Args = std::unordered_map<std::string, std::string>;

/// The real logging stack in the real log directory, which is private to the test.
class LogsTest : public testing::Test {
protected:
    LogsTest() { dir::make(FilePrinter::logDirectory()); }
    ~LogsTest() override { dir::remove(dir::base()); }

    static LogTime daysAgo(int days) { return std::chrono::system_clock::now() - (days * 24h); }
    static std::string pathOf(LogTime day) {
        return FilePrinter::logDirectory() / FilePrinter::logFileName(day);
    }
    static std::string dateOf(LogTime day) { return FilePrinter::logFileName(day).substr(4, 10); }

    std::string line(const std::string& text, int level = 3, LogTime time = LogTime(1457085296s)) {
        return stack.decorator().decorate(text + "\n", level, time);
    }
    void writeToday(const std::string& content) { test::writeFile(pathOf(daysAgo(0)), content); }

    APIResponse answer(const Args& args = {}) {
        APIExtendedData request;
        request.args = args;
        return logs("ignored", request);
    }
    json query(const Args& args = {}) { return json::parse(answer(args).text); }
    std::vector<std::string> messages(const Args& args = {}) {
        std::vector<std::string> texts;
        const json answered = query(args);
        for (const json& entry : answered.at("log")) {
            texts.push_back(entry.at("message"));
        }
        return texts;
    }

    test::RecordingLogger record;
    info::LoggingStack stack;
    Logs logs{record.logger, stack.decorator()};
};

TEST_F(LogsTest, ReadsWhatTheAgentHasLogged) {
    const std::int64_t before = std::time(nullptr);
    info::LogEntry(stack.logger, info::level::warning) << "something odd";
    info::LogEntry(stack.logger, info::level::info) << "two\nlines";
    const APIResponse response = answer();
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.contentType, APIResponse::ContentType::json);
    const json log = json::parse(response.text).at("log");
    ASSERT_EQ(log.size(), 2U);
    EXPECT_EQ(log[0].at("message"), "something odd");
    EXPECT_EQ(log[0].at("severity"), 3);
    EXPECT_GE(log[0].at("timestamp"), before);
    EXPECT_LE(log[0].at("timestamp"), std::time(nullptr));
    EXPECT_EQ(log[0].size(), 3U);
    EXPECT_EQ(log[1].at("message"), "two\nlines");
    EXPECT_EQ(log[1].at("severity"), 2);
}

TEST_F(LogsTest, EmptyDirectoryGivesTwoEmptyLists) {
    EXPECT_EQ(answer().text, "{\n    \"error\": [],\n    \"log\": []\n}");
}

TEST_F(LogsTest, MissingDirectoryIsToldInTheAnswer) {
    dir::remove(FilePrinter::logDirectory());
    const json answer = query();
    EXPECT_TRUE(answer.at("log").empty());
    EXPECT_EQ(answer.at("error").size(), 1U);
}

TEST_F(LogsTest, TimestampsAreWholeSeconds) {
    writeToday(line("x", 3, LogTime(1457085296s + 999ms)));
    EXPECT_EQ(query().at("log").at(0).at("timestamp"), 1457085296);
}

TEST_F(LogsTest, NewestLinesSurviveTheLimit) {
    std::string content;
    for (int i = 1; i <= 1500; ++i) {
        content += line(std::to_string(i));
    }
    writeToday(content);
    const std::vector<std::string> byDefault = messages();
    EXPECT_EQ(byDefault.size(), 1000U);
    EXPECT_EQ(byDefault.front(), "501");
    EXPECT_EQ(byDefault.back(), "1500");
    EXPECT_THAT(messages({{"lines", "2"}}), ElementsAre("1499", "1500"));
    EXPECT_THAT(messages({{"lines", " 2x"}}), ElementsAre("1499", "1500"));
    EXPECT_EQ(messages({{"lines", ""}}).size(), 1000U);
    EXPECT_EQ(messages({{"lines", "10000"}}).size(), 1500U);
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(LogsTest, LimitHasAMaximum) {
    std::string content;
    for (int i = 1; i <= 10'001; ++i) {
        content += line(std::to_string(i));
    }
    writeToday(content);
    for (const char* lines : {"20000", "10001", "99999999999999999999"}) {
        record.clear();
        EXPECT_EQ(messages({{"lines", lines}}).size(), 10'000U) << lines;
        EXPECT_TRUE(record.has(2, "Ignoring lines parameter value which exceeds maximum of 10000"));
    }
}

TEST_F(LogsTest, NoLinesAreNone) {
    writeToday("before any line\n" + line("x") + "more\n");
    for (const char* lines : {"0", "-5", "-99999999999999999999"}) {
        EXPECT_EQ(query({{"lines", lines}}), (json{{"log", json::array()}, {"error", json::array()}}))
            << lines;
    }
}

TEST_F(LogsTest, NumbersThatAreNone) {
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { answer({{"lines", "abc"}}); }),
              "The lines parameter is no number: abc");
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { answer({{"severity", "abc"}}); }), "stoi");
    EXPECT_EQ(messageOf<std::out_of_range>([&] { answer({{"severity", "99999999999999999999"}}); }), "stoi");
}

TEST_F(LogsTest, SeveritySetsTheThreshold) {
    std::string content;
    for (int level = 0; level <= 4; ++level) {
        content += line(std::to_string(level), level);
    }
    writeToday(content);
    EXPECT_THAT(messages({{"severity", "1"}}), ElementsAre("0", "1", "2", "3", "4"));
    EXPECT_THAT(messages({{"severity", "3"}}), ElementsAre("0", "1", "2"));
    EXPECT_THAT(messages({{"severity", "5"}}), ElementsAre("0"));
    for (const char* severity : {"0", "6", "-5", "2147483647", "", "2"}) {
        EXPECT_THAT(messages({{"severity", severity}}), ElementsAre("0", "1", "2", "3")) << severity;
    }
    EXPECT_THAT(messages(), ElementsAre("0", "1", "2", "3"));
}

TEST_F(LogsTest, DatesChooseFiles) {
    for (int days = 0; days <= 3; ++days) {
        test::writeFile(pathOf(daysAgo(days)), line(std::to_string(days)));
    }
    const auto between = [&](const std::string& from, const std::string& until) {
        std::vector<std::string> found = messages({{"from", from}, {"until", until}});
        std::sort(found.begin(), found.end());
        return found;
    };
    EXPECT_THAT(between(dateOf(daysAgo(2)), dateOf(daysAgo(1))), ElementsAre("1", "2"));
    EXPECT_THAT(between(dateOf(daysAgo(1)), ""), ElementsAre("0", "1"));
    EXPECT_THAT(between("", dateOf(daysAgo(2))), ElementsAre("2", "3"));
    EXPECT_THAT(between("9999-12-31", ""), ElementsAre());
    EXPECT_THAT(between("", "9999-12-31"), ElementsAre("0", "1", "2", "3"));
    EXPECT_THAT(between("", "0000-01-01"), ElementsAre());
    for (const std::string bad : {"garbage", "2026-13-01", "2026-01-01x", "99999-01-01", "\xff", "-1"}) {
        EXPECT_THAT(between(bad, bad), ElementsAre("0", "1", "2", "3")) << bad;
    }
}

TEST_F(LogsTest, FilesOlderThanSevenDaysAreNeverRead) {
    test::writeFile(pathOf(daysAgo(6)), line("six"));
    test::writeFile(pathOf(daysAgo(8)), line("eight"));
    EXPECT_THAT(messages({{"from", dateOf(daysAgo(9))}}), ElementsAre("six"));
    EXPECT_THAT(messages({{"from", "1970-01-02"}}), ElementsAre("six"));
}

TEST_F(LogsTest, ForeignNamesAreSkipped) {
    for (const char* name : {"notes.txt", "bek_9999-12-31.log", "bek_xxxx-xx-xx.log", "\xff\xfe"}) {
        test::writeFile(FilePrinter::logDirectory() / name, line("foreign"));
    }
    test::writeFile(pathOf(daysAgo(0)) + ".gz", line("foreign"));
    EXPECT_EQ(query({{"severity", "1"}}), (json{{"log", json::array()}, {"error", json::array()}}));
}

TEST_F(LogsTest, ContinuationLinesBelongToTheLastLineOfTheList) {
    writeToday(line("first") + "a\n\n" + line("hidden", 4) + "b\n" + line("second") + "no newline");
    EXPECT_THAT(messages(), ElementsAre("first\na\n\nb", "second\nno newline"));
    EXPECT_TRUE(query().at("error").empty());
}

TEST_F(LogsTest, ContinuationOfNothingIsAProblem) {
    writeToday("lost\n" + line("hidden", 4) + "lost too\n" + line("first"));
    EXPECT_THAT(
        query().at("error"),
        ElementsAre(dateOf(daysAgo(0)) + " line 1: Could not parse date out of formatted log message: lost",
                    dateOf(daysAgo(0)) +
                        " line 3: Could not parse date out of formatted log message: lost too"));
    EXPECT_THAT(messages(), ElementsAre("first"));
    EXPECT_EQ(query({{"lines", "1"}}).at("error").size(), 1U);
}

/// Returns each line unchanged, except that the line "bad" makes it throw.
class ThrowingDecorator : public info::IDecorator {
public:
    std::string decorate(const std::string& message, int /*level*/, LogTime /*time*/) override {
        return message;
    }
    std::string undecorate(const std::string& line, int& level, LogTime& /*time*/) override {
        if (line == "bad") {
            throw std::runtime_error("stumbled");
        }
        level = 3;
        return line;
    }
};

TEST_F(LogsTest, OtherFailuresAreProblems) {
    writeToday("one\nbad\ntwo\n");
    ThrowingDecorator decorator;
    const json answer = json::parse(Logs(record.logger, decorator)("", {}).text);
    EXPECT_EQ(answer.at("log").size(), 2U);
    EXPECT_THAT(answer.at("error"), ElementsAre(dateOf(daysAgo(0)) + " line 2: stumbled"));
}

TEST_F(LogsTest, WhatCannotBeReadIsToldAndSkipped) {
    const std::string path = pathOf(daysAgo(1));
    const auto expectFailure = [&] {
        const json answer = query();
        EXPECT_THAT(answer.at("error"), ElementsAre("failed reading log file for " + dateOf(daysAgo(1))));
        EXPECT_EQ(answer.at("log").size(), 1U);
        file::remove(path);
    };
    writeToday(line("x"));
    dir::make(path);
    expectFailure();
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    expectFailure();
    file::symlink("/no/such/file", path);
    expectFailure();
}

TEST_F(LogsTest, BytesThatAreNoTextAreReplaced) {
    writeToday(line("a\xff\xfe"
                    "b") +
               std::string("nul\0inside\n", 11));
    EXPECT_THAT(messages(), ElementsAre(std::string("a\ufffd\ufffdb\nnul\0inside", 19)));
}

TEST_F(LogsTest, HugeLinesAreCut) {
    const std::string huge(5UL * 1024 * 1024, 'x');
    writeToday(line("first") + huge + "\n" + huge + "\n" + line(huge) + line("last"));
    const std::vector<std::string> found = messages();
    ASSERT_EQ(found.size(), 3U);
    EXPECT_EQ(found[0].size(), LogEntries::maxMessageBytes);
    EXPECT_LE(found[1].size(), LogFileReader::maxLineBytes);
    EXPECT_GT(found[1].size(), LogFileReader::maxLineBytes - 100);
    EXPECT_EQ(found[2], "last");
}

TEST_F(LogsTest, SurvivesHostileFiles) {
    std::mt19937 random(20260101); // NOLINT(cert-msc51-cpp): the same files in every run
    const std::string valid = line("one") + "more\n" + line("two", 4) + line("three", 0);
    for (int i = 0; i < 2000; ++i) {
        std::string content = valid + valid;
        for (int edits = 0; edits < 4; ++edits) {
            content[random() % content.size()] = static_cast<char>(random());
        }
        content.resize(random() % content.size());
        writeToday(content);
        const json answer = query();
        EXPECT_LE(answer.at("log").size(), 6U);
    }
}

TEST_F(LogsTest, SurvivesHostileArguments) {
    writeToday(line("x"));
    const std::vector<std::string> texts = {"",           "-5",   "99999999999999999999",
                                            "abc",        "\xff", "0x10",
                                            "1e3",        "+1",   "2147483648",
                                            "2016-02-30", "%s%n", " ",
                                            "\n\t",       "٣",    std::string(100'000, '9')};
    int answered = 0;
    for (const char* key : {"lines", "from", "until", "severity"}) {
        for (const std::string& text : texts) {
            try {
                answered += answer({{key, text}}).status == 200 ? 1 : 0;
            } catch (const std::logic_error&) {
                ++answered;
            }
        }
    }
    EXPECT_EQ(answered, 60);
}

TEST(LogEntriesTest, OldestEntriesMakeWayForBytes) {
    LogEntries entries(10'000);
    const std::string big(LogEntries::maxMessageBytes, 'x');
    for (int i = 0; i < 40; ++i) {
        entries.addLine({big, i, 0});
        entries.addError(big);
    }
    const json answer = entries.release();
    EXPECT_EQ(answer.at("log").size(), 16U);
    EXPECT_EQ(answer.at("log").back().at("severity"), 39);
    EXPECT_EQ(answer.at("error").size(), 16U);
}

TEST(LogEntriesTest, ContinuationsCountToo) {
    LogEntries entries(10'000);
    const std::string big(LogEntries::maxMessageBytes, 'x');
    for (int i = 0; i < 40; ++i) {
        entries.addLine({"", i, 0});
        EXPECT_TRUE(entries.continueLine(big));
        EXPECT_TRUE(entries.continueLine(big));
    }
    const json answer = entries.release();
    EXPECT_EQ(answer.at("log").size(), 16U);
    EXPECT_EQ(answer.at("log").front().at("message").get<std::string>().size(), big.size());
}

} // namespace
} // namespace agent::ordak
