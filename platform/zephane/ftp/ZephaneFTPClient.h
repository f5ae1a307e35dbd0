#pragma once

#include "zephane/ftp/Status.h"
#include "zephane/socket/SocketImpl.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace zephane {

/// Time limits.
struct ClientPatience {
    std::chrono::milliseconds opening = std::chrono::seconds(20);
    std::chrono::milliseconds answering = std::chrono::minutes(1); ///< for each answer
};

/// A remote image on a server, accessed like a file: a position, reads, writes and holes.
/// Owns:    the socket, and a thread that carries its data; the destructor ends both at once.
/// Threads: one at a time.
/// Fails:   by status; no call throws. The first failure that breaks the connection ends the client: it
///          doesn't reconnect, and every later call fails, including `seek`. No call waits longer than a
///          minute for an answer, and `open` no longer than twenty seconds, unless the system's resolver
///          takes longer.
///
/// Flags: 1 skips writes that would change nothing, 2 compresses, 8 allows writing.
class ZephaneFTPClient {
public:
    ZephaneFTPClient(std::unique_ptr<SocketImpl> socket, std::string host, unsigned short port,
                     std::string path, unsigned long volumeId, unsigned long flags, std::string secret,
                     ClientPatience patience = {});
    ZephaneFTPClient(ZephaneFTPClient&& other) noexcept;
    ZephaneFTPClient& operator=(ZephaneFTPClient&& other) noexcept;
    ZephaneFTPClient(const ZephaneFTPClient&) = delete;
    ZephaneFTPClient& operator=(const ZephaneFTPClient&) = delete;
    virtual ~ZephaneFTPClient();

    /// Connects, and has both sides prove themselves to each other. May be called once.
    virtual Status open();
    /// Sets the position; `whence` must be 0: from the start of the image, in bytes. Returns the new
    /// position, or -1 with `errno` and the position unchanged: EINVAL beyond the image's end, ENOTCONN
    /// without an open connection, EIO after it has broken. Sends nothing.
    virtual std::int64_t seek(std::int64_t position, int whence);
    /// Returns the number of bytes read, and advances the position by it. With code 0 it is less than
    /// `length` only at the end of the image; with a negative code it is the number read before the failure.
    virtual std::int64_t read(void* data, std::size_t length, Status& status);
    /// Returns the number of bytes written, as `read` does. Writing at the end of the image fails with
    /// ENOSPC. `options` must be 0.
    virtual std::int64_t write(const void* data, std::size_t length, int options, Status& status);
    /// Makes a hole of `length` bytes, which reads as zeros, and advances the position by it. A failure may
    /// be reported only by the next read, write or close.
    virtual Status punchHole(std::uint64_t length);
    /// In bytes; 0 before `open`.
    [[nodiscard]] virtual std::uint64_t size() const;
    /// If this returns 0, all data written is on the server's storage.
    virtual Status close();

private:
    class Connection;
    std::unique_ptr<Connection> connection;
};

} // namespace zephane
