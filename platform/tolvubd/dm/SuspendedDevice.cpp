#include "dm/SuspendedDevice.h"

#include "Failure.h"

namespace tolvubd::dm {

SuspendedDevice::SuspendedDevice(const Device& device, Visibility visibility,
                                 const std::vector<Device>& innerDevices, const Targets& fallbackTable)
    : control(openControl()),
      queryStatus(device, DM_DEV_STATUS, 0),
      suspend(device, DM_DEV_SUSPEND, DM_SUSPEND_FLAG),
      resume(device, DM_DEV_SUSPEND, 0),
      loadFallback(device, DM_TABLE_LOAD, 0),
      hasFallback(!fallbackTable.empty()) {
    resume.tellUdev(visibility);
    for (const Target& target : fallbackTable) {
        loadFallback.addTarget(target);
    }
    for (const Device& other : innerDevices) {
        this->innerDevices.emplace_back(other, DM_DEV_SUSPEND, 0).tellUdev(Visibility::hidden);
    }
}

void SuspendedDevice::begin() {
    memory.emplace();
    since = std::chrono::steady_clock::now();
    const int error = isSuspended() ? EBUSY : trySuspend();
    if (error != 0) {
        memory.reset();
        fail(error, "suspend the volume");
    }
}

void SuspendedDevice::resumeInnerDevices() {
    for (ControlRequest& other : innerDevices) {
        if (!other.send(control.get())) {
            failWithErrno("put the new tables in place");
        }
    }
}

bool SuspendedDevice::end() noexcept {
    if (!isSuspended()) {
        return false;
    }
    if (!resume.send(control.get()) && hasFallback && loadFallback.send(control.get())) {
        resume.send(control.get());
    }
    return true;
}

void SuspendedDevice::enterChild() noexcept {
    MemoryLock::lockPermanently();
}

/// Tries again after EINTR: a signal for the program is no reason to give up.
int SuspendedDevice::trySuspend() noexcept {
    int error = 0;
    do {
        error = suspend.send(control.get()) ? 0 : errno;
    } while (error == EINTR);
    return error;
}

bool SuspendedDevice::isSuspended() noexcept {
    return queryStatus.send(control.get()) && (queryStatus.flags() & DM_SUSPEND_FLAG) != 0;
}

} // namespace tolvubd::dm
