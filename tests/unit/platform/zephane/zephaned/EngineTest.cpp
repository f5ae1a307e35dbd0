#include "zephane/zephaned/Engine.h"

#include "support/TestDirectory.h"
#include "support/Waiting.h"
#include "zephane/nbd/NbdImage.h"
#include "zephane/zephaned/EngineConnection.h"
#include "zephane/zephaned/Program.h"
#include "zephane/zephaned/Refusal.h"

#include <gtest/gtest.h>

#include <asio/co_spawn.hpp>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/use_future.hpp>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <thread>

namespace zephane {
namespace {

using agent::test::eventually;

class EngineTest : public ::testing::Test {
protected:
    ~EngineTest() override {
        work.reset();
        thread.join();
    }

    std::shared_ptr<Engine> start(std::vector<std::string> arguments,
                                  const std::string& program = findProgram("nbdkit")) {
        return Engine::start(context.get_executor(), {program, std::move(arguments), path("socket")}, "image",
                             log);
    }
    /// Waits until the engine accepts connections. Returns 0, or the code with which it refuses.
    int connect(const Engine& engine, std::chrono::milliseconds patience = std::chrono::seconds{20}) {
        const auto deadline = std::chrono::steady_clock::now() + patience;
        return asio::co_spawn(context, codeOfConnecting(engine, deadline), asio::use_future).get();
    }
    [[nodiscard]] std::string path(const std::string& name) const { return (directory / name).str(); }
    [[nodiscard]] std::string logged() const { return agent::test::readFile(path("log")); }
    bool says(const std::string& text) {
        return eventually([&] { return logged().find(text) != std::string::npos; });
    }
    /// A program that is run in place of nbdkit.
    [[nodiscard]] std::string script(const std::string& text) const {
        agent::test::writeFile(path("script"), "#!/bin/sh\n" + text);
        ::chmod(path("script").c_str(), 0700);
        return path("script");
    }

private:
    static asio::awaitable<int> codeOfConnecting(const Engine& engine,
                                                 std::chrono::steady_clock::time_point deadline) {
        try {
            co_await connectTo(engine, deadline);
            co_return 0;
        } catch (const Refusal& refusal) {
            co_return refusal.code;
        }
    }

    agent::test::TestDirectory directory;
    os::FileDescriptor file{::open(path("log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)};
    Log log{file.get()};
    asio::io_context context;
    asio::executor_work_guard<asio::io_context::executor_type> work{context.get_executor()};
    std::thread thread{[this] { context.run(); }};
};

TEST_F(EngineTest, ServesUntilItIsStopped) {
    const auto engine = start({"memory", "1M"});
    ASSERT_EQ(connect(*engine), 0);
    EXPECT_EQ(NbdImage(engine->socket()).size(), 1U << 20U);
    EXPECT_FALSE(engine->hasEnded());
    engine->stop();
    engine->stop();
    EXPECT_TRUE(eventually([&] { return engine->hasEnded(); }));
    EXPECT_TRUE(eventually([&] { return !std::filesystem::exists(engine->socket()); }));
    EXPECT_EQ(logged().find("by itself"), std::string::npos);
}

TEST_F(EngineTest, EndsWithWhatItSays) {
    const auto engine = start({"file", "file=/nowhere/image"});
    EXPECT_EQ(connect(*engine), -EIO);
    EXPECT_TRUE(says("warning: image: nbdkit: error"));
    EXPECT_TRUE(says("error: image: nbdkit has ended by itself, with exit status 1"));
    EXPECT_TRUE(engine->hasEnded());
}

TEST_F(EngineTest, IsKilledWhenItDoesNotEnd) {
    const auto engine = start({}, script("trap '' TERM\necho begun\nwhile :; do sleep 0.1; done\n"));
    ASSERT_TRUE(says("begun"));
    EXPECT_EQ(connect(*engine, std::chrono::milliseconds{100}), -EIO);
    engine->stop();
    EXPECT_TRUE(eventually([&] { return engine->hasEnded(); }));
    EXPECT_TRUE(says("nbdkit doesn't end and is killed"));
}

TEST_F(EngineTest, HasNothingOfOursButItsOutput) {
    ::setenv("SECRET_OF_OURS", "hidden", 1);          // NOLINT(concurrency-mt-unsafe): nobody reads it
    const int leaked = ::open("/dev/null", O_RDONLY); // NOLINT(android-cloexec-open): as a library would
    const auto engine = start({}, script("ls /proc/self/fd | tr '\\n' ' '; echo; env; echo done\n"));
    EXPECT_TRUE(says("done"));
    EXPECT_TRUE(says("image: 0 1 2 3 \n")); // and the directory that is listed
    EXPECT_EQ(logged().find("hidden"), std::string::npos);
    ::close(leaked);
}

TEST_F(EngineTest, CanNotFillTheLog) {
    const auto engine = start({}, script("i=0; while [ $i -lt 1000 ]; do echo $i; i=$((i+1)); done\n"));
    EXPECT_TRUE(says("ended by itself"));
    EXPECT_LT(logged().size(), 2000U);
}

TEST_F(EngineTest, NeedsAProgram) {
    const auto engine = start({}, path("none"));
    EXPECT_EQ(connect(*engine), -EIO);
    EXPECT_TRUE(says("exit status 127"));
}

} // namespace
} // namespace zephane
