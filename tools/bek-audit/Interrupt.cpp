#include "Interrupt.h"

#include "common/TerminationSignals.h"

#include <atomic>
#include <csignal>
#include <stdexcept>
#include <string>

namespace audit {

namespace {

// A signal handler can only write to a global.
std::atomic<int> caught = 0; // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)
static_assert(std::atomic<int>::is_always_lock_free);

void handle(void (*handler)(int)) {
    for (const int signal : agent::terminationSignals) {
        struct sigaction action{};
        action.sa_handler = handler;
        action.sa_flags = SA_RESTART;
        ::sigaction(signal, &action, nullptr);
    }
}

} // namespace

Interrupt::Interrupt(std::chrono::seconds longest) : longest(longest) {
    handle([](int signal) { caught = signal; });
}

Interrupt::~Interrupt() {
    handle(SIG_DFL);
}

void Interrupt::check() const {
    if (caught != 0) {
        throw std::runtime_error("interrupted by signal " + std::to_string(caught));
    }
    if (std::chrono::steady_clock::now() > deadline) {
        throw std::runtime_error("not done within " + std::to_string(longest.count()) +
                                 " seconds, and backups mustn't wait for longer: take a smaller sample");
    }
}

} // namespace audit
