#pragma once

#include "zephane/ftp/Status.h"
#include "zephane/socket/SocketImpl.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace zephane {

/// How long is waited.
struct ClientPatience {
    std::chrono::milliseconds opening = std::chrono::seconds(20);
    std::chrono::milliseconds answering = std::chrono::minutes(1); ///< for each answer
};

/// A remote image behind a server, as a file: a position, reads, writes and holes.
/// Owns:    the socket, and a thread that carries its bytes; destroying the object ends both at once.
/// Threads: one at a time.
/// Fails:   by status; no exception leaves it. The first failure that breaks the connection ends the client:
///          nothing is resumed, and every later call fails, `seek` too. No call waits longer than a minute
///          for an answer, nor `open` for longer than twenty seconds; only a name that the system's resolver
///          doesn't give up takes longer.
///
/// Flags: 1 leaves out writes that would change nothing, 2 compresses, 8 allows writing.
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

    /// Connects and proves both sides to each other. Once.
    virtual Status open();
    /// `whence` 0: from the start of the image, in bytes. The new position, or -1 with `errno` and where it
    /// was: EINVAL for one behind the image's end, ENOTCONN and EIO without a connection that works. Nothing
    /// is sent.
    virtual std::int64_t seek(std::int64_t position, int whence);
    /// The bytes read, behind which the position is then: fewer than `length` where the image ends, with a
    /// code of 0, and with a negative one what was read before the failure.
    virtual std::int64_t read(void* data, std::size_t length, Status& status);
    /// The bytes written, as for `read`; none of them at the end of the image is a failure, ENOSPC. `options`
    /// is 0.
    virtual std::int64_t write(const void* data, std::size_t length, int options, Status& status);
    /// Makes a hole from the position on, which reads as zeros, and moves the position behind it. What comes
    /// of it may be told by the next read, write or close.
    virtual Status punchHole(std::uint64_t length);
    /// Bytes; 0 before `open`.
    [[nodiscard]] virtual std::uint64_t size() const;
    /// What was written is on the server's storage when it returns 0.
    virtual Status close();

private:
    class Connection;
    std::unique_ptr<Connection> connection;
};

} // namespace zephane
