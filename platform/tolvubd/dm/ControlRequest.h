#pragma once

#include "dm/Mapper.h"
#include "os/FileDescriptor.h"

#include <cstddef>
#include <linux/dm-ioctl.h>
#include <span>
#include <sys/ioctl.h>
#include <vector>

namespace tolvubd::dm {

/// A device-mapper ioctl that can be sent any number of times without allocating memory: while a volume is
/// suspended, and in a forked child process.
///
/// Owns:    the memory for the request and for the response.
/// Threads: one at a time; `send` also in a forked child process.
/// Fails:   the constructor and addTarget throw std::bad_alloc. `send` returns false with the kernel's errno.
class ControlRequest {
public:
    /// `command` is an ioctl number of <linux/dm-ioctl.h>; `room` is the most bytes a response can have.
    ControlRequest(const Device& device, unsigned long command, std::uint32_t flags, std::size_t room = 0);

    /// Sets how udev treats the event when the device is resumed.
    ControlRequest& tellUdev(Visibility visibility);
    /// Appends a target to the table that the request loads.
    ControlRequest& addTarget(const Target& target);

    bool send(int control) noexcept;
    /// The flags and the data of the last response. Data that didn't fit into the buffer counts as empty.
    [[nodiscard]] std::uint32_t flags() const noexcept { return header(response).flags; }
    [[nodiscard]] std::span<const std::byte> responseData() const noexcept;

private:
    using Words = std::vector<std::uint64_t>; // for their alignment

    static dm_ioctl& header(Words& words) noexcept;
    static const dm_ioctl& header(const Words& words) noexcept;

    unsigned long command;
    Words request;
    Words response;
};

/// Opens /dev/mapper/control, to which requests are sent.
os::FileDescriptor openControl();

} // namespace tolvubd::dm
