#pragma once

#include "dm/Mapper.h"
#include "os/FileDescriptor.h"

#include <cstddef>
#include <linux/dm-ioctl.h>
#include <span>
#include <sys/ioctl.h>
#include <vector>

namespace tolvubd::dm {

/// One call of device-mapper that can be made again and again, also where no memory can be had: while a
/// volume is suspended, and in a copy of the process.
///
/// Owns:    the memory of the question and of the answer.
/// Threads: one at a time; `send` also in a copy of the process.
/// Fails:   std::bad_alloc when it is made. `send` returns false with the kernel's errno.
class ControlRequest {
public:
    /// `command` is one of <linux/dm-ioctl.h>. There is room for as many bytes of an answer as said.
    ControlRequest(const Device& device, unsigned long command, std::uint32_t flags, std::size_t room = 0);

    /// How udev is told of a device that is resumed.
    ControlRequest& tellUdev(Visibility visibility);
    /// Appends a target to the table that is to be loaded.
    ControlRequest& addTarget(const Target& target);

    bool send(int control) noexcept;
    /// Of the last answer. What has no room in it is no answer: it is empty then.
    [[nodiscard]] std::uint32_t flags() const noexcept { return header(answered).flags; }
    [[nodiscard]] std::span<const std::byte> answer() const noexcept;

private:
    using Words = std::vector<std::uint64_t>; // for their alignment

    static dm_ioctl& header(Words& words) noexcept;
    static const dm_ioctl& header(const Words& words) noexcept;

    unsigned long command;
    Words asked;
    Words answered;
};

/// Where requests are sent to.
os::FileDescriptor openControl();

} // namespace tolvubd::dm
