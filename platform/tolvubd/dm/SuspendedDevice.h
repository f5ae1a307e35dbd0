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
/// Threads: one at a time, and the same one from `begin` on; `end` also in a forked copy of the process.
/// Fails:   as Hold does. EBUSY when another program has frozen the file system or suspended the device.
class SuspendedDevice : public Hold {
public:
    /// resumeInside resumes the devices `inside`, in this order, which makes their loaded tables live. `end`
    /// resumes the device itself, with the table that was loaded for it. If that table can't work, for
    /// example because the era metadata is full, `end` loads `otherwise` instead, so that the volume doesn't
    /// stay held.
    SuspendedDevice(const Device& device, Visibility visibility, const std::vector<Device>& inside,
                    const Targets& otherwise = {});

    void begin() override;
    void resumeInside();
    /// When `begin` started to suspend the device.
    [[nodiscard]] std::chrono::steady_clock::time_point heldSince() const noexcept { return since; }
    bool end() noexcept override;
    void enterCopy() noexcept override;
    [[nodiscard]] int descriptor() const noexcept override { return control.get(); }

private:
    [[nodiscard]] int trySuspend() noexcept;
    [[nodiscard]] bool isSuspended() noexcept;

    os::FileDescriptor control;
    ControlRequest ask;
    ControlRequest suspend;
    ControlRequest resume;
    ControlRequest loadOtherwise;
    bool hasOtherwise;
    std::vector<ControlRequest> inside;
    std::optional<MemoryLock> memory;
    std::chrono::steady_clock::time_point since;
};

} // namespace tolvubd::dm
