#include "core/backup/SystemSleepLock.h"

#include <dbus/dbus.h>

#include <memory>

namespace agent::core::backup {

namespace {

/// An RAII wrapper of DBusError.
class BusError {
public:
    BusError() noexcept { dbus_error_init(&error); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    ~BusError() { dbus_error_free(&error); }

    [[nodiscard]] ::DBusError* get() noexcept { return &error; }
    [[nodiscard]] bool isSet() const noexcept { return dbus_error_is_set(&error) != 0; }
    [[nodiscard]] const char* message() const noexcept { return error.message; }
    void setNoMemory() noexcept { dbus_set_error_const(&error, DBUS_ERROR_NO_MEMORY, "Out of memory"); }

private:
    ::DBusError error{};
};

struct CloseConnection {
    // A private connection must be closed before its last reference is released.
    void operator()(::DBusConnection* connection) const noexcept {
        dbus_connection_close(connection);
        dbus_connection_unref(connection);
    }
};
using Connection = std::unique_ptr<::DBusConnection, CloseConnection>;

struct UnrefMessage {
    void operator()(::DBusMessage* message) const noexcept { dbus_message_unref(message); }
};
using Message = std::unique_ptr<::DBusMessage, UnrefMessage>;

/// By default libdbus affects the whole process: it ignores SIGPIPE, which would replace a backup's handler,
/// and it exits when the bus disconnects. Both are turned off here.
Connection connectToSystemBus(BusError& error) {
    dbus_connection_set_change_sigpipe(FALSE);
    Connection connection(dbus_bus_get_private(DBUS_BUS_SYSTEM, error.get()));
    if (connection) {
        dbus_connection_set_exit_on_disconnect(connection.get(), FALSE);
    }
    return connection;
}

/// Null if memory runs out.
Message makeInhibitCall() {
    const char* what = "idle:sleep:shutdown";
    const char* who = "Tolvu Backup Agent";
    const char* why = "Backup running";
    const char* mode = "block";
    Message call(dbus_message_new_method_call("org.freedesktop.login1", "/org/freedesktop/login1",
                                              "org.freedesktop.login1.Manager", "Inhibit"));
    if (call &&
        dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &what, DBUS_TYPE_STRING, &who,
                                 DBUS_TYPE_STRING, &why, DBUS_TYPE_STRING, &mode, DBUS_TYPE_INVALID) == 0) {
        call.reset();
    }
    return call;
}

/// Requests the lock from the login manager. On failure sets `error` and returns an empty descriptor.
os::FileDescriptor inhibit(::DBusConnection* connection, BusError& error) {
    Message call = makeInhibitCall();
    if (!call) {
        error.setNoMemory();
        return {};
    }
    const Message reply(dbus_connection_send_with_reply_and_block(connection, call.get(),
                                                                  DBUS_TIMEOUT_USE_DEFAULT, error.get()));
    int descriptor = -1;
    if (reply) {
        // libdbus returns a duplicate, close-on-exec, which the caller owns.
        dbus_message_get_args(reply.get(), error.get(), DBUS_TYPE_UNIX_FD, &descriptor, DBUS_TYPE_INVALID);
    }
    return os::FileDescriptor(descriptor);
}

} // namespace

SystemSleepLock::SystemSleepLock(info::Logger& logger) : logger(logger) {
    BusError error;
    const Connection connection = connectToSystemBus(error);
    if (connection) {
        inhibitFd = inhibit(connection.get(), error);
    }
    if (error.isSet()) {
        logger.log(info::level::warning, "Could not prevent system sleep: %s", error.message());
    } else {
        info::LogEntry(logger, info::level::debug) << "Preventing system sleep";
    }
}

SystemSleepLock::~SystemSleepLock() {
    if (!inhibitFd) {
        info::LogEntry(logger, info::level::warning) << "Could not allow sleep";
        return;
    }
    inhibitFd.reset();
    info::LogEntry(logger, info::level::debug) << "Allowing system sleep";
}

} // namespace agent::core::backup
