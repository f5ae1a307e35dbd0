#include "ordak/LogLevel.h"

#include "common/Exceptions.h"
#include "support/BodyMutation.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"
#include "support/TestDatabase.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace agent::ordak {
namespace {

using nlohmann::json;
using test::messageOf;

class LogLevelTest : public testing::Test {
protected:
    LogLevelTest() { filter.load(record.logger, database.provider); }

    /// The name that is stored after a request.
    std::string storedBy(const std::string& body) {
        const APIResponse response = handler(body);
        EXPECT_EQ(response.status, 200);
        EXPECT_EQ(response.text, "");
        return database.provider.getConfigValue("log_level");
    }

    std::string refusalOf(const std::string& body) {
        return messageOf<exception::bad_request>([&] { handler(body); });
    }

    test::RecordingLogger record;
    test::TestDatabase database;
    info::StoredLevelFilter filter;
    LogLevel handler{record.logger, filter};
};

TEST_F(LogLevelTest, EverySeverityHasItsName) {
    const std::vector<std::string> names = {"max", "debug", "info", "warning", "error", "critical", "min"};
    for (std::size_t severity = 0; severity < names.size(); ++severity) {
        EXPECT_EQ(storedBy("{\"severity\": " + std::to_string(severity) + "}"), names[severity]);
        EXPECT_EQ(filter.threshold(), 5 - static_cast<int>(severity));
        EXPECT_TRUE(record.has(4, "Log level set to " + names[severity]));
    }
    EXPECT_FALSE(record.hasPart(2, "clamped"));
}

TEST_F(LogLevelTest, OthersAreClamped) {
    for (const auto& [number, name] :
         std::vector<std::pair<std::string, std::string>>{{"9", "min"},
                                                          {"-1", "max"},
                                                          {"18446744073709551615", "min"},
                                                          {"-9223372036854775808", "max"},
                                                          {"1e+300", "min"},
                                                          {"-1e+300", "max"},
                                                          {"7.5", "min"}}) {
        EXPECT_EQ(storedBy("{\"severity\": " + number + "}"), name);
        EXPECT_TRUE(
            record.has(2, "JSON parameter 'severity = " + number + "' being clamped into range [0, 6]"));
    }
    EXPECT_EQ(storedBy(R"({"severity": 6.5})"), "min");
    EXPECT_EQ(storedBy(R"({"severity": -0.5})"), "max");
}

TEST_F(LogLevelTest, BodyThatIsNoJson) {
    for (const std::string body : {"", "{", "\xff"}) {
        EXPECT_EQ(refusalOf(body), "JSON parsing error in logLevel callback " +
                                       messageOf<json::parse_error>([&] { (void)json::parse(body).size(); }));
    }
    EXPECT_EQ(refusalOf(R"({"severity": 1e999})"),
              "JSON parsing error in logLevel callback " +
                  messageOf<json::out_of_range>([] { (void)json::parse(R"({"severity": 1e999})").size(); }));
}

TEST_F(LogLevelTest, BodyWithoutASeverity) {
    for (const char* body : {"{}", "[]", "7", "null", "\"severity\"", "[\"severity\"]"}) {
        EXPECT_EQ(refusalOf(body), "logLevel event received with no 'severity' parameter sent") << body;
    }
}

TEST_F(LogLevelTest, SeverityThatIsNoNumber) {
    EXPECT_EQ(refusalOf(R"({"severity": "2"})"),
              "logLevel 'severity' parameter must be a number, but is string");
    EXPECT_EQ(refusalOf(R"({"severity": null})"),
              "logLevel 'severity' parameter must be a number, but is null");
    EXPECT_EQ(filter.threshold(), 3);
}

TEST_F(LogLevelTest, StoreThatFailsIsTold) {
    database.destroy();
    EXPECT_THROW(handler(R"({"severity": 1})"), std::runtime_error);
    EXPECT_EQ(filter.threshold(), 4);
}

TEST_F(LogLevelTest, SurvivesHostileBodies) {
    info::StoredLevelFilter memory;
    LogLevel survivor(record.logger, memory);
    EXPECT_GT(
        test::countAnswersToMutations(R"({"severity": 2})", [&](const std::string& body) { survivor(body); }),
        0);
    EXPECT_GE(memory.threshold(), -1);
    EXPECT_LE(memory.threshold(), 5);
}

} // namespace
} // namespace agent::ordak
