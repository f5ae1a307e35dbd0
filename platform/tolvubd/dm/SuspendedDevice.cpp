#include "dm/SuspendedDevice.h"

#include "Failure.h"

namespace tolvubd::dm {

SuspendedDevice::SuspendedDevice(const Device& device, Visibility visibility,
                                 const std::vector<Device>& inside, const Targets& otherwise)
    : control(openControl()),
      ask(device, DM_DEV_STATUS, 0),
      suspend(device, DM_DEV_SUSPEND, DM_SUSPEND_FLAG),
      resume(device, DM_DEV_SUSPEND, 0),
      loadOtherwise(device, DM_TABLE_LOAD, 0),
      hasOtherwise(!otherwise.empty()) {
    resume.tellUdev(visibility);
    for (const Target& target : otherwise) {
        loadOtherwise.addTarget(target);
    }
    for (const Device& other : inside) {
        this->inside.emplace_back(other, DM_DEV_SUSPEND, 0).tellUdev(Visibility::hidden);
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

void SuspendedDevice::resumeInside() {
    for (ControlRequest& other : inside) {
        if (!other.send(control.get())) {
            failWithErrno("put the new tables in place");
        }
    }
}

bool SuspendedDevice::end() noexcept {
    if (!isSuspended()) {
        return false;
    }
    if (!resume.send(control.get()) && hasOtherwise && loadOtherwise.send(control.get())) {
        resume.send(control.get());
    }
    return true;
}

void SuspendedDevice::enterCopy() noexcept {
    MemoryLock::forLife();
}

/// EINTR: a signal for the program is no reason to give up.
int SuspendedDevice::trySuspend() noexcept {
    int error = 0;
    do {
        error = suspend.send(control.get()) ? 0 : errno;
    } while (error == EINTR);
    return error;
}

bool SuspendedDevice::isSuspended() noexcept {
    return ask.send(control.get()) && (ask.flags() & DM_SUSPEND_FLAG) != 0;
}

} // namespace tolvubd::dm
