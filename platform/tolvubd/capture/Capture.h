#pragma once

#include "FileAccess.h"
#include "os/AlignedBuffer.h"

#include <cstdint>
#include <functional>
#include <string>

namespace tolvubd {

/// A sparse copy of a block device.
///
/// Owns:    the descriptors of the device and of the image; not the image file, which stays.
/// Threads: one at a time.
/// Fails:   std::system_error.
class Capture {
public:
    /// Creates an image of the device's size without data. Throws EEXIST when `path` exists.
    Capture(const std::string& path, const std::string& device, std::uint64_t size);

    /// Copies the device piece by piece, and calls `afterPiece` after each. Zeros become holes.
    void copy(const std::function<void()>& afterPiece);
    /// Makes the copy durable.
    void finish();

private:
    std::string path;
    std::uint64_t size;
    os::FileDescriptor image;
    os::FileDescriptor source;
    os::AlignedBuffer buffer;
};

} // namespace tolvubd
