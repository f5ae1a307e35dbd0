#pragma once

#include "os/FileDescriptor.h"

#include <string>

namespace restore::view {

/// A loop device: a file as a block device.
/// Owns:    the descriptor of the device. The kernel detaches the device when its last user ends, so a
///          mounted one stays until it is unmounted, and nothing is left of one whose owner was killed.
/// Threads: one at a time.
/// Fails:   throws std::runtime_error.
class LoopDevice {
public:
    /// Others recognise the device by its `label`, of at most 63 bytes.
    LoopDevice(int file, const std::string& label);

    [[nodiscard]] const std::string& path() const { return node; }
    [[nodiscard]] int descriptor() const { return device.get(); }

private:
    bool attach(int number, int file, const std::string& label);

    std::string node;
    os::FileDescriptor device;
};

/// Whether the loop device at `path` was made with this label.
bool isLoopDevice(const std::string& path, const std::string& label);

} // namespace restore::view
