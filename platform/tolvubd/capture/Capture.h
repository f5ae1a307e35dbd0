#pragma once

#include "FileAccess.h"
#include "os/AlignedBuffer.h"

#include <cstdint>
#include <functional>
#include <string>

namespace tolvubd {

/// A sparse copy of a block device.
class Capture {
public:
    /// Makes an empty file of the device's size; nothing must be there.
    Capture(const std::string& path, const std::string& device, std::uint64_t size);

    /// Copies the device, a piece at a time, with a call of `afterPiece` after each. Pieces that are zero
    /// become holes.
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
