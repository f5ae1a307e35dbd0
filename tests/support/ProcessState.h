#pragma once

#include "common/Directory.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <sys/wait.h>

namespace agent::test {

/// The number of descriptors that the process has open; the one that counting needs is always among them.
inline std::size_t openDescriptors() {
    return dir::list("/proc/self/fd").size();
}

/// True if the process has no child at all, running or not reaped.
inline bool hasNoChildren() {
    return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

/// Gives a signal another disposition until the object goes.
class ScopedDisposition {
public:
    ScopedDisposition(int signal, void (*handler)(int)) : signal(signal) {
        struct ::sigaction action{};
        action.sa_handler = handler;
        ::sigaction(signal, &action, &previous);
    }
    ScopedDisposition(const ScopedDisposition&) = delete;
    ScopedDisposition& operator=(const ScopedDisposition&) = delete;
    ~ScopedDisposition() { ::sigaction(signal, &previous, nullptr); }

private:
    int signal;
    struct ::sigaction previous{};
};

inline struct ::sigaction disposition(int signal) {
    struct ::sigaction current{};
    ::sigaction(signal, nullptr, &current);
    return current;
}

} // namespace agent::test
