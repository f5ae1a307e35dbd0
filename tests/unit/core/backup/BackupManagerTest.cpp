#include "core/backup/BackupManager.h"

#include "common/Exceptions.h"
#include "support/FakeBackup.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

namespace agent::core::backup {
namespace {

using exception::bad_request;
using test::FakeBackup;
using test::messageOf;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;
using Line = test::RecordingLogger::Line;

class BackupManagerTest : public testing::Test {
protected:
    std::shared_ptr<FakeBackup> add(const std::string& id, bool active = true, bool finished = false) {
        auto backup = std::make_shared<FakeBackup>(id);
        backup->active = active;
        backup->finished = finished;
        manager.addBackup(backup);
        return backup;
    }

    std::unordered_map<std::string, std::uint32_t> states() {
        std::unordered_map<std::string, std::uint32_t> all;
        manager.getStatuses(all);
        return all;
    }

    /// The message with which a request is refused.
    template <typename Request>
    std::string refusal(Request request) {
        return messageOf<bad_request>(request);
    }

    test::RecordingLogger log;
    BackupManager manager{log.logger};
};

TEST_F(BackupManagerTest, ReachesTheBackupThatIsAskedFor) {
    const auto first = add("first");
    const auto second = add("second");
    second->elapsedSeconds = 7;
    BackupStatus status;
    manager.getStatus("second", status);
    EXPECT_EQ(status.elapsedSeconds, 7);
    manager.ping("first");
    EXPECT_EQ(first->pings, 1);
    EXPECT_EQ(second->pings, 0);
    manager.cancelBackup("second");
    EXPECT_EQ(first->cancels, 0);
    EXPECT_EQ(second->cancels, 1);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(BackupManagerTest, UnknownIDIsABadRequest) {
    add("known");
    BackupStatus status;
    const std::string expected = "A backup with ID unknown does not exist.";
    EXPECT_EQ(refusal([&] { manager.getStatus("unknown", status); }), expected);
    EXPECT_EQ(refusal([&] { manager.ping("unknown"); }), expected);
    EXPECT_EQ(refusal([&] { manager.cancelBackup("unknown"); }), expected);
}

TEST_F(BackupManagerTest, NullBackupIsRefused) {
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { manager.addBackup(nullptr); }),
              "BackupManager provided null backup object");
    EXPECT_THAT(states(), IsEmpty());
}

TEST_F(BackupManagerTest, SecondBackupOfOneIDIsRefused) {
    const auto first = add("same");
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { add("same", false); }),
              "Could not insert a backup object for backup with ID same into the backup map.");
    manager.ping("same");
    EXPECT_EQ(first->pings, 1); // still the first backup
}

TEST_F(BackupManagerTest, ListsOverallStates) {
    add("active");
    add("failed", false, false);
    add("finished", false, true);
    EXPECT_THAT(states(), UnorderedElementsAre(Pair("active", 0), Pair("failed", 1), Pair("finished", 3)));
}

TEST_F(BackupManagerTest, ListIsNotWrittenOverAnother) {
    add("twice");
    std::unordered_map<std::string, std::uint32_t> out{{"twice", 9}};
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { manager.getStatuses(out); }),
              "Could not insert a status object for backup with ID twice into the map given.");
    EXPECT_EQ(out["twice"], 9);
    EXPECT_NO_THROW(manager.ping("twice")); // the mutex has been released
}

/// The manager may remove any of the finished backups, so the test finds out which one it was.
TEST_F(BackupManagerTest, SixthBackupMakesOneThatHasEndedGo) {
    for (int i = 1; i <= 5; ++i) {
        add("ended-" + std::to_string(i), false, i % 2 == 0);
    }
    EXPECT_EQ(states().size(), 5U);
    EXPECT_THAT(log.lines(), IsEmpty());
    add("new");
    const auto left = states();
    EXPECT_EQ(left.size(), 5U);
    EXPECT_EQ(left.count("new"), 1U);
    std::string gone;
    for (int i = 1; i <= 5; ++i) {
        const std::string id = "ended-" + std::to_string(i);
        if (left.count(id) == 0) {
            gone = id;
        }
    }
    EXPECT_THAT(log.lines(),
                ElementsAre(Line{3, "BackupManager exceeds threshold of backups in memory..."},
                            Line{3, "BackupManager purging backup " + gone + " from memory..."}));
    BackupStatus status;
    EXPECT_EQ(refusal([&] { manager.getStatus(gone, status); }),
              "A backup with ID " + gone + " does not exist.");
}

TEST_F(BackupManagerTest, ActiveBackupsAreNeverForgotten) {
    for (int i = 1; i <= 7; ++i) {
        add("active-" + std::to_string(i));
    }
    EXPECT_EQ(states().size(), 7U);
    EXPECT_EQ(log.count(3, "BackupManager exceeds threshold of backups in memory..."), 2);
    EXPECT_FALSE(log.hasPart(3, "purging"));
}

TEST_F(BackupManagerTest, OnlyOneGoesAtATime) {
    std::vector<std::shared_ptr<FakeBackup>> backups;
    for (int i = 1; i <= 7; ++i) {
        backups.push_back(add("backup-" + std::to_string(i)));
    }
    for (const auto& backup : backups) {
        backup->active = false;
    }
    add("new");
    EXPECT_EQ(states().size(), 7U);
}

TEST_F(BackupManagerTest, ForgottenBackupLivesOnWhereItIsStillHeld) {
    const auto ended = add("ended", false);
    std::weak_ptr<FakeBackup> unheld = add("unheld", false);
    for (int i = 1; i <= 4; ++i) {
        add("active-" + std::to_string(i));
    }
    add("seventh");
    EXPECT_TRUE(unheld.expired());
    EXPECT_EQ(ended.use_count(), 1);
}

TEST_F(BackupManagerTest, SecondCancelIsABadRequest) {
    const auto backup = add("one");
    manager.cancelBackup("one");
    EXPECT_EQ(refusal([&] { manager.cancelBackup("one"); }), "Backup with ID one is already canceled");
    EXPECT_EQ(backup->cancels, 1);
    EXPECT_THAT(log.lines(), ElementsAre(Line{3, "Backup with ID one is already canceled"}));
}

TEST_F(BackupManagerTest, CancelOfAllLeavesFinishedAndCancelledOnesAlone) {
    const auto active = add("active");
    const auto failed = add("failed", false, false);
    const auto finished = add("finished", false, true);
    const auto cancelled = add("cancelled");
    cancelled->cancel();
    manager.cancelAllBackups();
    EXPECT_EQ(active->cancels, 1);
    EXPECT_EQ(failed->cancels, 1);
    EXPECT_EQ(finished->cancels, 0);
    EXPECT_EQ(cancelled->cancels, 1);
    EXPECT_THAT(log.lines(), ElementsAre(Line{3, "BackupManager canceling all backups..."},
                                         Line{3, "BackupManager canceled all backups"}));
}

TEST_F(BackupManagerTest, CancelOfNothingSaysNothing) {
    manager.cancelAllBackups();
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(BackupManagerTest, MayBeUsedFromAnyThread) {
    constexpr int backupsPerThread = 200;
    std::vector<std::thread> threads;
    for (int number = 0; number < 3; ++number) {
        threads.emplace_back([this, number] {
            for (int i = 0; i < backupsPerThread; ++i) {
                const std::string id = std::to_string(number) + "-" + std::to_string(i);
                const auto backup = add(id);
                BackupStatus status;
                manager.getStatus(id, status);
                manager.ping(id);
                manager.cancelBackup(id);
                (void)states();
                EXPECT_EQ(backup->pings, 1);
                backup->active = false;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    // Each insertion removes finished backups, except if three other insertions are in progress.
    EXPECT_LT(states().size(), 10U);
}

} // namespace
} // namespace agent::core::backup
