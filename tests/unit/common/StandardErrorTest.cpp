#include "common/StandardError.h"

#include "os/FileDescriptor.h"
#include "support/ProcessState.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace agent {
namespace {

// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables): for a signal handler
volatile std::sig_atomic_t brokenPipes = 0;

void countBrokenPipe(int /*signal*/) {
    brokenPipes = brokenPipes + 1;
}

/// Replaces standard error by a pipe.
class StandardErrorTest : public testing::Test {
protected:
    StandardErrorTest() {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        reader = os::FileDescriptor(ends[0]);
        const os::FileDescriptor writer(ends[1]);
        EXPECT_EQ(::dup2(writer.get(), STDERR_FILENO), STDERR_FILENO);
        brokenPipes = 0;
    }
    ~StandardErrorTest() override { ::dup2(former.get(), STDERR_FILENO); }
    StandardErrorTest(const StandardErrorTest&) = delete;
    StandardErrorTest& operator=(const StandardErrorTest&) = delete;

    /// The contents of the pipe.
    std::string waiting() {
        EXPECT_EQ(::fcntl(reader.get(), F_SETFL, O_NONBLOCK), 0);
        std::string text(1 << 20, '\0');
        const ssize_t count = ::read(reader.get(), text.data(), text.size());
        return text.substr(0, count < 0 ? 0 : static_cast<std::size_t>(count));
    }

    /// Fills the pipe completely; returns how many bytes it took.
    static std::size_t fill() {
        const int flags = ::fcntl(STDERR_FILENO, F_GETFL);
        EXPECT_EQ(::fcntl(STDERR_FILENO, F_SETFL, flags | O_NONBLOCK), 0);
        std::size_t total = 0;
        while (::write(STDERR_FILENO, "x", 1) == 1) {
            ++total;
        }
        EXPECT_EQ(::fcntl(STDERR_FILENO, F_SETFL, flags), 0);
        return total;
    }

    os::FileDescriptor reader;

private:
    const os::FileDescriptor former{::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)};
};

TEST_F(StandardErrorTest, TextGoesThereAsItStands) {
    writeStandardError("one\n");
    writeStandardError("");
    writeStandardError("two\n");
    EXPECT_EQ(waiting(), "one\ntwo\n");
}

TEST_F(StandardErrorTest, ReaderThatHasGoneIsNoSignal) {
    const test::ScopedDisposition counting(SIGPIPE, &countBrokenPipe);
    reader.reset();
    writeStandardError("one\n");
    writeStandardError("two\n");
    EXPECT_EQ(brokenPipes, 0);
}

TEST_F(StandardErrorTest, TextThatThereIsNoRoomForIsLost) {
    const std::size_t size = fill();
    writeStandardError("one\n");
    EXPECT_EQ(waiting(), std::string(size, 'x'));
    writeStandardError("two\n");
    EXPECT_EQ(waiting(), "two\n");
}

TEST_F(StandardErrorTest, TextIsCutToWhatFitsAtOnce) {
    writeStandardError(std::string(100'000, 'x'));
    EXPECT_EQ(waiting(), std::string(4096, 'x'));
}

TEST_F(StandardErrorTest, ClosedDescriptorIsNoReasonToFail) {
    ASSERT_EQ(::close(STDERR_FILENO), 0); // NOLINT(resources): it is put back at the end of the test
    EXPECT_NO_THROW(writeStandardError("one\n"));
}

} // namespace
} // namespace agent
