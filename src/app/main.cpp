// The daemon's entry point: parses the command line, installs the signal handlers, composes the agent, goes
// into the background, locks the PID file and starts the agent.

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

/// The agent that a termination signal stops. A global variable, because there is no other way to pass it to
/// a signal handler. Null until just before the agent is started: until then there is nothing to stop.
std::atomic<IService*> runningAgent = nullptr; // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)

/// Set when the shutdown begins, and never cleared: the process ends after the shutdown.
std::atomic_flag stopping; // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)

/// Runs the whole shutdown. If the agent can't stop or is still starting, stop() throws, and this noexcept
/// function ends the process abnormally, since the agent hasn't stopped properly. A second signal is either
/// blocked, on the thread that runs the shutdown, or it arrives on a thread that some library has created:
/// then the handler returns at once.
extern "C" void onTerminationSignal(int /*signal*/) noexcept {
    const TerminationSignalsBlocked signalsBlocked;
    if (stopping.test_and_set()) {
        return;
    }
    {
        const BrokenPipeGuard sigpipeBlocked;
        std::puts("Stopping services...\r");
        std::fflush(stdout);
    }
    if (IService* agent = runningAgent) {
        agent->stop();
    }
    // exit() doesn't unwind the stack: the PID file stays, and the next start reuses it.
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

/// Makes the agent known to the signal handler. The destructor only runs if the start has failed. It blocks
/// the termination signals for good, so that none interrupts main while it reports the failure.
class SignalTarget {
public:
    explicit SignalTarget(IService& agent) { runningAgent = &agent; }
    SignalTarget(const SignalTarget&) = delete;
    SignalTarget& operator=(const SignalTarget&) = delete;
    ~SignalTarget() {
        blockTerminationSignals();
        runningAgent = nullptr;
    }
};

[[noreturn]] void serve(ordak::TolvuBackupAgent& agent) {
    const SignalTarget target(agent);
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

/// Returns only if the agent can't start or can't continue.
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
        lock.reset(); // nothing catches the exception now, so no destructor would remove the PID file
        throw;
    }
}

} // namespace

/// The body of main; returns the exit status.
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
