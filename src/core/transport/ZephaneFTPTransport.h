#pragma once

#include "core/transport/Transport.h"

#include <functional>
#include <memory>
#include <string>

namespace zephane {
class ZephaneFTPClient;
struct Status;
} // namespace zephane

namespace agent::core {

/// A remote image on a server of the file protocol, starting at a fixed byte offset.
/// Owns:    the client, one for each connection; the client's library runs its own thread for it.
/// Threads: one at a time; there are no locks.
/// Fails:   by return value, after a log line; `connect` throws zephane::ZephaneFTPException "Invalid socket
///          configuration" if it can't even create a socket. A connection is tried five times with a second
///          in between. Failures after that aren't retried.
///
/// Reads and writes go to the client in pieces of 4 MiB, each after a seek to its position. The first
/// incomplete piece ends the call. The call then returns the bytes of the earlier pieces plus the result of
/// that piece, which is a count, or -1 if the seek failed.
///
/// The client itself compares and compresses. It punches holes asynchronously, so a later call may report a
/// failed hole.
class ZephaneFTPTransport : public Transport {
public:
    /// Doesn't connect yet. `path` and `volumeId` name the image, and `secret` gives access to it.
    ZephaneFTPTransport(info::Logger& logger, std::string host, std::string path, std::uint64_t volumeId,
                        std::uint64_t offset, std::uint16_t port, std::string secret);
    ZephaneFTPTransport(const ZephaneFTPTransport&) = delete;
    ZephaneFTPTransport& operator=(const ZephaneFTPTransport&) = delete;
    ZephaneFTPTransport(ZephaneFTPTransport&&) = delete;
    ZephaneFTPTransport& operator=(ZephaneFTPTransport&&) = delete;
    ~ZephaneFTPTransport() override;

    std::int64_t seek(std::int64_t distance, int whence) override;
    std::int64_t write(const void* data, std::uint64_t length) override;
    bool connect(bool diffMerge) override;
    std::int64_t read(void* data, std::uint64_t length) override;
    void disconnect() override;
    bool punchHole(std::uint64_t length) override;
    [[nodiscard]] bool supportsHolePunching() const override;

private:
    /// Reads or writes one piece: `size` bytes from byte `done` of the whole transfer on.
    using PieceOperation = std::function<std::int64_t(std::uint64_t done, std::uint64_t size)>;

    [[nodiscard]] zephane::ZephaneFTPClient makeClient(bool diffMerge) const;
    static std::int64_t forEachPiece(std::uint64_t length, const PieceOperation& operation);
    std::int64_t readPiece(void* data, std::uint64_t length);
    std::int64_t writePiece(const void* data, std::uint64_t length);
    /// Seeks the client to the position. On failure returns false, sets `errno` and logs a line that begins
    /// with `failure`; without a connection it logs nothing.
    bool seekClient(const char* failure);
    /// The position in the remote file, in bytes; past the end of every file on overflow.
    [[nodiscard]] std::int64_t remotePosition() const;
    /// Logs `failure` with the client's status, and sets `errno` from the status.
    void report(const std::string& failure, const zephane::Status& status,
                const info::Reason* reason = nullptr);

    std::string host;
    std::string path;
    std::string secret;
    std::uint64_t volumeId;
    std::int64_t position = 0; ///< in bytes, relative to `offset`
    std::uint64_t offset;
    std::uint32_t port;
    std::unique_ptr<zephane::ZephaneFTPClient> client; ///< of the last connection; null before the first
};

} // namespace agent::core
