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

/// Who is spoken to, and about what.
struct SessionPeer {
    std::string host;
    std::uint16_t port = 0;
    wire::ClientHello hello;
    std::string secret;
};

/// One connection to a server: the handshake, and then a thread that carries an NBD connection between a
/// local socket and the server, and digests beside it.
/// Owns:    the socket and the thread; destroying the object ends both.
/// Threads: one at a time.
/// Fails:   CallError; CallError or wire::ProtocolError of `digests`.
class Session {
public:
    using Clock = std::chrono::steady_clock;

    /// `patience` is for the answers, once the session is open. CallError without a socket.
    Session(std::unique_ptr<SocketImpl> socket, const SessionPeer& peer, std::chrono::milliseconds patience);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session();

    /// Until both sides have proven themselves to each other. The flags that the server has granted. Once.
    std::uint64_t open(Clock::time_point until);
    /// The end of the NBD connection for the client, who closes it. Once, after `open`.
    int takeLocal();
    /// What the server says the image holds there, one digest for each unit. `meanwhile` is called once,
    /// while the server reads.
    std::vector<wire::Digest> digests(const wire::DigestRequest& request,
                                      const std::function<void()>& meanwhile);
    /// Whether there is nobody to talk to any more.
    [[nodiscard]] bool hasEnded() const;
    /// Ends it. What had ended it before, if anything had.
    std::optional<Failure> end();

private:
    class Conversation;

    std::unique_ptr<Conversation> conversation;
};

} // namespace zephane
