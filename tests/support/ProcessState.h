#pragma once

#include "common/Directory.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <sys/wait.h>

namespace agent::test {

/// The number of open file descriptors of the process. It always includes the descriptor that counting needs.
inline std::size_t openDescriptors() {
    return dir::list("/proc/self/fd").size();
}

/// True if the process has no children, neither running nor zombies.
inline bool hasNoChildren() {
    return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

/// Changes the disposition of a signal for as long as the object lives.
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
