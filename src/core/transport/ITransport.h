#pragma once

#include <cstdint>

namespace agent::core {

/// The file-like view of one remote image: a position, reads, writes and holes.
/// Owns:    the connection; destroying the object ends it.
/// Threads: one at a time.
/// Fails:   by return value; a transport that has failed may be connected anew.
class ITransport {
public:
    virtual ~ITransport() = default;
    /// `whence` 0 is absolute, 1 relative; bytes. Returns the new position, or -1 with `errno` set.
    virtual std::int64_t seek(std::int64_t offset, int whence) = 0;
    /// Returns the bytes written, or -1.
    virtual std::int64_t write(const void* data, std::uint64_t length) = 0;
    /// With `diffMerge`, a write compares with the remote image and writes only what differs.
    virtual bool connect(bool diffMerge) = 0;
    /// Returns the bytes read, or -1.
    virtual std::int64_t read(void* data, std::uint64_t length) = 0;
    virtual void disconnect() = 0;
    /// Deallocates `length` bytes from the current position on.
    virtual bool punchHole(std::uint64_t length) = 0;
    [[nodiscard]] virtual bool supportsHolePunching() const = 0;
};

} // namespace agent::core
