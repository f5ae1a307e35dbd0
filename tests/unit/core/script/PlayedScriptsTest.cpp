#include "common/PosixError.h"
#include "core/script/Quiesce.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace agent::core::script {
namespace {

using info::level::error;
using std::chrono::steady_clock;
using test::RecordingLogger;
using testing::ElementsAre;

/// Plays back scripted output: each readAvailable() returns one chunk; then the output ends.
class PlayedStream : public ICommandStream {
public:
    struct Play {
        std::vector<std::string> chunks;
        int failure = 0;   ///< errno of the PosixError after the last chunk, if not 0
        bool late = false; ///< time out after the last chunk
        std::vector<std::int64_t> asked;
        bool destroyed = false;
    };

    explicit PlayedStream(Play& play) : play(play) {}
    PlayedStream(const PlayedStream&) = delete;
    PlayedStream& operator=(const PlayedStream&) = delete;
    ~PlayedStream() override { play.destroyed = true; }

    bool waitForOutput(std::int64_t& remaining) override {
        play.asked.push_back(remaining);
        remaining -= std::min<std::int64_t>(remaining, 1000);
        return !play.late || next < play.chunks.size();
    }
    bool readChar(char* byte) override {
        *byte = 0;
        return false;
    }
    bool readAvailable(std::string& out) override {
        EXPECT_EQ(out, "");
        if (next < play.chunks.size()) {
            out = play.chunks[next++];
            return true;
        }
        if (play.failure != 0) {
            throw PosixError("read failed!", play.failure);
        }
        return false;
    }
    int wait() override { return 0; }
    void kill() override {}
    [[nodiscard]] bool isEof() const override { return false; }
    [[nodiscard]] bool isReaped() const override { return false; }
    [[nodiscard]] bool hasExited() const override { return false; }

private:
    Play& play;
    std::size_t next = 0;
};

/// Returns a played stream, throws, or returns null.
class PlayedUtility : public ICommandUtility {
public:
    std::unique_ptr<ICommandStream> createCommandStream(const std::string& command,
                                                        const std::string& directory,
                                                        bool killOnDestroy) override {
        EXPECT_EQ(command, "exec /bin/true PRE");
        EXPECT_EQ(directory, "");
        EXPECT_TRUE(killOnDestroy);
        if (toThrow) {
            toThrow();
        }
        return none ? nullptr : std::make_unique<PlayedStream>(play);
    }

    PlayedStream::Play play;
    void (*toThrow)() = nullptr;
    bool none = false;
};

/// A log on a disk so slow that the first line of output takes longer than the script's timeout.
class SlowLog {
public:
    int outputs = 0;
    std::string last;
    info::Logger logger{[this](const std::string& message, int /*level*/, info::LogTime /*time*/) {
        last = message.substr(0, message.size() - 1);
        if (last == "/bin/true: y" && outputs++ == 0) {
            std::this_thread::sleep_until(steady_clock::now() + std::chrono::milliseconds(1100));
        }
    }};
};

class PlayedScripts : public testing::Test {
protected:
    void run(std::uint32_t timeoutSeconds = 20) { quiesce.runScript("/bin/true", timeoutSeconds, true); }

    /// Runs a script that can't be started; returns the text of the logic_error.
    std::string failure() {
        try {
            run();
        } catch (const std::logic_error& error) {
            return error.what();
        }
        return "nothing thrown";
    }

    static constexpr const char* begin =
        "The following PRE quiescing script command will be run: \"/bin/true PRE\"";
    static constexpr const char* done = "Done executing quiescing script '/bin/true'";
    static constexpr const char* notStarted =
        "Failed to construct command execution stream, command \"/bin/true PRE\" failed";

    RecordingLogger log;
    PlayedUtility utility;
    Quiesce quiesce{log.logger, utility};
};

TEST_F(PlayedScripts, EachChunkIsSplitIntoLines) {
    utility.play.chunks = {"o", "ne\ntwo\nthr", "ee\n", "rest"};
    run();
    EXPECT_THAT(log.lines(), ElementsAre(RecordingLogger::Line{info::level::info, begin},
                                         RecordingLogger::Line{info::level::info, "/bin/true: one"},
                                         RecordingLogger::Line{info::level::info, "/bin/true: two"},
                                         RecordingLogger::Line{info::level::info, "/bin/true: three"},
                                         RecordingLogger::Line{info::level::info, done}));
    EXPECT_TRUE(utility.play.destroyed);
}

TEST_F(PlayedScripts, OneTimeIsSpentByAllReads) {
    utility.play.chunks = {"a\n", "b\n"};
    run();
    EXPECT_THAT(utility.play.asked, ElementsAre(20'000'000, 19'999'000, 19'998'000));
}

TEST_F(PlayedScripts, LongestTimeIsNotCutOff) {
    run(0xffffffff);
    EXPECT_THAT(utility.play.asked, ElementsAre(4'294'967'295'000'000));
}

TEST_F(PlayedScripts, NoTimeStillReadsWhatIsWaiting) {
    utility.play.chunks = {"a\n", "b\n"};
    utility.play.late = true;
    run(0);
    EXPECT_THAT(utility.play.asked, ElementsAre(0, 0, 0));
    EXPECT_TRUE(log.has(info::level::info, "/bin/true: b"));
    EXPECT_TRUE(log.has(info::level::info, done));
}

TEST_F(PlayedScripts, LinesThatComeFasterThanTheyCanBeLoggedEndWithTheTime) {
    std::string flood;
    for (std::size_t line = 0; line < 100'000; ++line) {
        flood += "y\n";
    }
    SlowLog slow;
    Quiesce flooded(slow.logger, utility);
    utility.play.chunks = {flood, flood};
    flooded.runScript("/bin/true", 0, true);
    EXPECT_LE(slow.outputs, 1);
    EXPECT_EQ(slow.last, done);
}

TEST_F(PlayedScripts, FailureOfTheStreamPasses) {
    utility.play.chunks = {"a\n"};
    utility.play.failure = EIO;
    EXPECT_THROW(run(), PosixError);
    EXPECT_TRUE(utility.play.destroyed);
    EXPECT_TRUE(log.has(info::level::info, "/bin/true: a"));
    EXPECT_FALSE(log.has(info::level::info, done));
}

TEST_F(PlayedScripts, FailureToStartIsLoggedAndALogicError) {
    utility.toThrow = [] { throw PosixError("fork failed!", EAGAIN); };
    EXPECT_EQ(failure(), notStarted);
    EXPECT_THAT(log.lines(),
                ElementsAre(RecordingLogger::Line{info::level::info, begin},
                            RecordingLogger::Line{error, "fork failed!: Resource temporarily unavailable | "
                                                         "ERROR(Posix) : 11 (0xb)"},
                            RecordingLogger::Line{error, notStarted}));
}

TEST_F(PlayedScripts, NoStreamIsALogicError) {
    utility.none = true;
    EXPECT_EQ(failure(), notStarted);
    EXPECT_EQ(log.count(error, notStarted), 1);
}

TEST_F(PlayedScripts, OtherExceptionsPass) {
    utility.toThrow = [] { throw 7; };
    EXPECT_THROW(run(), int);
    EXPECT_FALSE(log.has(error, notStarted));
}

} // namespace
} // namespace agent::core::script
