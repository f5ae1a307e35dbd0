#pragma once

#include <cstdint>

namespace agent::core {

/// The file-like view of one remote image: a position, reads, writes and holes. Every implementation is held
/// to what stands here by tests/contract/transport.
/// Owns:    the connection; destroying the object ends it.
/// Threads: one at a time. One that comes while another is in a call may be refused with EBUSY.
/// Fails:   by return value with `errno`, after a line in the log: -1, a count that is too small, or false.
///          What can be tried again has been tried by then, for as long as it takes: a caller that gets a
///          failure gives the image up.
///
/// A read or write that fails on its way may return a count in place of -1: 0, or up to what was done before,
/// with the position behind that. Whoever needs all of it takes every smaller count as a failure.
///
/// `errno` is EINVAL for an argument that can't be, ENOSPC for a write that begins at the image's end,
/// ENOTCONN without a connection, EBUSY as said above, and EIO for everything else. A connection that has
/// broken may say EIO even when it is closed.
///
/// Positions and lengths are whole blocks of the target, for which any multiple of 4096 bytes will do. Others
/// may be refused with EINVAL, and a read of such may begin at the start of its block.
class ITransport {
public:
    virtual ~ITransport() = default;
    /// `whence` 0 is absolute, 1 relative; bytes. Returns the new position, or -1 and stays where it was.
    /// Nothing is sent: a position behind the image's end may be refused now or by what follows, with EINVAL.
    virtual std::int64_t seek(std::int64_t offset, int whence) = 0;
    /// Returns the bytes written and moves the position behind them: fewer than asked for where the image
    /// ends. After -1 the position is where it was, unless the write was to compare. What the target holds
    /// behind what was written isn't known after a failure.
    virtual std::int64_t write(const void* data, std::uint64_t length) = 0;
    /// With `diffMerge`, a write compares with the remote image and writes only what differs; a transport
    /// without such a comparison writes everything. May be called again, after a failure too. The position
    /// is 0 then.
    virtual bool connect(bool diffMerge) = 0;
    /// Returns the bytes read and moves the position behind them: fewer than asked for where the image ends,
    /// 0 at its end. After -1 the position is where it was.
    virtual std::int64_t read(void* data, std::uint64_t length) = 0;
    /// What has been written is the target's when it returns. Without a connection nothing happens.
    virtual void disconnect() = 0;
    /// Deallocates `length` bytes from the position on, which read as zeros then, and moves it behind them.
    /// False if that can't be, and the position stays. One that is told of as done may be under way still: if
    /// it fails, the next read or write fails in its place, or `disconnect` logs it. For transports that
    /// support it only.
    virtual bool punchHole(std::uint64_t length) = 0;
    /// The same for the life of the object, connected or not.
    [[nodiscard]] virtual bool supportsHolePunching() const = 0;
};

} // namespace agent::core
