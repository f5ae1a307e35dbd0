#include "capture/StoppedServer.h"

#include "Failure.h"
#include "HoldGuard.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <exception>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <thread>
#include <unistd.h>

namespace tolvubd {

namespace {

using Clock = std::chrono::steady_clock;

using std::chrono::milliseconds;

static_assert(StoppedServer::patienceMilliseconds < HoldGuard::patienceMilliseconds);

constexpr char stopped = 'T';
constexpr char traced = 't';
constexpr milliseconds moment{1};
/// The numbers of /dev/fuse.
constexpr unsigned channelMajor = 10;
constexpr unsigned channelMinor = 229;

std::vector<std::uint64_t> channelsOf(const Process& process) {
    return process.descriptorsOf(S_IFCHR, makedev(channelMajor, channelMinor));
}

bool isGone(const std::system_error& error) {
    return error.code().value() == ENOENT || error.code().value() == ESRCH;
}

bool isHeld(const Process& server) {
    const char state = server.state();
    return state == stopped || state == traced;
}

/// Whether `process` is this process or one of its ancestors.
bool isAncestor(pid_t process) {
    for (pid_t number = thisProcess(); number > 0; number = Process(number).parent()) {
        if (number == process) {
            return true;
        }
    }
    return false;
}

Process onlyServer(const Volume& volume) {
    if (volume.servers.size() != 1) {
        fail(EOPNOTSUPP, volume.path + " has " + std::to_string(volume.servers.size()) +
                             " processes that may be its file system");
    }
    const ProcessName& name = volume.servers.front();
    Process server(name.number);
    if (server.name() != name) {
        fail(ESRCH, "the file system of " + volume.path);
    }
    return server;
}

} // namespace

StoppedServer::StoppedServer(const Volume& volume, const std::string& mountPoint)
    : server(onlyServer(volume)), device(openFile(volume.path, O_RDONLY)), channels(channelsOf(server)) {
    syncFileSystem(mountPoint);
    syncFile(device, volume.path);
}

void StoppedServer::begin() {
    if (isHeld(server)) {
        fail(EBUSY, "the server of the file system is stopped");
    }
    try {
        stopWhenIdle();
        syncFile(device, "the device"); // what the server has written since the constructor
    } catch (...) {
        static_cast<void>(server.send(SIGCONT));
        throw;
    }
}

bool StoppedServer::end() noexcept {
    const bool wasStopped = server.state() == stopped;
    return server.send(SIGCONT) && wasStopped;
}

/// Stops the server only when it seems idle. If it were stopped at any time, a busy server might never finish
/// a request between two stops.
void StoppedServer::stopWhenIdle() {
    const Clock::time_point end = Clock::now() + milliseconds(patienceMilliseconds);
    while (!isIdle() || !stop(end)) {
        if (Clock::now() >= end) {
            fail(ETIMEDOUT, "the server of the file system is never idle");
        }
        std::this_thread::sleep_for(moment);
    }
}

/// Returns false, and lets the server continue, when a request has arrived before the server stopped.
bool StoppedServer::stop(Clock::time_point end) {
    if (!server.send(SIGSTOP)) {
        failWithErrno("stop the server of the file system");
    }
    while (!isStopped() && Clock::now() < end) {
        std::this_thread::sleep_for(moment);
    }
    if (isStopped() && isIdle()) {
        return true;
    }
    static_cast<void>(server.send(SIGCONT));
    return false;
}

bool StoppedServer::isStopped() const {
    return std::ranges::all_of(server.threads(),
                               [&](pid_t thread) { return server.stateOf(thread) == stopped; });
}

/// A thread other than the first that waits for another thread counts as busy: it may be in the middle of a
/// request, even if the thread that it waited for has finished.
bool StoppedServer::isIdle() const {
    std::vector<pid_t> others = server.threads();
    std::erase_if(others, [&](pid_t thread) { return waitsForRequest(server.callOf(thread)); });
    return others.empty() || (others == std::vector{server.number()} && server.threads().size() > 1 &&
                              server.callOf(server.number()).number == SYS_futex);
}

bool StoppedServer::waitsForRequest(const SystemCall& call) const {
    return (call.number == SYS_read || call.number == SYS_splice) &&
           std::ranges::find(channels, call.argument) != channels.end();
}

std::vector<ProcessName> findServers(dev_t device) {
    std::vector<ProcessName> servers;
    for (const pid_t number : processes()) {
        try {
            const Process process(number);
            if (!process.descriptorsOf(S_IFBLK, device).empty() && !channelsOf(process).empty()) {
                servers.push_back(process.name());
            }
        } catch (const std::system_error& error) {
            if (!isGone(error)) {
                throw;
            }
        }
    }
    return servers;
}

void requireAnswering(const std::vector<ProcessName>& servers) {
    for (const ProcessName& name : servers) {
        if (isAncestor(name.number)) {
            fail(EDEADLK,
                 "process " + std::to_string(name.number) + ", which is the file system, waits for this one");
        }
        if (isHeld(Process(name.number))) {
            fail(EBUSY, "process " + std::to_string(name.number) + ", which is the file system, is stopped");
        }
    }
}

void continueIfStopped(const ProcessName& server) noexcept {
    try {
        const Process process(server.number);
        if (process.name() == server) {
            static_cast<void>(process.send(SIGCONT));
        }
    } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): it is gone
    }
}

} // namespace tolvubd
