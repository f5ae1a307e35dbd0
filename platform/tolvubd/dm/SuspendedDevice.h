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
/// `begin` and `end` other devices can be given their new tables. All memory is there before `begin`, so that
/// nothing waits for the volume that is held: each call is one ioctl on a buffer that was filled beforehand.
///
/// Owns:    a descriptor of /dev/mapper/control; the lock of the process's memory, from `begin` on.
/// Threads: one at a time, and the same from `begin` on; `end` also in a copy of the process.
/// Fails:   as Hold says. EBUSY where somebody else has frozen the file system, or suspended the device.
class SuspendedDevice : public Hold {
public:
    /// `inside` are resumed by resumeInside, in this order, to let the tables become live that were loaded.
    /// The device itself gets the table that was loaded for it when it goes on. Should that one not be able
    /// to work, as that of an era whose metadata is full, it goes on with `otherwise`: it must not stay held
    /// for that.
    SuspendedDevice(const Device& device, Visibility visibility, const std::vector<Device>& inside,
                    const Targets& otherwise = {});

    void begin() override;
    void resumeInside();
    /// When `begin` began to suspend the device.
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
