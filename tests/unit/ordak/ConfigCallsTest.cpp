#include "common/Exceptions.h"
#include "common/config/Config.h"
#include "common/config/JSONConfigDataProvider.h"
#include "info/DriverInfoProvider.h"
#include "ordak/ConfigGet.h"
#include "ordak/ConfigSet.h"
#include "ordak/DriverStatus.h"
#include "ordak/FeatureApi.h"
#include "ordak/Install.h"
#include "support/BodyMutation.h"
#include "support/EngineHarness.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"
#include "support/TestDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

namespace agent::ordak {
namespace {

using nlohmann::json;
using test::messageOf;
using testing::StartsWith;

class FeatureTest : public testing::Test {
protected:
    FeatureTest() {
        features.addFeature({"zephane", "2.0", "1.5"});
        features.addFeature({"secure_pairing", "1.0", "1.0"});
    }

    const json zephane = {{"name", "zephane"}, {"version", "2.0"}, {"minVersion", "1.5"}};
    const json pairing = {{"name", "secure_pairing"}, {"version", "1.0"}, {"minVersion", "1.0"}};
    test::RecordingLogger record;
    FeatureManager features;
    FeatureApi api{record.logger, features};
};

TEST_F(FeatureTest, ListsAll) {
    const APIResponse response = api("");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.contentType, APIResponse::ContentType::json);
    EXPECT_EQ(json::parse(response.text), (json{pairing, zephane}));
    EXPECT_TRUE(record.has(4, " Features: " + json({pairing, zephane}).dump()));
}

TEST_F(FeatureTest, BodyNarrowsTheList) {
    EXPECT_EQ(json::parse(api(R"(["zephane"])").text), json::array({zephane}));
    EXPECT_EQ(json::parse(api(R"(["zephane", "secure_pairing"])").text), (json{zephane, pairing}));
    EXPECT_EQ(api("[]").text, "");
}

TEST_F(FeatureTest, UnknownNameIsAnErrorOfTheMap) {
    EXPECT_EQ(messageOf<std::out_of_range>([&] { api(R"(["zephane", "none"])"); }), "map::at");
}

TEST_F(FeatureTest, OtherBodiesAreTheLibrarysErrors) {
    EXPECT_THROW(api("zephane"), json::parse_error);
    EXPECT_THROW(api(" "), json::parse_error);
    for (const char* body : {"{}", "\"zephane\"", "[1]", "null"}) {
        EXPECT_THROW(api(body), json::type_error) << body;
    }
}

TEST_F(FeatureTest, SurvivesHostileBodies) {
    EXPECT_GT(test::countAnswersToMutations(R"(["zephane", "secure_pairing"])",
                                            [&](const std::string& body) { api(body); }),
              0);
}

TEST_F(FeatureTest, SecondFeatureOfANameReplacesTheFirst) {
    features.addFeature({"zephane", "3.0", "3.0"});
    EXPECT_EQ(features.getFeatures().at("zephane"), (Feature{"zephane", "3.0", "3.0"}));
    EXPECT_EQ(features.getFeatures().size(), 2U);
}

TEST(InstallTest, NeedsNoReboot) {
    const info::DriverInfoProvider real;
    const APIResponse response = Install(real)();
    EXPECT_EQ(response.text, "{\n    \"rebootRequired\": false\n}");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.contentType, APIResponse::ContentType::json);
}

TEST(InstallTest, AsksTheDriver) {
    test::FixedDriverInfo driver;
    driver.rebootRequired = true;
    EXPECT_EQ(Install(driver)().text, "{\n    \"rebootRequired\": true\n}");
}

TEST(DriverStatusTest, IsTheTextOfTheDriver) {
    test::FixedDriverInfo driver;
    driver.status = "{\"state\": \"active\"}\n";
    const APIResponse response = DriverStatus(driver)();
    EXPECT_EQ(json::parse(response.text), (json{{"driverStatus", driver.status}}));
    EXPECT_EQ(response.status, 200);
    driver.status = "\xff";
    EXPECT_EQ(json::parse(DriverStatus(driver)().text), (json{{"driverStatus", "\ufffd"}}));
}

TEST(DriverStatusTest, DriverThatCannotBeRead) {
    const test::FixedDriverInfo driver;
    EXPECT_EQ(json::parse(DriverStatus(driver)().text), (json{{"driverStatus", "Not Available"}}));
}

/// An excerpt of the real table of options.
ConfigOptions someOptions() {
    return {{},
            {{"holepunch.enabled", {"false", &typeid(bool)}},
             {"log.lifetimeHours", {"168", &typeid(unsigned long), 1, 8760}},
             {"autoupdate.channel", {"stable", &typeid(std::string)}}}};
}

class ConfigCallsTest : public testing::Test {
protected:
    [[nodiscard]] std::string refusalOf(const std::string& body) {
        return messageOf<exception::bad_request>([&] { set(body); });
    }

    test::RecordingLogger record;
    test::TestDirectory directory;
    JSONConfigDataProvider provider{directory / "config.json"};
    Config config{record.logger, provider, someOptions()};
    ConfigGet get{config};
    ConfigSet set{config};
};

TEST_F(ConfigCallsTest, NothingSetIsAnEmptyText) {
    EXPECT_EQ(get().text, "");
    EXPECT_EQ(get().status, 200);
}

TEST_F(ConfigCallsTest, WhatIsSetComesBack) {
    const APIResponse response = set(R"({"holepunch.enabled": true, "log.lifetimeHours": 72.9})");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.text, "");
    EXPECT_EQ(get().text, "{\n    \"holepunch.enabled\": true,\n    \"log.lifetimeHours\": 72\n}");
    EXPECT_EQ(get().contentType, APIResponse::ContentType::json);
    EXPECT_EQ(json::parse(test::readFile(directory / "config.json")), config.dump());
}

TEST_F(ConfigCallsTest, BodyThatIsNoJson) {
    EXPECT_EQ(refusalOf("{"), "Failed to parse JSON config set request: " +
                                  messageOf<json::parse_error>([] { (void)json::parse("{").size(); }));
    EXPECT_EQ(refusalOf(std::string(10'000'000, '[')),
              "Failed to parse JSON config set request: [json.exception.parse_error.101] parse error: nested "
              "deeper than 128 levels");
}

TEST_F(ConfigCallsTest, PairsThatCannotBeSet) {
    EXPECT_EQ(refusalOf("[]"),
              "Failed to set config options: The agent configuration to set must be a JSON object");
    EXPECT_EQ(refusalOf(R"({"holepunch.enabled": true, "no.such.key": 1})"),
              "Failed to set config options: Invalid agent configuration option {\"no.such.key\" : 1}");
    EXPECT_EQ(config.dump(), json::object());
}

TEST_F(ConfigCallsTest, WhatTheNextStartCouldNotReadIsRefused) {
    set(R"({"log.lifetimeHours": 72})");
    EXPECT_EQ(refusalOf(R"({"log.lifetimeHours": 73, "autoupdate.channel": ")" + std::string(1'100'000, 'x') +
                        "\"}"),
              "Failed to set config options: The configuration could not be read back: larger than 1048576 "
              "bytes");
    EXPECT_EQ(JSONConfigDataProvider(directory / "config.json").dump(), (json{{"log.lifetimeHours", 72}}));
    EXPECT_EQ(config.dump(), (json{{"log.lifetimeHours", 72}}));
}

TEST_F(ConfigCallsTest, FileThatCannotBeWritten) {
    JSONConfigDataProvider lost(directory / "no/such/config.json");
    Config config(record.logger, lost, someOptions());
    ConfigSet handler(config);
    EXPECT_THAT(messageOf<exception::bad_request>([&] { handler(R"({"holepunch.enabled": true})"); }),
                StartsWith("Failed to set config options: "));
}

TEST_F(ConfigCallsTest, ManyMaySetAtOnce) {
    std::vector<std::thread> connections;
    for (int thread = 0; thread < 4; ++thread) {
        connections.emplace_back([this, thread] {
            for (int i = 1; i <= 10; ++i) {
                set(R"({"log.lifetimeHours": )" + std::to_string((thread * 10) + i) + "}");
                (void)get();
            }
        });
    }
    for (std::thread& connection : connections) {
        connection.join();
    }
    EXPECT_EQ(config.dump().size(), 1U);
}

TEST_F(ConfigCallsTest, SurvivesHostileBodies) {
    const std::string valid = R"({"holepunch.enabled": true, "log.lifetimeHours": 72,
        "autoupdate.channel": "beta"})";
    int stored = 0;
    const int answered = test::countAnswersToMutations(
        valid,
        [&](const std::string& body) {
            try {
                set(body);
                ++stored;
            } catch (const exception::bad_request& error) {
                EXPECT_THAT(error.what(), StartsWith("Failed to "));
                throw;
            }
        },
        2000);
    EXPECT_EQ(answered, stored);
    EXPECT_GT(stored, 0);
}

} // namespace
} // namespace agent::ordak
