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

/// A remote image behind a server of the file protocol, from a fixed byte offset of it on.
/// Owns:    the client, one for each connection; its library runs a thread of its own for it.
/// Threads: one at a time, without locks.
/// Fails:   by return value, after a line in the log; `connect` throws zephane::ZephaneFTPException "Invalid
///          socket configuration" if there can't even be a socket. A connection is tried five times at
///          intervals of a second. What breaks later is not tried again.
///
/// Reads and writes go to the client in pieces of 4 MiB, each after a seek to its place. The first that falls
/// short ends the call, which returns what the pieces before have done, plus what comes of that one: a count,
/// or -1 if the client doesn't go to its place.
///
/// The client compares and compresses by itself. It lets holes run behind, so a later call may tell of one
/// that has failed.
class ZephaneFTPTransport : public Transport {
public:
    /// Nothing is connected yet. `path` and `volumeId` are the name of the image, whose secret it takes.
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
    /// What is done with one piece: `size` bytes, of which the first is that at `done` of the whole.
    using PieceOperation = std::function<std::int64_t(std::uint64_t done, std::uint64_t size)>;

    [[nodiscard]] zephane::ZephaneFTPClient makeClient(bool diffMerge) const;
    static std::int64_t forEachPiece(std::uint64_t length, const PieceOperation& operation);
    std::int64_t readPiece(void* data, std::uint64_t length);
    std::int64_t writePiece(const void* data, std::uint64_t length);
    /// Takes the client to the position. False if it isn't there, with `errno` and a line that begins with
    /// `failure`.
    bool seekClient(const char* failure);
    /// Where the position is in the image; behind all images if it can't be told.
    [[nodiscard]] std::int64_t remotePosition() const;
    /// Logs what the client hasn't done and what it says of that, and sets `errno`.
    void report(const std::string& failure, const zephane::Status& status,
                const info::Reason* reason = nullptr);

    std::string host;
    std::string path;
    std::string secret;
    std::uint64_t volumeId;
    std::int64_t position = 0; ///< in bytes, from `offset` on
    std::uint64_t offset;
    std::uint32_t port;
    std::unique_ptr<zephane::ZephaneFTPClient> client; ///< of the last connection; none before the first
};

} // namespace agent::core
