#pragma once

#include "core/backup/BackupSignalHandlers.h"
#include "core/backup/BackupThread.h"
#include "support/FakeBackup.h"
#include "support/ProcessState.h"
#include "support/RecordingLogger.h"
#include "support/Waiting.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstring>
#include <functional>
#include <map>
#include <sstream>
#include <sys/syscall.h>
#include <unistd.h>

namespace agent::core::backup {

using test::FakeBackup;
using Line = test::RecordingLogger::Line;

inline constexpr std::array caught = {SIGFPE,  SIGSEGV, SIGILL,  SIGABRT,   SIGBUS,
                                      SIGPIPE, SIGSYS,  SIGALRM, SIGSTKFLT, SIGIO};
inline constexpr std::array changed = {SIGFPE, SIGSEGV, SIGILL,    SIGABRT, SIGBUS, SIGPIPE,
                                       SIGSYS, SIGALRM, SIGSTKFLT, SIGIO,   SIGCHLD};

inline pid_t threadId() {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

inline void sendTo(pid_t thread, int signal) {
    ASSERT_EQ(::syscall(SYS_tgkill, ::getpid(), thread, signal), 0);
}

inline std::string nameOfThisThread() {
    std::ostringstream text;
    text << std::this_thread::get_id();
    return text.str();
}

inline bool isCaught(int signal) {
    return test::disposition(signal).sa_handler != SIG_DFL && test::disposition(signal).sa_handler != SIG_IGN;
}

/// The handler and flags of each signal that a run changes, to compare two moments.
inline std::map<int, std::pair<sighandler_t, int>> dispositions() {
    std::map<int, std::pair<sighandler_t, int>> all;
    for (const int signal : changed) {
        const struct ::sigaction current = test::disposition(signal);
        all[signal] = {current.sa_handler, current.sa_flags};
    }
    return all;
}

class BackupSignals : public testing::Test {
protected:
    /// Starts with the default dispositions, since the sanitizers install handlers of their own.
    BackupSignals() {
        for (const int signal : caught) {
            standard.push_back(std::make_unique<test::ScopedDisposition>(signal, SIG_DFL));
        }
    }

    std::shared_ptr<FakeBackup> run(std::function<void()> body) {
        auto backup = std::make_shared<FakeBackup>("backup", std::move(body));
        BackupThread thread(log.logger);
        thread.start(backup, nullptr);
        EXPECT_EQ(thread.wait(), nullptr);
        return backup;
    }

    /// Sends the signal to the thread that runs the backup, and waits there for the cancel that it causes.
    std::shared_ptr<FakeBackup> runAndSend(int signal) {
        std::shared_ptr<FakeBackup> backup;
        backup = std::make_shared<FakeBackup>("backup", [&, signal] {
            thread = nameOfThisThread();
            sendTo(threadId(), signal);
            EXPECT_TRUE(test::eventually([&] { return backup->isCancelled(); }));
        });
        BackupThread(log.logger).start(backup, nullptr); // destroyed here, after the run
        EXPECT_EQ(backup->cancels, 1);
        return backup;
    }

    [[nodiscard]] std::vector<std::string> textsOf(int level) const {
        std::vector<std::string> texts;
        for (const Line& line : log.lines()) {
            if (line.level == level) {
                texts.push_back(line.text);
            }
        }
        return texts;
    }

    test::RecordingLogger log;
    std::string thread;
    std::vector<std::unique_ptr<test::ScopedDisposition>> standard;
};

} // namespace agent::core::backup
