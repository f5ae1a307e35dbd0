#pragma once

#include "core/fs/IVolumeReader.h"

namespace agent::core {

/// A volume's device, which is opened for the time that it is read.
/// Owns:    the descriptor, while it is open.
/// Threads: one at a time.
/// Fails:   by return value, after a log line.
class IVolumeDevice : public IVolumeReader {
public:
    /// The open descriptor, still owned by the device; -1 if it is closed.
    [[nodiscard]] virtual std::int32_t getFd() const = 0;
    /// Whether the device is open now.
    virtual bool open() = 0;
    /// In bytes, as it was when the object was made.
    [[nodiscard]] virtual std::uint64_t getSize() const = 0;
};

} // namespace agent::core
