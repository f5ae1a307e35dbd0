#pragma once

#include "Hold.h"
#include "MemoryLock.h"
#include "dm/ControlRequest.h"
#include "dm/Mapper.h"
#include "os/FileDescriptor.h"

#include <chrono>
#include <optional>
#include <vector>

namespace tolvubd::dm {

/// Holds a volume by suspending its device-mapper device, which freezes the file system on it. Between
/// `begin` and `end`, other devices can get their new tables. All memory is allocated before `begin`, because
/// an allocation might wait for the held volume: each call is one ioctl on a buffer that was filled
/// beforehand.
///
/// Owns:    a descriptor of /dev/mapper/control; the lock on the process's memory, from `begin` on.
/// Threads: one at a time, and the same one from `begin` on; `end` also in a forked child process.
/// Fails:   as Hold does. EBUSY when another program has frozen the file system or suspended the device.
class SuspendedDevice : public Hold {
public:
    /// resumeInnerDevices resumes `innerDevices`, in this order, which makes their loaded tables live. `end`
    /// resumes the device itself, with the table that was loaded for it. If that table can't work, for
    /// example because the era metadata is full, `end` loads `fallbackTable` instead, so that the volume
    /// doesn't stay held.
    SuspendedDevice(const Device& device, Visibility visibility, const std::vector<Device>& innerDevices,
                    const Targets& fallbackTable = {});

    void begin() override;
    void resumeInnerDevices();
    /// When `begin` started to suspend the device.
    [[nodiscard]] std::chrono::steady_clock::time_point heldSince() const noexcept { return since; }
    bool end() noexcept override;
    void enterChild() noexcept override;
    [[nodiscard]] int descriptor() const noexcept override { return control.get(); }

private:
    [[nodiscard]] int trySuspend() noexcept;
    [[nodiscard]] bool isSuspended() noexcept;

    os::FileDescriptor control;
    ControlRequest queryStatus;
    ControlRequest suspend;
    ControlRequest resume;
    ControlRequest loadFallback;
    bool hasFallback;
    std::vector<ControlRequest> innerDevices;
    std::optional<MemoryLock> memory;
    std::chrono::steady_clock::time_point since;
};

} // namespace tolvubd::dm
