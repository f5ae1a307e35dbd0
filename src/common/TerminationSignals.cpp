#include "common/TerminationSignals.h"

namespace agent {

sigset_t blockTerminationSignals() {
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : terminationSignals) {
        sigaddset(&blocked, signal);
    }
    sigset_t previous{};
    pthread_sigmask(SIG_BLOCK, &blocked, &previous);
    return previous;
}

TerminationSignalsBlocked::~TerminationSignalsBlocked() {
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

} // namespace agent
