#pragma once

#include "zephane/ftp/Failure.h"
#include "zephane/socket/SocketImpl.h"
#include "zephane/wire/Digests.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zephane {

/// The server to connect to, and the image to ask for.
struct SessionPeer {
    std::string host;
    std::uint16_t port = 0;
    wire::ClientHello hello;
    std::string secret;
};

/// One connection to a server: the handshake, and then a thread that carries an NBD connection between a
/// local socket and the server, and also digest requests and answers.
/// Owns:    the socket and the thread; the destructor ends both.
/// Threads: one at a time.
/// Fails:   CallError; `digests` also throws wire::ProtocolError.
class Session {
public:
    using Clock = std::chrono::steady_clock;

    /// `patience` is the time limit for each answer once the session is open. Throws CallError without a
    /// socket.
    Session(std::unique_ptr<SocketImpl> socket, const SessionPeer& peer, std::chrono::milliseconds patience);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session();

    /// Connects, and returns after both sides have proven themselves; the result is the flags that the server
    /// has granted. May be called once.
    std::uint64_t open(Clock::time_point until);
    /// The client's end of the local NBD connection, which the caller must close. May be called once, after
    /// `open`.
    int takeLocal();
    /// The server's digests of a range of the image, one for each unit. Calls `meanwhile` once, while the
    /// server reads.
    std::vector<wire::Digest> digests(const wire::DigestRequest& request,
                                      const std::function<void()>& meanwhile);
    /// Whether the connection has ended.
    [[nodiscard]] bool hasEnded() const;
    /// Ends the connection. Returns the failure that had ended it before, if any.
    std::optional<Failure> end();

private:
    class Conversation;

    std::unique_ptr<Conversation> conversation;
};

} // namespace zephane
