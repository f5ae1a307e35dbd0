// The daemon's entry: command line, signals, the composition of the agent, the background and the lock.

#include "app/CommandLine.h"
#include "app/Composition.h"
#include "app/DescriptorLimit.h"
#include "common/BrokenPipeGuard.h"
#include "common/Flock.h"
#include "common/StandardError.h"
#include "common/TerminationSignals.h"
#include "info/log/LoggingStack.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <unistd.h>

namespace agent::app {

namespace {

constexpr const char* pidFile = "/var/run/bekd.pid";

enum ExitStatus { refused = 1, failed = 2 };

/// What a termination signal stops; a signal handler can be told in no other way. Null until just before the
/// agent is started: until then there is nothing to stop.
std::atomic<IService*> runningAgent = nullptr; // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)

/// Whether a shutdown has begun. It is never taken back: the process ends with it.
std::atomic_flag stopping; // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)

/// The whole shutdown runs in here. An agent that can't stop, or that is still starting, throws, and the
/// process ends abnormally: no orderly stop can be claimed then. A further signal meets either the thread
/// that is stopping, which holds it back, or a thread that some library has made, which has to leave the stop
/// to the first.
extern "C" void onTerminationSignal(int /*signal*/) noexcept {
    const TerminationSignalsBlocked oneStopIsEnough;
    if (stopping.test_and_set()) {
        return;
    }
    {
        const BrokenPipeGuard terminalMayBeGone;
        std::puts("Stopping services...\r");
        std::fflush(stdout);
    }
    if (IService* agent = runningAgent) {
        agent->stop();
    }
    // Nothing is unwound: the PID file stays, and the next start takes it over.
    std::exit(EXIT_SUCCESS); // NOLINT(concurrency-mt-unsafe): the agent's threads have ended
}

void installSignalHandlers() {
    struct sigaction action{};
    action.sa_handler = &onTerminationSignal;
    sigemptyset(&action.sa_mask);
    for (const int signal : terminationSignals) {
        ::sigaction(signal, &action, nullptr);
    }
}

void goIntoBackground() {
    if (::daemon(0, 0) != 0) {
        std::exit(refused); // NOLINT(concurrency-mt-unsafe): there are no threads yet
    }
}

bool takeLock(info::Logger& logger, std::unique_ptr<Flock>& lock) {
    try {
        lock = std::make_unique<Flock>(pidFile);
        lock->writePid();
        return true;
    } catch (const std::runtime_error& error) {
        if (errno == EAGAIN) {
            info::LogEntry(logger, info::level::critical, info::reason("already-running"))
                << "An instance of the TolvuBackupAgent is already running.";
        } else {
            logger.log(info::level::critical, "Could not lock PID file: %s", error.what());
        }
        return false;
    }
}

/// Lets a termination signal find the agent. Its end is the way out of a start that has failed: what happens
/// from then on is for the top of main alone to tell, so no signal interrupts it any more.
class ReachableBySignal {
public:
    explicit ReachableBySignal(IService& agent) { runningAgent = &agent; }
    ReachableBySignal(const ReachableBySignal&) = delete;
    ReachableBySignal& operator=(const ReachableBySignal&) = delete;
    ~ReachableBySignal() {
        blockTerminationSignals();
        runningAgent = nullptr;
    }
};

[[noreturn]] void serve(ordak::TolvuBackupAgent& agent) {
    const ReachableBySignal reachable(agent);
    agent.start();
    for (;;) {
        ::pause();
    }
}

void run(const CommandLine& commandLine, std::unique_ptr<Flock>& lock) {
    info::LoggingStack logging;
    composeTolvuBackupAgent(logging, [&](ordak::TolvuBackupAgent& agent) {
        if (!commandLine.foreground) {
            goIntoBackground();
            if (!takeLock(logging.logger, lock)) {
                return;
            }
        }
        serve(agent);
    });
}

/// Returns only when the agent could not be started, or not go on.
int runAndReport(const CommandLine& commandLine) {
    std::unique_ptr<Flock> lock; // outlives every composed object
    try {
        run(commandLine, lock);
        return refused;
    } catch (const std::exception& error) {
        writeStandardError("Unhandled Exception reached the top of main: " + std::string(error.what()) +
                           ", application will now exit\n");
        return failed;
    } catch (...) {
        lock.reset(); // what follows unwinds nothing
        throw;
    }
}

} // namespace

/// The whole of main. Returns its exit status.
static int runDaemon(int argc, char** argv) {
    if (::getuid() != 0) {
        writeStandardError("Cannot start agent: Must be run as root.\n");
        return refused;
    }
    const std::optional<CommandLine> commandLine = parseCommandLine(argc, argv);
    if (!commandLine) {
        printUsage(std::cout);
        return refused;
    }
    raiseDescriptorLimit();
    installSignalHandlers();
    return runAndReport(*commandLine);
}

} // namespace agent::app

int main(int argc, char** argv) {
    return agent::app::runDaemon(argc, argv);
}
