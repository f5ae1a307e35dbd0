#include "ordak/TolvuBackupAgent.h"

#include "common/config/JSONConfigDataProvider.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"
#include "support/TestDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace agent::ordak {
namespace {

using test::messageOf;
using testing::ElementsAre;

/// Records what it is asked to do, and fails where the test says so.
class Service : public IService {
public:
    Service(std::string name, std::vector<std::string>& events) : name(std::move(name)), events(events) {}

    void start() override {
        if (failsToStart) {
            throw std::runtime_error(name + " can't start");
        }
        events.push_back("start " + name);
    }
    void stop() override {
        events.push_back("stop " + name);
        if (failsToStop) {
            throw std::runtime_error(name + " can't stop");
        }
    }

    bool failsToStart = false;
    bool failsToStop = false;

private:
    std::string name;
    std::vector<std::string>& events;
};

class Migrator : public db::IDataMigrator {
public:
    bool migrate(Config& given) override {
        config = &given;
        return result;
    }
    Config* config = nullptr;
    bool result = true;
};

class TolvuBackupAgentTest : public testing::Test {
protected:
    test::RecordingLogger record;
    test::TestDirectory directory;
    JSONConfigDataProvider provider{directory / "config.json"};
    Config config{record.logger, provider, {}};
    Migrator migrator;
    std::vector<std::string> events;
    Service engine{"engine", events};
    Service http{"http", events};
    Service updates{"updates", events};
    std::unique_ptr<TolvuBackupAgent> daemon = std::make_unique<TolvuBackupAgent>(
        record.logger, migrator, config, std::vector<IService*>{&engine, &http, &updates});
};

using Lines = std::vector<test::RecordingLogger::Line>;

TEST_F(TolvuBackupAgentTest, StartsInOrderAndStopsNewestFirst) {
    daemon->start();
    EXPECT_EQ(migrator.config, &config);
    daemon->stop();
    EXPECT_THAT(events, ElementsAre("start engine", "start http", "start updates", "stop updates",
                                    "stop http", "stop engine"));
    daemon.reset();
    EXPECT_EQ(record.lines(), (Lines{{4, "Agent daemon created"},
                                     {4, "Agent daemon starting"},
                                     {3, "Agent daemon started"},
                                     {4, "Agent daemon stopping"},
                                     {3, "Agent daemon stopped"},
                                     {4, "Agent daemon destroyed"}}));
}

TEST_F(TolvuBackupAgentTest, StartAndStopDoNotRepeat) {
    EXPECT_EQ(messageOf<std::runtime_error>([&] { daemon->stop(); }), "Agent daemon not started yet");
    daemon->start();
    EXPECT_EQ(messageOf<std::runtime_error>([&] { daemon->start(); }), "Agent daemon already started");
    daemon->stop();
    EXPECT_EQ(messageOf<std::runtime_error>([&] { daemon->stop(); }), "Agent daemon not started yet");
    EXPECT_NO_THROW(daemon->start());
}

TEST_F(TolvuBackupAgentTest, FailedMigrationStopsNothing) {
    migrator.result = false;
    daemon->start();
    EXPECT_TRUE(record.has(1, "Failed to migrate legacy database!"));
    EXPECT_THAT(events, ElementsAre("start engine", "start http", "start updates"));
}

TEST_F(TolvuBackupAgentTest, FailedStartStopsWhatRunsOldestFirst) {
    updates.failsToStart = true;
    EXPECT_EQ(messageOf<std::runtime_error>([&] { daemon->start(); }), "updates can't start");
    EXPECT_THAT(events, ElementsAre("start engine", "start http", "stop engine", "stop http"));
    EXPECT_EQ(messageOf<std::runtime_error>([&] { daemon->stop(); }), "Agent daemon not started yet");
}

TEST_F(TolvuBackupAgentTest, FailureToStopDoesNotHideTheFailureToStart) {
    updates.failsToStart = true;
    engine.failsToStop = true;
    EXPECT_EQ(messageOf<std::runtime_error>([&] { daemon->start(); }), "updates can't start");
    EXPECT_THAT(events, ElementsAre("start engine", "start http", "stop engine", "stop http"));
}

TEST_F(TolvuBackupAgentTest, FailureToStopIsReported) {
    daemon->start();
    http.failsToStop = true;
    EXPECT_EQ(messageOf<std::runtime_error>([&] { daemon->stop(); }), "http can't stop");
    events.clear();
    daemon->stop(); // stops the remaining services
    EXPECT_THAT(events, ElementsAre("stop engine"));
}

TEST_F(TolvuBackupAgentTest, StartedAgentThatGoesStopsItsServices) {
    daemon->start();
    events.clear();
    daemon.reset();
    EXPECT_THAT(events, ElementsAre("stop engine", "stop http", "stop updates"));
}

} // namespace
} // namespace agent::ordak
