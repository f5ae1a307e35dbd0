#pragma once

#include "core/fs/IVolumeReader.h"

namespace agent::core {

/// A volume's device, which is open only while it is read.
/// Owns:    the file descriptor, while it is open.
/// Threads: one at a time.
/// Fails:   by return value, after a log line.
class IVolumeDevice : public IVolumeReader {
public:
    /// The open descriptor, still owned by the device; -1 if it is closed.
    [[nodiscard]] virtual std::int32_t getFd() const = 0;
    /// Opens the device and returns whether that succeeded.
    virtual bool open() = 0;
    /// The size in bytes at the time when the object was constructed.
    [[nodiscard]] virtual std::uint64_t getSize() const = 0;
};

} // namespace agent::core
