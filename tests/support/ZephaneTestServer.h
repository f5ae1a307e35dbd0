#pragma once

#include "zephane/wire/Digests.h"
#include "zephane/wire/Limits.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace zephane::test {

/// What a server does, where it isn't what every server does.
struct ServerConduct {
    std::string secret = "a secret";
    std::uint64_t grants = wire::compareFlag | wire::compressionFlag | wire::writableFlag;
    /// Sent in place of a grant, if it isn't 0.
    std::int32_t refusal = 0;
    /// What digests are answered with, if it isn't 0.
    std::int32_t digestCode = 0;
    bool losesDigest = false;   ///< answers with one less than there are
    bool answersDigests = true; ///< or never
    bool sendsUnasked = false;  ///< a digest answer that nobody has asked for, first of all
};

/// A server for image "image" 7 in front of an engine, for clients in the same process.
/// Owns:    a thread; destroying the object ends all connections.
class ZephaneTestServer {
public:
    explicit ZephaneTestServer(std::string engineSocket, ServerConduct conduct = {});
    ZephaneTestServer(const ZephaneTestServer&) = delete;
    ZephaneTestServer& operator=(const ZephaneTestServer&) = delete;
    ~ZephaneTestServer();

    [[nodiscard]] std::uint16_t port() const;
    [[nodiscard]] std::size_t digestRequests() const;
    /// Of the last connection.
    [[nodiscard]] wire::ClientId lastClient() const;

private:
    class Impl;
    std::unique_ptr<Impl> impl;
};

/// What a network does to a connection.
struct NetworkFault {
    std::size_t afterBytes = 0;
    bool isToClient = false; ///< counted there; to the server otherwise
    bool isSilent = false;   ///< nothing arrives any more; both connections are cut otherwise
};

/// A network between clients and a server.
/// Owns:    a thread; destroying the object ends all connections.
class ZephaneTestNetwork {
public:
    ZephaneTestNetwork(std::uint16_t serverPort, NetworkFault fault);
    ZephaneTestNetwork(const ZephaneTestNetwork&) = delete;
    ZephaneTestNetwork& operator=(const ZephaneTestNetwork&) = delete;
    ~ZephaneTestNetwork();

    [[nodiscard]] std::uint16_t port() const;
    /// Whether the fault has come.
    [[nodiscard]] bool hasFailed() const;

private:
    class Impl;
    std::unique_ptr<Impl> impl;
};

} // namespace zephane::test
