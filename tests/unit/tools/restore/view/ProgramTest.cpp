#include "tools/restore/view/Program.h"

#include "tools/restore/view/ViewDirectory.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <unistd.h>

namespace restore::view {
namespace {

using std::chrono::milliseconds;

TEST(Program, WhatIsPrintedAndHowItEndedIsTold) {
    const Outcome outcome =
        runProgram({.command = {"sh", "-c", "echo out; echo err >&2; exit 7"}}, milliseconds(60'000));
    EXPECT_EQ(outcome.status, 7);
    EXPECT_EQ(outcome.output, "out\nerr\n");
}

TEST(Program, EndByASignalIsToldAsTheShellDoes) {
    EXPECT_EQ(runProgram({.command = {"sh", "-c", "kill -TERM $$"}}, std::nullopt).status, 128 + SIGTERM);
}

TEST(Program, OneThatIsMissingIsToldApart) {
    EXPECT_THROW(runProgram({.command = {"there-is-no-such-program"}}, std::nullopt), ProgramMissing);
}

TEST(Program, OneThatTakesTooLongIsKilled) {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_THROW(runProgram({.command = {"sleep", "1000"}}, milliseconds(50)), std::runtime_error);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(60));
}

TEST(Program, OutputIsBounded) {
    const Outcome outcome = runProgram({.command = {"head", "-c", "1000000", "/dev/zero"}}, std::nullopt);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output.size(), 256U * 1024);
}

TEST(Program, EnvironmentIsGivenAndOursIsNot) {
    ::setenv("BEK_RESTORE_SECRET", "ours", 1);
    EXPECT_EQ(runProgram({.command = {"sh", "-c", "echo $BEK_RESTORE_SECRET"}}, std::nullopt).output, "\n");
    EXPECT_EQ(runProgram({.command = {"sh", "-c", "echo $BEK_RESTORE_SECRET"},
                          .environment = {{"BEK_RESTORE_SECRET", "given"}}},
                         std::nullopt)
                  .output,
              "given\n");
    ::unsetenv("BEK_RESTORE_SECRET");
}

TEST(Program, ItEndsWithItsOwner) {
    std::optional<ProcessId> process;
    {
        const Program program({.command = {"sleep", "1000"}});
        process = ProcessId::of(program.pid());
        ASSERT_TRUE(process);
        EXPECT_TRUE(process->isAlive());
    }
    EXPECT_FALSE(process->isAlive());
}

TEST(Program, ItCanBeWaitedFor) {
    Program program({.command = {"true"}});
    EXPECT_EQ(program.wait(milliseconds(60'000)), 0);
    EXPECT_EQ(program.status(), 0);
}

TEST(Program, LastWordsAreOneLine) {
    EXPECT_EQ(lastOutputLine("first\nlast\n\n  \n"), "last");
    EXPECT_EQ(lastOutputLine(""), "");
}

TEST(ProcessId, ALaterProcessOfTheNumberIsAnother) {
    ProcessId self = ProcessId::self();
    EXPECT_TRUE(self.isAlive());
    --self.begin;
    EXPECT_FALSE(self.isAlive());
    EXPECT_FALSE(ProcessId::of(0));
}

} // namespace
} // namespace restore::view
