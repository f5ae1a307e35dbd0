#include "core/Heartbeat.h"

namespace agent::core {

Heartbeat::Heartbeat(std::chrono::nanoseconds timeout) : timeout(timeout) {}

void Heartbeat::ping() {
    const std::lock_guard lock(mutex);
    lastPing = Clock::now();
}

void Heartbeat::reset() {
    const std::lock_guard lock(mutex);
    lastPing = {};
}

void Heartbeat::setCallback(std::function<void()> newCallback) {
    const std::lock_guard lock(mutex);
    callback.swap(newCallback);
    newCallback = nullptr; // destroys the old callback under the mutex, while no `check` can be running it
}

void Heartbeat::check() {
    const std::lock_guard lock(mutex);
    if (lastPing == Clock::time_point{} || Clock::now() - lastPing < timeout) {
        return;
    }
    callback();
    lastPing = {};
}

} // namespace agent::core
