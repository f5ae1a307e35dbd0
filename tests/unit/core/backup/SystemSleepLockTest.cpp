#include "core/backup/SystemSleepLock.h"

#include "core/script/UnixCommandStream.h"
#include "support/MessageBus.h"
#include "support/ProcessState.h"
#include "support/RecordingLogger.h"
#include "support/Waiting.h"

#include <dbus/dbus.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace agent::core::backup {
namespace {

using info::level::debug;
using info::level::warning;
using test::busSocket;
using test::RecordingLogger;
using testing::ElementsAre;
using testing::StartsWith;

const testing::Environment* const environment = testing::AddGlobalTestEnvironment(new test::BusAddress);

/// A login manager that replies to each call with what `answer` makes of it, or not at all if that is null.
class LoginManagerStub {
public:
    using Answer = std::function<::DBusMessage*(::DBusMessage*)>;

    explicit LoginManagerStub(Answer answer) : answer(std::move(answer)), connection(connect()) {
        if (dbus_bus_request_name(connection, "org.freedesktop.login1", 0, nullptr) !=
            DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
            throw std::runtime_error("the bus refuses the name");
        }
        thread = std::thread([this] { serve(); });
    }
    LoginManagerStub(const LoginManagerStub&) = delete;
    LoginManagerStub& operator=(const LoginManagerStub&) = delete;
    ~LoginManagerStub() {
        stopping = true;
        thread.join();
        dbus_connection_close(connection);
        dbus_connection_unref(connection);
    }

    /// The requests so far. Read them only after the call has returned.
    std::vector<std::string> asked;

private:
    static ::DBusConnection* connect() {
        dbus_connection_set_change_sigpipe(FALSE);
        ::DBusConnection* connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
        if (connection == nullptr) {
            throw std::runtime_error("no bus");
        }
        dbus_connection_set_exit_on_disconnect(connection, FALSE);
        return connection;
    }

    void serve() {
        while (!stopping && dbus_connection_read_write(connection, 20) != 0) {
            while (::DBusMessage* call = dbus_connection_pop_message(connection)) {
                if (dbus_message_is_method_call(call, "org.freedesktop.login1.Manager", "Inhibit") != 0) {
                    reply(call);
                }
                dbus_message_unref(call);
            }
        }
    }

    void reply(::DBusMessage* call) {
        const char* what = "";
        const char* who = "";
        const char* why = "";
        const char* mode = "";
        dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &what, DBUS_TYPE_STRING, &who,
                              DBUS_TYPE_STRING, &why, DBUS_TYPE_STRING, &mode, DBUS_TYPE_INVALID);
        asked = {dbus_message_get_path(call), what, who, why, mode};
        if (::DBusMessage* message = answer(call)) {
            dbus_connection_send(connection, message, nullptr);
            dbus_connection_flush(connection);
            dbus_message_unref(message);
        }
    }

    Answer answer;
    std::atomic<bool> stopping = false;
    ::DBusConnection* connection;
    std::thread thread;
};

class SleepLock : public testing::Test {
protected:
    /// In the constructor, since SetUp() runs after a derived fixture has started its bus.
    SleepLock() { ::unlink(busSocket.c_str()); }

    /// Makes a lock that fails, and destroys it. Returns the warning of the constructor; checks the
    /// destructor's warning and that no descriptor leaks.
    std::string warningOfFailedLock() {
        const std::size_t descriptors = test::openDescriptors();
        {
            const SystemSleepLock lock(log.logger);
        }
        EXPECT_EQ(test::openDescriptors(), descriptors);
        const auto lines = log.lines();
        if (lines.size() != 2) {
            ADD_FAILURE() << lines.size() << " lines";
            return {};
        }
        EXPECT_EQ(lines[0].level, warning);
        EXPECT_EQ(lines[1], (RecordingLogger::Line{warning, "Could not allow sleep"}));
        return lines[0].text;
    }

    RecordingLogger log;
};

TEST_F(SleepLock, WithoutABusNothingIsHeld) {
    EXPECT_EQ(warningOfFailedLock(), "Could not prevent system sleep: Failed to connect to socket " +
                                         busSocket + ": No such file or directory");
}

TEST_F(SleepLock, WithoutALoginManagerNothingIsHeld) {
    const test::MessageBus bus;
    EXPECT_THAT(
        warningOfFailedLock(),
        StartsWith("Could not prevent system sleep: The name org.freedesktop.login1 was not provided"));
}

TEST_F(SleepLock, RefusalIsLogged) {
    const test::MessageBus bus;
    const LoginManagerStub loginManager([](::DBusMessage* call) {
        return dbus_message_new_error(call, DBUS_ERROR_ACCESS_DENIED, "Permission denied by the test");
    });
    EXPECT_EQ(warningOfFailedLock(), "Could not prevent system sleep: Permission denied by the test");
}

TEST_F(SleepLock, ReplyWithoutADescriptorHoldsNothing) {
    const test::MessageBus bus;
    const LoginManagerStub loginManager([](::DBusMessage* call) {
        ::DBusMessage* message = dbus_message_new_method_return(call);
        const char* text = "no descriptor";
        dbus_message_append_args(message, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
        return message;
    });
    EXPECT_THAT(warningOfFailedLock(), StartsWith("Could not prevent system sleep: Argument 0 is specified"));
}

TEST_F(SleepLock, EmptyReplyHoldsNothing) {
    const test::MessageBus bus;
    const LoginManagerStub loginManager(
        [](::DBusMessage* call) { return dbus_message_new_method_return(call); });
    EXPECT_THAT(warningOfFailedLock(), StartsWith("Could not prevent system sleep: Argument 0 is specified"));
}

/// A pipe whose write end is handed out as the lock.
class SleepLockWithAReply : public SleepLock {
protected:
    SleepLockWithAReply() {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe2");
        }
        watched = os::FileDescriptor(ends[0]);
        given = os::FileDescriptor(ends[1]);
    }

    /// Replies with the write end, which only the caller then holds.
    ::DBusMessage* giveLock(::DBusMessage* call) {
        ::DBusMessage* message = dbus_message_new_method_return(call);
        const int descriptor = given.get();
        dbus_message_append_args(message, DBUS_TYPE_UNIX_FD, &descriptor, DBUS_TYPE_INVALID);
        given.reset();
        return message;
    }

    /// True if the last copy of the write end is closed before the timeout.
    [[nodiscard]] bool isReleased(int milliseconds) const {
        ::pollfd state{watched.get(), 0, 0};
        return ::poll(&state, 1, milliseconds) == 1 && (state.revents & POLLHUP) != 0;
    }

    os::FileDescriptor watched;
    os::FileDescriptor given;
    test::MessageBus bus;
    LoginManagerStub loginManager{[this](::DBusMessage* call) { return giveLock(call); }};
};

TEST_F(SleepLockWithAReply, AsksForTheLock) {
    const SystemSleepLock lock(log.logger);
    EXPECT_THAT(loginManager.asked, ElementsAre("/org/freedesktop/login1", "idle:sleep:shutdown",
                                                "Tolvu Backup Agent", "Backup running", "block"));
}

TEST_F(SleepLockWithAReply, HoldsTheDescriptorForItsLife) {
    std::optional<SystemSleepLock> lock(std::in_place, log.logger);
    EXPECT_THAT(log.lines(), ElementsAre(RecordingLogger::Line{debug, "Preventing system sleep"}));
    EXPECT_FALSE(isReleased(100));
    log.clear();
    lock.reset();
    EXPECT_TRUE(isReleased(20'000));
    EXPECT_THAT(log.lines(), ElementsAre(RecordingLogger::Line{debug, "Allowing system sleep"}));
}

TEST_F(SleepLockWithAReply, NeedsNoConnectionAndLeaksNone) {
    const std::size_t descriptors = test::openDescriptors();
    {
        const SystemSleepLock lock(log.logger);
        // One more for the lock, one less that was given away. The stub may still be closing its copy.
        EXPECT_TRUE(test::eventually([&] { return test::openDescriptors() == descriptors; }));
    }
    EXPECT_EQ(test::openDescriptors(), descriptors - 1);
}

TEST_F(SleepLockWithAReply, DescriptorIsCloseOnExec) {
    const auto inherited = [] {
        script::UnixCommandStream child("ls /proc/$$/fd; :", "", true);
        std::string seen;
        std::string chunk;
        while (child.readAvailable(chunk)) {
            seen += chunk;
        }
        return seen;
    };
    const std::string before = inherited();
    const SystemSleepLock lock(log.logger);
    EXPECT_EQ(inherited(), before);
}

TEST_F(SleepLockWithAReply, LeavesTheDispositionOfSigpipeAlone) {
    const test::ScopedDisposition standard(SIGPIPE, SIG_DFL);
    const SystemSleepLock lock(log.logger);
    EXPECT_EQ(test::disposition(SIGPIPE).sa_handler, SIG_DFL);
}

} // namespace
} // namespace agent::core::backup
