#include "common/TerminationSignals.h"

namespace agent {

TerminationSignalsBlocked::TerminationSignalsBlocked() {
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : terminationSignals) {
        sigaddset(&blocked, signal);
    }
    pthread_sigmask(SIG_BLOCK, &blocked, &previous);
}

TerminationSignalsBlocked::~TerminationSignalsBlocked() {
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

} // namespace agent
