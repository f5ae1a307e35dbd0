#pragma once

#include "os/FileDescriptor.h"

#include <string>

namespace restore::view {

/// A file as a block device.
/// Owns:    the descriptor of the device. The kernel takes the device away with its last user, so one that is
///          mounted stays until it is unmounted, and nothing is left of one whose owner was killed.
/// Threads: one at a time.
/// Fails:   by std::runtime_error.
class LoopDevice {
public:
    /// `label` is what others know it by, at most 63 bytes.
    LoopDevice(int file, const std::string& label);

    [[nodiscard]] const std::string& path() const { return node; }
    [[nodiscard]] int descriptor() const { return device.get(); }

private:
    bool attach(int number, int file, const std::string& label);

    std::string node;
    os::FileDescriptor device;
};

/// Whether the loop device of that path is the one that was made with this label.
bool isLoopDevice(const std::string& path, const std::string& label);

} // namespace restore::view
