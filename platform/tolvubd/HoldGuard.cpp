#include "HoldGuard.h"

#include "Companion.h"
#include "Failure.h"

#include <array>
#include <csignal>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace tolvubd {

namespace {

constexpr int released = 0;
constexpr int impatient = 1;
constexpr int notHeld = 2;

bool waitUntilReadable(int link) {
    pollfd poll{link, POLLIN, 0};
    int ready = -1;
    do {
        ready = ::poll(&poll, 1, HoldGuard::patienceMilliseconds);
    } while (ready < 0);
    return ready > 0;
}

/// Waits until the other end closes the socket; each byte that arrives restarts the timeout.
bool waitForClose(int link) {
    std::array<char, 64> heartbeats{};
    while (waitUntilReadable(link)) {
        if (::read(link, heartbeats.data(), heartbeats.size()) == 0) {
            return true;
        }
    }
    return false;
}

bool sendHeartbeat(int link) {
    const char heartbeat = 0;
    return ::send(link, &heartbeat, sizeof heartbeat, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0 || errno == EAGAIN;
}

/// Releases the volume when the socket closes, or after the timeout. If the hold hasn't begun by then, it may
/// still begin, so the guard goes on waiting.
int waitAndRelease(Hold& hold, int link) {
    while (!waitForClose(link)) {
        if (hold.end()) {
            return impatient;
        }
    }
    return hold.end() ? released : notHeld;
}

/// The main function of the guard process. Closing descriptors may have to wait for the file system that is
/// to be held, so the guard reports when it has done that.
[[noreturn]] void guard(Hold& hold, int link) {
    companion::prepareChild("tolvubd-guard", hold.descriptor(), link);
    hold.enterChild();
    sendHeartbeat(link);
    ::_exit(waitAndRelease(hold, link));
}

} // namespace

HoldGuard::HoldGuard(std::unique_ptr<Hold> hold) : hold(std::move(hold)) {
    startChild();
    try {
        this->hold->begin();
        sendHeartbeat(link.get()); // the timeout starts here, however long begin() took
    } catch (...) {
        killChild(); // killed, so that it doesn't release a volume that another process holds
        throw;
    }
}

void HoldGuard::startChild() {
    std::array<int, 2> ends{};
    checked(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), "connect the guard");
    link = os::FileDescriptor(ends[0]);
    {
        const os::FileDescriptor childEnd(ends[1]);
        child = checked(companion::forkHidden(), "start the guard");
        if (child == 0) {
            guard(*hold, childEnd.get());
        }
    }
    char ready = 0;
    if (!waitUntilReadable(link.get()) || ::recv(link.get(), &ready, sizeof ready, 0) != sizeof ready) {
        killChild();
        fail(ETIMEDOUT, "start the guard");
    }
}

HoldGuard::~HoldGuard() {
    if (child > 0 && !endChild()) {
        hold->end();
    }
}

void HoldGuard::reportProgress() {
    if (!sendHeartbeat(link.get())) {
        fail(ETIMEDOUT, "hold the volume");
    }
}

void HoldGuard::release() {
    if (!endChild()) {
        hold->end(); // if the guard was killed, the volume is still held
        fail(ETIMEDOUT, "hold the volume");
    }
}

void HoldGuard::killChild() noexcept {
    ::kill(child, SIGKILL);
    endChild();
}

bool HoldGuard::endChild() noexcept {
    link.reset();
    const std::optional<int> status = companion::exitStatus(child);
    child = -1;
    return status == released;
}

} // namespace tolvubd
