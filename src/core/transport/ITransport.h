#pragma once

#include <cstdint>

namespace agent::core {

/// A file-like view of one remote image, with a position, reads, writes and holes. tests/contract/transport
/// holds every implementation to this contract.
/// Owns:    the connection; destroying the object closes it.
/// Threads: one at a time. A second thread that calls during another thread's call may get EBUSY.
/// Fails:   by return value with `errno`, after a log line: -1, a count that is too small, or false. The
///          transport has already retried what can be retried, for as long as that takes, so a caller that
///          gets a failure gives the image up.
///
/// A read or write that fails partway may return a count instead of -1: 0, or at most the number of bytes
/// done, with the position moved by that number. A caller that needs all bytes must treat every smaller count
/// as a failure.
///
/// `errno` is EINVAL for an invalid argument, ENOSPC for a write that begins at the image's end, ENOTCONN
/// without a connection, EBUSY as described above, and EIO for everything else. A broken connection may
/// report EIO even after it has been closed.
///
/// Positions and lengths are multiples of the target's block size; multiples of 4096 bytes always work.
/// Others may be refused with EINVAL, and a read at an unaligned position may begin at the start of its
/// block.
class ITransport {
public:
    virtual ~ITransport() = default;
    /// `offset` is in bytes; `whence` 0 is absolute, 1 relative. Returns the new position, or -1 and keeps
    /// the old one. Sends nothing: a position past the image's end may be refused with EINVAL, either here or
    /// by a later call.
    virtual std::int64_t seek(std::int64_t offset, int whence) = 0;
    /// Returns the number of bytes written, which is smaller than `length` at the image's end, and moves the
    /// position past them. After -1 the position is unchanged, except in a comparing (`diffMerge`)
    /// connection. After a failure, the content of the target past the written bytes is unknown.
    virtual std::int64_t write(const void* data, std::uint64_t length) = 0;
    /// With `diffMerge`, writes compare with the remote image and write only the differences; a transport
    /// that can't compare writes everything. May be called again, also after a failure. Sets the position to
    /// 0.
    virtual bool connect(bool diffMerge) = 0;
    /// Returns the number of bytes read, and moves the position past them. The number is smaller than
    /// `length` where the image ends, and 0 at its end. After -1 the position is unchanged.
    virtual std::int64_t read(void* data, std::uint64_t length) = 0;
    /// When this returns, the target has everything that was written. Does nothing without a connection.
    virtual void disconnect() = 0;
    /// Deallocates `length` bytes at the position, which then read as zeros, and moves the position past
    /// them. Returns false on failure; the position is unchanged then. True may only mean that the request
    /// has been sent: if it fails later, the next read or write fails instead, or `disconnect` logs the
    /// failure. Only for transports that support it.
    virtual bool punchHole(std::uint64_t length) = 0;
    /// Constant for the life of the object, connected or not.
    [[nodiscard]] virtual bool supportsHolePunching() const = 0;
};

} // namespace agent::core
