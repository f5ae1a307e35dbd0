#include "Interruption.h"

#include <array>
#include <csignal>
#include <stdexcept>

namespace restore {

namespace {

constexpr std::array signals{SIGINT, SIGTERM, SIGHUP};
volatile std::sig_atomic_t signalArrived = 0; // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)

void note(int /*signal*/) {
    signalArrived = 1;
}

void handleBy(void (*handler)(int), int flags) {
    struct ::sigaction action{};
    action.sa_handler = handler; // NOLINT(cppcoreguidelines-pro-type-union-access)
    action.sa_flags = flags;
    for (const int each : signals) {
        ::sigaction(each, &action, nullptr);
    }
}

} // namespace

Interruption::Interruption() {
    handleBy(&note, static_cast<int>(SA_RESETHAND | SA_RESTART));
}

Interruption::~Interruption() {
    handleBy(SIG_DFL, 0);
}

void Interruption::check() {
    if (signalArrived != 0) {
        throw std::runtime_error("interrupted");
    }
}

} // namespace restore
