#pragma once

#include "Hold.h"
#include "dm/Mapper.h"
#include "os/FileDescriptor.h"

#include <vector>

namespace tolvubd::dm {

/// Holds a volume by suspending its device-mapper device, which freezes the file system on it. Between
/// `begin` and `end` other devices can be given their new tables. All memory is there before `begin`, so that
/// nothing waits for the volume that is held: each call is one ioctl on a buffer that was filled beforehand.
///
/// Owns:    a descriptor of /dev/mapper/control; the lock of the process's memory, from `begin` to `end`.
/// Threads: one at a time; `end` also in a copy of the process.
/// Fails:   as Hold says. EBUSY where somebody else has frozen the file system.
class SuspendedDevice : public Hold {
public:
    /// `inside` are resumed by resumeInside, in this order, to let the tables become live that were loaded.
    SuspendedDevice(const Device& device, Visibility visibility, const std::vector<Device>& inside);

    void begin() override;
    void resumeInside();
    bool end() noexcept override;
    [[nodiscard]] int descriptor() const noexcept override { return control.get(); }

private:
    os::FileDescriptor control;
};

} // namespace tolvubd::dm
