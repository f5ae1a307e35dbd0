#include "core/Heartbeat.h"

namespace agent::core {

Heartbeat::Heartbeat(std::chrono::nanoseconds timeout) : timeout(timeout) {}

void Heartbeat::ping() {
    const os::Lock lock(mutex);
    lastPing = Clock::now();
}

void Heartbeat::reset() {
    const os::Lock lock(mutex);
    lastPing = {};
}

void Heartbeat::setCallback(std::function<void()> newCallback) {
    const os::Lock lock(mutex);
    callback.swap(newCallback);
    newCallback = nullptr; // destroys the old callback under the mutex, while no `check` can be running it
}

void Heartbeat::check() {
    const os::Lock lock(mutex);
    if (lastPing == Clock::time_point{} || Clock::now() - lastPing < timeout) {
        return;
    }
    callback();
    lastPing = {};
}

} // namespace agent::core
