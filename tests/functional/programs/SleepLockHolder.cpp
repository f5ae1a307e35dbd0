#include "core/backup/SystemSleepLock.h"
#include "info/log/Logger.h"

#include <array>
#include <iostream>
#include <unistd.h>

/// Holds a sleep lock until standard input closes, and prints what the lock logs.
int main() {
    agent::info::Logger logger([](const std::string& message, int /*level*/, agent::info::LogTime /*time*/) {
        std::cout << message << std::flush;
    });
    const agent::core::backup::SystemSleepLock lock(logger);
    std::array<char, 64> ignored{};
    while (::read(STDIN_FILENO, ignored.data(), ignored.size()) > 0) {
    }
}
