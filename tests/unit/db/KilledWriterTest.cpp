#include "common/File.h"
#include "common/PosixError.h"
#include "os/FileDescriptor.h"
#include "unit/db/DataProviderFixture.h"
#include "unit/db/WriteStream.h"

#include <array>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <iostream>
#include <map>
#include <poll.h>
#include <random>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace agent::test {
namespace {

constexpr int runs = 300;
constexpr int creations = 40;

/// The writer process. The destructor kills it if it still runs.
class Writer {
public:
    Writer(const std::string& directory, std::uint64_t first) {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw PosixError("pipe2 failed", errno);
        }
        reports = os::FileDescriptor(ends[0]);
        const os::FileDescriptor writeEnd(ends[1]);
        const std::string number = std::to_string(first);
        const std::array<const char*, 4> arguments = {BEKD_DB_WRITER, directory.c_str(), number.c_str(),
                                                      nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
        const int result = posix_spawn(&pid, BEKD_DB_WRITER, &actions, nullptr,
                                       const_cast<char* const*>(arguments.data()), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (result != 0) {
            throw PosixError("posix_spawn failed", result);
        }
    }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;
    ~Writer() {
        if (pid > 0) {
            kill();
        }
    }

    void awaitFirstReport() const {
        pollfd waiting = {reports.get(), POLLIN, 0};
        ASSERT_EQ(::poll(&waiting, 1, 20000), 1) << "the writer wrote nothing";
    }

    /// False if the writer had already ended.
    bool kill() {
        int status = 0;
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
        pid = -1;
        return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    }

    /// The number of the last reported write, or `before` if there is none. Reads until the pipe ends, so
    /// call it only after kill().
    [[nodiscard]] std::uint64_t lastReport(std::uint64_t before) const {
        std::uint64_t number = before;
        while (::read(reports.get(), &number, sizeof number) == sizeof number) {
        }
        return number;
    }

private:
    os::FileDescriptor reports;
    pid_t pid = -1;
};

/// The expected content of each slot of the file, and how many slots lost their content.
class Ledger {
public:
    void returned(std::uint64_t number) {
        contents[stream::slotOf(number)] = stream::expectedText(number);
        ++writes;
    }

    /// Compares every slot with the file, and then takes the file's contents as expected. The write
    /// `inFlight` may or may not have happened. If it deletes first, it may also have left the slot empty.
    void compare(RawDatabase& file, std::uint64_t inFlight) {
        for (std::uint64_t slot = 0; slot < stream::slotCount; ++slot) {
            if (stream::slotOf(slot) == slot) {
                compareSlot(slot, file.value(stream::readStatement(slot)), inFlight);
            }
        }
    }

    int writes = 0;
    int losses = 0;
    int interruptedReplacements = 0;

private:
    void compareSlot(std::uint64_t slot, const std::optional<std::string>& found, std::uint64_t inFlight) {
        const auto expected = contents.find(slot);
        const bool asBefore =
            expected == contents.end() ? stream::isUnwritten(found) : found == expected->second;
        if (asBefore) {
            return;
        }
        const bool touched = stream::slotOf(inFlight) == slot;
        const bool interrupted = touched && stream::deletesFirst(slot) && !found;
        interruptedReplacements += interrupted ? 1 : 0;
        losses += interrupted || (touched && found == stream::expectedText(inFlight)) ? 0 : 1;
        contents.erase(slot);
        if (!stream::isUnwritten(found)) {
            contents[slot] = *found;
        }
    }

    std::map<std::uint64_t, std::string> contents;
};

class KilledWriterTest : public DataProviderFixture {
protected:
    KilledWriterTest() { provider.validateProvider(); }

    /// Starts the writer, lets it write, kills it. Most kills happen during writes, some during the start.
    void runOnce() {
        Writer writer(directory.path(), next);
        if (random() % 10 != 0) {
            writer.awaitFirstReport();
        }
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 15000));
        ASSERT_TRUE(writer.kill()) << "the writer failed";
        const std::uint64_t last = writer.lastReport(next - 1);
        for (std::uint64_t number = next; number <= last; ++number) {
            ledger.returned(number);
        }
        hotJournals += file::exists(path() + "-journal") ? 1 : 0;
        RawDatabase database(path());
        ASSERT_EQ(database.value("PRAGMA integrity_check;"), "ok");
        ledger.compare(database, last + 1);
        next = last + 2;
    }

    std::mt19937 random{std::random_device{}()};
    Ledger ledger;
    std::uint64_t next = 1;
    int hotJournals = 0;
};

TEST_F(KilledWriterTest, LosesNothingThatWasReturned) {
    for (int run = 0; run < runs; ++run) {
        runOnce();
        ASSERT_FALSE(HasFatalFailure()) << "run " << run;
    }
    std::cout << "kill runs: " << runs << ", returned writes: " << ledger.writes
              << ", kills within a transaction: " << hotJournals
              << ", pairs cut short: " << ledger.interruptedReplacements << ", losses: " << ledger.losses
              << std::endl;
    RecordProperty("kill_runs", runs);
    RecordProperty("returned_writes", ledger.writes);
    RecordProperty("kills_within_a_transaction", hotJournals);
    RecordProperty("pairs_cut_short", ledger.interruptedReplacements);
    RecordProperty("losses", ledger.losses);
    EXPECT_EQ(ledger.losses, 0);
    EXPECT_GT(ledger.writes, runs);
    EXPECT_GT(hotJournals, 0);
    provider.validateProvider();
    EXPECT_EQ(provider.getVolumeUUIDs().size(), 3U);
}

TEST_F(KilledWriterTest, ADeathDuringTheCreationLeavesAUsableFile) {
    for (int run = 0; run < creations; ++run) {
        const TestDirectory fresh;
        Writer writer(fresh.path(), 1);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 8000));
        ASSERT_TRUE(writer.kill());
        db::DataProvider survivor(recorder.logger, generator, fresh.path());
        survivor.validateProvider();
        RawDatabase database(fresh / "agent.sqlite");
        EXPECT_EQ(database.value("PRAGMA integrity_check;"), "ok");
        EXPECT_EQ(database.value("PRAGMA user_version;"), "3");
        EXPECT_EQ(database.value("select count(*) from sqlite_master where name in "
                                 "('config', 'device', 'volumes', 'change_journal');"),
                  "4");
    }
}

class LedgerTest : public DataProviderFixture {
protected:
    LedgerTest() {
        provider.validateProvider();
        for (std::uint64_t number = 1; number <= 60; ++number) {
            stream::perform(provider, number);
            ledger.returned(number);
        }
    }

    int lossesAfter(const std::string& sql, std::uint64_t inFlight) {
        RawDatabase database(path());
        database.run(sql);
        ledger.compare(database, inFlight);
        return ledger.losses;
    }

    Ledger ledger;
};

TEST_F(LedgerTest, FindsNoLossInAWholeFile) {
    EXPECT_EQ(lossesAfter("select 1;", 61), 0);
}

TEST_F(LedgerTest, FindsALostRow) {
    EXPECT_EQ(lossesAfter("delete from volumes where volume_uuid = 'volume 1';", 61), 1);
}

TEST_F(LedgerTest, FindsALostValue) {
    EXPECT_EQ(lossesAfter("update change_journal set next_journal_id = next_journal_id - 30;", 61), 3);
}

TEST_F(LedgerTest, FindsALostDevice) {
    EXPECT_EQ(lossesAfter("delete from device;", 61), 1);
}

TEST_F(LedgerTest, FindsADoubledRow) {
    EXPECT_EQ(lossesAfter("insert into device select * from device;", 62), 1);
}

TEST_F(LedgerTest, AllowsWhatTheWriteInFlightMayLeave) {
    EXPECT_EQ(lossesAfter("delete from device;", 62), 0);
    EXPECT_EQ(ledger.interruptedReplacements, 1);
}

} // namespace
} // namespace agent::test
