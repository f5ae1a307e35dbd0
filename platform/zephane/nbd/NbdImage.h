#pragma once

#include "zephane/wire/Limits.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>

namespace zephane {

/// The NBD server has refused a request, or can't be reached any more.
class NbdError : public std::runtime_error {
public:
    NbdError(int error, const std::string& what) : std::runtime_error(what), error(error) {}

    const int error; ///< errno, as the server sent it if it did
};

/// Time limits.
struct NbdPatience {
    std::chrono::milliseconds connecting = wire::answerTime; ///< until the image's size is known
    std::chrono::milliseconds answering = wire::answerTime;  ///< for each answer
};

/// One NBD connection to one image.
/// Owns:    the connection; the destructor drops it without a disconnect request.
/// Threads: one at a time.
/// Fails:   NbdError, with ETIMEDOUT when an answer takes too long. After a timeout or a broken connection
///          `isAlive` is false, and every call fails.
///
/// Ranges are checked before anything is sent: a range that ends beyond the image, or is larger than
/// wire::requestBytes, fails with EINVAL.
class NbdImage {
public:
    /// Connects over a connected socket, and takes ownership of it.
    explicit NbdImage(int socket, NbdPatience patience = {});
    /// Connects over a Unix socket at `path`.
    explicit NbdImage(const std::string& path, NbdPatience patience = {});
    NbdImage(NbdImage&& other) noexcept;
    NbdImage& operator=(NbdImage&& other) noexcept;
    NbdImage(const NbdImage&) = delete;
    NbdImage& operator=(const NbdImage&) = delete;
    ~NbdImage();

    [[nodiscard]] std::uint64_t size() const; ///< bytes
    [[nodiscard]] bool isReadOnly() const;
    /// Whether one connection can read what another one has written (NBD's multi-conn flag).
    [[nodiscard]] bool isSharedByConnections() const;
    [[nodiscard]] bool isAlive() const;

    void read(std::span<std::uint8_t> data, std::uint64_t offset);
    void write(std::span<const std::uint8_t> data, std::uint64_t offset);
    /// Makes a hole that reads as zeros. `length` may be any size; it is cut into requests. Doesn't wait for
    /// the answers: up to sixteen requests may be in flight, and one more waits for the oldest. Call
    /// `awaitHoles` before any other request that overlaps the hole.
    void queueHole(std::uint64_t offset, std::uint64_t length);
    /// Waits for all holes. Throws the first error since the last call, once.
    void awaitHoles();
    /// When this returns, all data written is on stable storage. If the server doesn't support flush
    /// requests, it has no cache to flush, and nothing is sent.
    void flush();
    /// Disconnects cleanly, with a disconnect request. Call `awaitHoles` first.
    void end();

private:
    class Connection;

    std::unique_ptr<Connection> connection;
};

} // namespace zephane
