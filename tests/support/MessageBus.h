#pragma once

#include "core/script/UnixCommandStream.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace agent::test {

inline const std::string busSocket = "/run/test-bus";
inline const std::string busAddress = "unix:path=" + busSocket;

/// Sets the address of the system bus for the whole program before the first test, since libraries read the
/// address only once. Whether a bus listens there is up to each test.
class BusAddress : public testing::Environment {
public:
    void SetUp() override { ::setenv("DBUS_SYSTEM_BUS_ADDRESS", busAddress.c_str(), 1); }
};

/// A real message bus that allows every client everything and activates no services.
/// Owns:    the dbus-daemon process and its configuration; the destructor kills the process.
/// Threads: one.
/// Fails:   the constructor throws std::runtime_error if the daemon doesn't listen within 20 seconds.
class MessageBus {
public:
    MessageBus() : daemon(command(directory / "bus.conf"), "", true) {
        std::int64_t remaining = 20'000'000;
        std::string address; // printed once the bus listens
        if (!daemon.waitForOutput(remaining) || !daemon.readAvailable(address) ||
            !address.starts_with(busAddress)) {
            throw std::runtime_error("dbus-daemon: " + address);
        }
    }

private:
    static std::string command(const std::string& configuration) {
        writeFile(configuration,
                  "<busconfig><type>system</type><auth>EXTERNAL</auth><listen>" + busAddress +
                      "</listen><policy context='default'><allow own='*'/><allow eavesdrop='true'/>"
                      "<allow send_destination='*'/></policy></busconfig>");
        return "exec dbus-daemon --nofork --nopidfile --print-address --config-file=" + configuration;
    }

    TestDirectory directory;
    core::script::UnixCommandStream daemon;
};

} // namespace agent::test
