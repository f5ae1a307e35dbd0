#include "unit/core/backup/BackupSignalsFixture.h"

#include <gmock/gmock.h>

#include <sys/mman.h>
#include <sys/resource.h>

namespace agent::core::backup {
namespace {

using testing::KilledBySignal;

/// Signals that end the process, tested in a child process that logs to standard error.
class BackupSignalsDeathTest : public testing::Test {
protected:
    BackupSignalsDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    /// Runs a backup in a process that leaves no core file.
    static void run(std::function<void()> body) {
        const ::rlimit none{0, 0};
        ::setrlimit(RLIMIT_CORE, &none);
        info::Logger logger([](const std::string& message, int, info::LogTime) {
            (void)!::write(STDERR_FILENO, message.data(), message.size());
        });
        BackupThread thread(logger);
        thread.start(std::make_shared<FakeBackup>("backup", std::move(body)), nullptr);
        thread.wait();
        ::_exit(0);
    }

    static void writeToUnwritableMemory() {
        void* const page = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        *static_cast<volatile int*>(page) = 1;
    }
};

TEST_F(BackupSignalsDeathTest, SecondBrokenPipeEndsTheProcess) {
    EXPECT_EXIT(run([] {
                    ::raise(SIGPIPE);
                    (void)!::write(STDERR_FILENO, "between\n", 8);
                    ::raise(SIGPIPE);
                    (void)!::write(STDERR_FILENO, "after\n", 6);
                }),
                KilledBySignal(SIGPIPE), "Broken pipe during backup. TID: [^\n]*\nbetween\n$");
}

TEST_F(BackupSignalsDeathTest, RealFaultIsLoggedAndHappensAgain) {
    EXPECT_EXIT(run(&writeToUnwritableMemory), KilledBySignal(SIGSEGV),
                "Backup thread - Segmentation fault \\(11\\)\n(TID: [^\n]* - [^\n]*\n)+$");
}

TEST_F(BackupSignalsDeathTest, AbortIsLoggedAndEndsTheProcess) {
    EXPECT_EXIT(run(&::abort), KilledBySignal(SIGABRT),
                "Backup thread - Aborted \\(6\\)\n(TID: [^\n]* - [^\n]*\n)+$");
}

} // namespace
} // namespace agent::core::backup
