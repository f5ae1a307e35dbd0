#pragma once

#include "zephane/wire/Limits.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>

namespace zephane {

/// What an NBD server has refused, or that it can't be reached any more.
class NbdError : public std::runtime_error {
public:
    NbdError(int error, const std::string& what) : std::runtime_error(what), error(error) {}

    const int error; ///< errno, of the server if it has told one
};

/// How long is waited.
struct NbdPatience {
    std::chrono::milliseconds connecting = wire::answerTime; ///< until the image's size is known
    std::chrono::milliseconds answering = wire::answerTime;  ///< for each answer
};

/// One NBD connection to one image.
/// Owns:    the connection; destroying the object drops it without a word.
/// Threads: one at a time.
/// Fails:   NbdError. ETIMEDOUT when an answer takes longer than it may. After that, and after a
///          connection that has broken, every call fails; `isAlive` tells.
///
/// Ranges are checked here before anything is sent: EINVAL for what reaches behind the image or is larger
/// than wire::requestBytes.
class NbdImage {
public:
    /// Over a connected socket, which is its own from here on.
    explicit NbdImage(int socket, NbdPatience patience = {});
    /// Over a Unix socket.
    explicit NbdImage(const std::string& path, NbdPatience patience = {});
    NbdImage(NbdImage&& other) noexcept;
    NbdImage& operator=(NbdImage&& other) noexcept;
    NbdImage(const NbdImage&) = delete;
    NbdImage& operator=(const NbdImage&) = delete;
    ~NbdImage();

    [[nodiscard]] std::uint64_t size() const; ///< bytes
    [[nodiscard]] bool isReadOnly() const;
    /// Whether what one connection has been told to be done is what the next one reads.
    [[nodiscard]] bool isSharedByConnections() const;
    [[nodiscard]] bool isAlive() const;

    void read(std::span<std::uint8_t> data, std::uint64_t offset);
    void write(std::span<const std::uint8_t> data, std::uint64_t offset);
    /// Makes a hole that reads as zeros, and doesn't wait for it: sixteen may be on their way, the next one
    /// waits for the first. Of any length; it is cut into requests. What overlaps it is for after `settle`.
    void punch(std::uint64_t offset, std::uint64_t length);
    /// Waits for all holes. Throws what has failed of them since the last time, once.
    void settle();
    /// What has been written is on stable storage when it returns. An engine that knows no such request has
    /// nothing to store later: nothing is sent then.
    void flush();
    /// Says good-bye, after `settle`.
    void end();

private:
    class Connection;

    std::unique_ptr<Connection> connection;
};

} // namespace zephane
