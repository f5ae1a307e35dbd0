#include "common/config/Config.h"

#include "app/AgentConfigOptions.h"
#include "common/config/JSONConfigDataProvider.h"
#include "support/DirectoryWatch.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <vector>

namespace agent {
namespace {

using nlohmann::json;
using test::messageOf;

/// A Config with the real option table and a real file.
class ConfigTest : public testing::Test {
protected:
    Config& open() {
        provider = std::make_unique<JSONConfigDataProvider>(path);
        config = std::make_unique<Config>(record.logger, *provider, app::agentConfigOptions());
        return *config;
    }
    Config& openWith(const std::string& content) {
        test::writeFile(path, content);
        return open();
    }

    template <typename Value>
    static Value valueOf(const Config& from, const std::string& key) {
        Value value{};
        from.get(key, value);
        return value;
    }

    [[nodiscard]] json stored() const { return json::parse(test::readFile(path)); }

    test::RecordingLogger record;
    test::TestDirectory directory;
    const Path path = directory / "config.json";
    std::unique_ptr<JSONConfigDataProvider> provider;
    std::unique_ptr<Config> config;
};

TEST_F(ConfigTest, MissingFileMeansDefaults) {
    const Config& fresh = open();
    EXPECT_EQ(valueOf<unsigned long>(fresh, "log.lifetimeHours"), 168U);
    EXPECT_EQ(valueOf<unsigned long>(fresh, "backup.heartbeat.timeoutMinutes"), 3U);
    EXPECT_TRUE(valueOf<bool>(fresh, "backup.heartbeat.enabled"));
    EXPECT_TRUE(valueOf<bool>(fresh, "excluders.unused.enabled"));
    EXPECT_FALSE(valueOf<bool>(fresh, "holepunch.enabled"));
    EXPECT_EQ(valueOf<std::string>(fresh, "autoupdate.channel"), "stable");
    EXPECT_EQ(fresh.dump(), json::object());
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(ConfigTest, StoredValuesAreRead) {
    const Config& config = openWith(R"({ "log.lifetimeHours": 72, "holepunch.enabled": true,
                                         "autoupdate.channel": "beta" })");
    EXPECT_EQ(valueOf<unsigned long>(config, "log.lifetimeHours"), 72U);
    EXPECT_TRUE(valueOf<bool>(config, "holepunch.enabled"));
    EXPECT_EQ(valueOf<std::string>(config, "autoupdate.channel"), "beta");
}

struct Bounds {
    const char* key;
    unsigned long minimum;
    unsigned long maximum;
    unsigned long defaultValue;
};

class EachNumber : public ConfigTest, public testing::WithParamInterface<Bounds> {};

TEST_P(EachNumber, KeepsItsInclusiveBounds) {
    const auto [key, minimum, maximum, defaultValue] = GetParam();
    Config& config = open();
    EXPECT_EQ(valueOf<unsigned long>(config, key), defaultValue);
    for (const unsigned long accepted : {minimum, maximum}) {
        config.set({{key, accepted}});
        EXPECT_EQ(valueOf<unsigned long>(config, key), accepted);
    }
    EXPECT_THROW(config.set({{key, maximum + 1}}), std::invalid_argument);
    EXPECT_THROW(config.set({{key, static_cast<long>(minimum) - 1}}), std::invalid_argument);
    EXPECT_EQ(valueOf<unsigned long>(config, key), maximum);
}

INSTANTIATE_TEST_SUITE_P(Table, EachNumber,
                         testing::Values(Bounds{"backup.heartbeat.timeoutMinutes", 0, 10, 3},
                                         Bounds{"log.lifetimeHours", 1, 8760, 168},
                                         Bounds{"autoupdate.checkIntervalHours", 1, 12, 12},
                                         Bounds{"autoupdate.shortCheckIntervalMinutes", 1, 5, 5},
                                         Bounds{"transports.zephaneFTP.maxRetries", 0, 5, 5},
                                         Bounds{"transports.iscsi.maxRetries", 0, 5, 5},
                                         Bounds{"transports.iscsi.tcpUserTimeoutMilliseconds", 0, 600000,
                                                60000},
                                         Bounds{"transports.iscsi.timeoutSeconds", 0, 600, 60},
                                         Bounds{"transports.iscsi.retrySleepDurationSeconds", 0, 600, 60},
                                         Bounds{"cache.timeoutMinutes", 0, 1440, 15}));

TEST_F(ConfigTest, ChannelTakesAnyText) {
    open().set({{"autoupdate.channel", "no such channel \u2026"}});
    EXPECT_EQ(valueOf<std::string>(*config, "autoupdate.channel"), "no such channel \u2026");
}

TEST_F(ConfigTest, ValuesOfTheWrongTypeAreRefused) {
    Config& config = open();
    for (const json& pair : std::vector<json>{{{"holepunch.enabled", 1}},
                                              {{"holepunch.enabled", "true"}},
                                              {{"log.lifetimeHours", "72"}},
                                              {{"log.lifetimeHours", true}},
                                              {{"log.lifetimeHours", nullptr}},
                                              {{"log.lifetimeHours", 1e300}},
                                              {{"log.lifetimeHours", -1e300}},
                                              {{"autoupdate.channel", 5}}}) {
        EXPECT_THROW(config.set(pair), std::invalid_argument) << pair;
    }
    EXPECT_EQ(config.dump(), json::object());
}

TEST_F(ConfigTest, FractionCountsAsItsWholePart) {
    open().set({{"log.lifetimeHours", 72.9}});
    EXPECT_EQ(stored(), (json{{"log.lifetimeHours", 72}}));
}

TEST_F(ConfigTest, RefusalNamesThePair) {
    Config& config = open();
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { config.set({{"log.lifetimeHours", 0}}); }),
              "Invalid agent configuration option {\"log.lifetimeHours\" : 0}");
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { config.set({{"no.such.key", "x"}}); }),
              "Invalid agent configuration option {\"no.such.key\" : \"x\"}");
}

TEST_F(ConfigTest, OneBadPairOfThreeStoresNothing) {
    Config& config = open();
    EXPECT_THROW(
        config.set({{"autoupdate.channel", "a"}, {"log.lifetimeHours", 0}, {"holepunch.enabled", true}}),
        std::invalid_argument);
    EXPECT_EQ(config.dump(), json::object());
    EXPECT_EQ(test::readFile(path), "");
    EXPECT_TRUE(record.lines().empty());
}

TEST_F(ConfigTest, SetIsLoggedAndStored) {
    open().set({{"log.lifetimeHours", 72}, {"autoupdate.channel", "beta"}});
    EXPECT_TRUE(record.has(3, "Setting agent configuration option {\"log.lifetimeHours\" : 72}"));
    EXPECT_TRUE(record.has(3, "Setting agent configuration option {\"autoupdate.channel\" : \"beta\"}"));
    EXPECT_EQ(stored(), (json{{"log.lifetimeHours", 72}, {"autoupdate.channel", "beta"}}));
    EXPECT_EQ(valueOf<unsigned long>(open(), "log.lifetimeHours"), 72U);
}

TEST_F(ConfigTest, OneRequestIsOneWrite) {
    Config& config = open();
    const test::DirectoryWatch watch(directory.path());
    config.set({{"log.lifetimeHours", 72}, {"autoupdate.channel", "beta"}, {"holepunch.enabled", true}});
    EXPECT_EQ(watch.renames(), 1U);
}

TEST_F(ConfigTest, LongPairsAreShownInPart) {
    const std::string longText(500'000, 'x');
    Config& config = open();
    config.set({{"autoupdate.channel", longText}});
    EXPECT_TRUE(record.has(3, "Setting agent configuration option {\"autoupdate.channel\" : \"" +
                                  std::string(1023, 'x') + "... (500002 bytes)}"));
    EXPECT_LT(messageOf<std::invalid_argument>([&] { config.set({{longText, longText}}); }).size(), 3000U);
}

TEST_F(ConfigTest, OnlyAnObjectCanBeSet) {
    Config& config = open();
    for (const json& document : std::vector<json>{json::array({1}), json(5), json(nullptr), json("x")}) {
        EXPECT_THROW(config.set(document), std::invalid_argument) << document;
    }
}

TEST_F(ConfigTest, PatternKeyIsStoredAndShownButNotGot) {
    Config& config = open();
    config.set({{"volumes.0f1e.cowFileSizeMiB", 4096U}});
    EXPECT_EQ(config.dump(), (json{{"volumes.0f1e.cowFileSizeMiB", 4096U}}));
    EXPECT_EQ(messageOf<std::invalid_argument>(
                  [&] { (void)valueOf<unsigned long>(config, "volumes.0f1e.cowFileSizeMiB"); }),
              "A configurable option with the key volumes.0f1e.cowFileSizeMiB does not exist!");
}

TEST_F(ConfigTest, PatternKeyTakesUnsignedNumbersOnly) {
    Config& config = open();
    for (const json& value : std::vector<json>{-1, 1.5, "4096", true, nullptr}) {
        EXPECT_THROW(config.set({{"volumes.0f1e.cowFileSizeMiB", value}}), std::invalid_argument) << value;
    }
    EXPECT_NO_THROW(config.set({{"volumes.0f1e.cowFileSizeMiB", 18446744073709551615U}}));
}

TEST_F(ConfigTest, KeysThatOnlyResembleThePatternAreRefused) {
    Config& config = open();
    for (const std::string& key :
         {std::string("volumes..cowFileSizeMiB"), std::string("volumes.cowFileSizeMiB"),
          std::string("xvolumes.a.cowFileSizeMiB"), std::string("volumes.a.cowFileSizeMiBs"),
          "volumes." + std::string(1'000'000, 'a') + ".cowFileSizeMiB"}) {
        EXPECT_THROW(config.set({{key, 4096U}}), std::invalid_argument) << key.substr(0, 40);
    }
}

TEST_F(ConfigTest, UnknownKeyCannotBeGot) {
    const Config& config = open();
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { (void)valueOf<bool>(config, "no.such.key"); }),
              "A configurable option with the key no.such.key does not exist!");
    EXPECT_THROW((void)valueOf<bool>(config, "log.lifetimeHours"), std::invalid_argument);
}

TEST_F(ConfigTest, UnknownKeyInTheFileStaysAndHasNoEffect) {
    Config& config = openWith(R"({ "somebody.elses": [1, 2], "log.lifetimeHours": 72 })");
    EXPECT_TRUE(record.lines().empty());
    config.set({{"log.lifetimeHours", 73}});
    EXPECT_EQ(stored(), (json{{"somebody.elses", {1, 2}}, {"log.lifetimeHours", 73}}));
}

TEST_F(ConfigTest, InvalidStoredValuesAreReportedAndReadAsDefaults) {
    const std::string content = R"({ "log.lifetimeHours": 8761, "holepunch.enabled": "yes",
                                     "autoupdate.channel": 7, "cache.timeoutMinutes": -1,
                                     "transports.iscsi.timeoutSeconds": 1e300 })";
    const Config& config = openWith(content);
    for (const char* pair : {"{\"log.lifetimeHours\" : 8761}", "{\"holepunch.enabled\" : \"yes\"}",
                             "{\"autoupdate.channel\" : 7}", "{\"cache.timeoutMinutes\" : -1}",
                             "{\"transports.iscsi.timeoutSeconds\" : 1e+300}"}) {
        EXPECT_TRUE(record.has(1, std::string("Found invalid agent configuration option ") + pair)) << pair;
    }
    EXPECT_EQ(record.lines().size(), 5U);
    EXPECT_EQ(valueOf<unsigned long>(config, "log.lifetimeHours"), 168U);
    EXPECT_FALSE(valueOf<bool>(config, "holepunch.enabled"));
    EXPECT_EQ(valueOf<std::string>(config, "autoupdate.channel"), "stable");
    EXPECT_EQ(valueOf<unsigned long>(config, "cache.timeoutMinutes"), 15U);
    EXPECT_EQ(valueOf<unsigned long>(config, "transports.iscsi.timeoutSeconds"), 60U);
    EXPECT_EQ(test::readFile(path), content);
}

TEST_F(ConfigTest, GoodValueTakesThePlaceOfAnInvalidOne) {
    Config& config = openWith(R"({ "log.lifetimeHours": 8761 })");
    config.set({{"log.lifetimeHours", 100}});
    EXPECT_EQ(valueOf<unsigned long>(config, "log.lifetimeHours"), 100U);
}

} // namespace
} // namespace agent
