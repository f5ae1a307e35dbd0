#include "Process.h"

#include "ExpectedError.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace tolvubd {
namespace {

/// A child process that sleeps until the object is destroyed.
class Child {
public:
    Child() : id(::fork()) {
        if (id == 0) {
            for (;;) {
                ::pause();
            }
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() { end(); }

    [[nodiscard]] pid_t number() const { return id; }
    void end() {
        if (id > 0) {
            ::kill(id, SIGKILL);
            ::waitpid(id, nullptr, 0);
            id = -1;
        }
    }

private:
    pid_t id;
};

TEST(Process, IsToldByItsNumberAndItsStart) {
    const Child child;
    const Process process(child.number());
    EXPECT_EQ(process.name(), Process(child.number()).name());
    EXPECT_EQ(process.name().number, child.number());
    EXPECT_GE(process.name().started, Process(thisProcess()).name().started);
    EXPECT_EQ(process.parent(), thisProcess());
    EXPECT_EQ(process.threads(), std::vector{child.number()});
    const std::vector<pid_t> all = processes();
    EXPECT_NE(std::ranges::find(all, child.number()), all.end());
}

TEST(Process, StopsAndGoesOn) {
    const Child child;
    const Process process(child.number());
    while (process.callOf(child.number()).number != SYS_pause) {
        ::usleep(1000);
    }
    ASSERT_TRUE(process.send(SIGSTOP));
    ASSERT_EQ(::waitpid(child.number(), nullptr, WUNTRACED), child.number());
    EXPECT_EQ(process.state(), 'T');
    EXPECT_EQ(process.stateOf(child.number()), 'T');
    EXPECT_EQ(process.callOf(child.number()).number, SYS_pause);
    ASSERT_TRUE(process.send(SIGCONT));
    ASSERT_EQ(::waitpid(child.number(), nullptr, WCONTINUED), child.number());
    EXPECT_NE(process.state(), 'T');
}

TEST(Process, ThatIsGoneIsNeverAnother) {
    Child child;
    const pid_t number = child.number();
    const Process process(number);
    child.end();
    EXPECT_EQ(process.state(), 0);
    EXPECT_EQ(process.stateOf(number), 0);
    EXPECT_FALSE(process.send(SIGCONT));
    EXPECT_THROW(static_cast<void>(process.name()), std::system_error);
    EXPECT_EQ(test::errorOf([&] { const Process gone(number); }), ENOENT);
}

TEST(Process, ShowsItsDescriptorsOfADevice) {
    const os::FileDescriptor null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const Process process(thisProcess());
    const std::vector<std::uint64_t> found = process.descriptorsOf(S_IFCHR, makedev(1, 3));
    EXPECT_NE(std::ranges::find(found, static_cast<std::uint64_t>(null.get())), found.end());
    EXPECT_TRUE(process.descriptorsOf(S_IFBLK, makedev(1, 3)).empty());
    EXPECT_TRUE(process.descriptorsOf(S_IFCHR, makedev(1, 9999)).empty());
}

TEST(ProcessLine, BeginsBehindANameThatMayHoldAnything) {
    std::string line = "17 (a) R 5 (b) ) T";
    for (int word = 1; word <= 19; ++word) {
        line += " " + std::to_string(word);
    }
    const std::vector<std::string> words = parseStat(line);
    EXPECT_EQ(words.at(0), "T");
    EXPECT_EQ(words.at(1), "1");
    EXPECT_EQ(words.at(19), "19");
}

TEST(ProcessLine, IsRefusedWhenItIsCutOff) {
    for (const char* line : {"", "17", "17 (a", "17 (a)", "17 (a) T 3 4 5"}) {
        EXPECT_EQ(test::errorOf([&] { parseStat(line); }), ESRCH) << line;
    }
}

TEST(ProcessLine, NamesTheSystemCall) {
    EXPECT_EQ(parseSystemCall("0 0x4 0x7f54 0x21000 0x0 0x0 0x0 0x7ffe 0x7f54\n"), (SystemCall{0, 4}));
    EXPECT_EQ(parseSystemCall("202 0x7f5491 0x0\n"), (SystemCall{202, 0x7f5491}));
    for (const char* line : {"running\n", "-1 0x7ffe 0x7f54\n", "", "12"}) {
        EXPECT_EQ(parseSystemCall(line), SystemCall{}) << line;
    }
}

} // namespace
} // namespace tolvubd
